// Values written byte for byte into the prefix's registry, read through both
// string readers and the DWORD reader; sub-key enumeration; virtual dispatch.

#include "QXTestSupport.h"

#include "QXCommon/QXCommonFunctions.h"
#include "QXCommon/RegistryHelper.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace
{
// Raw bytes of a wide text, optionally with its NUL, less some bytes at the end.
std::string Bytes(const std::wstring& text, bool withNul, size_t dropBytes = 0)
{
    return std::string(reinterpret_cast<const char*>(text.c_str()),
                       (text.size() + (withNul ? 1 : 0)) * sizeof(wchar_t) - dropBytes);
}
} // namespace

TEST(Registry, StringAndDwordValuesThroughEveryReader)
{
    struct Case { const char* name; DWORD type; std::string data; DWORD status; bool helperOk; std::wstring expected; };
    const std::wstring s259(259, L'x'), s260(260, L'y');
    const Case cases[] = { // status: RegQueryStringValue; helperOk: CRegistryHelper::QueryRegKey
        {"plain", REG_SZ, Bytes(L"hello", true), 0, true, L"hello"},
        {"expand_not_expanded", REG_EXPAND_SZ, Bytes(L"%SystemRoot%\\x", true), 0, true, L"%SystemRoot%\\x"},
        {"empty_size0", REG_SZ, std::string(), 0, true, L""}, {"only_nul", REG_SZ, Bytes(L"", true), 0, true, L""},
        {"no_terminating_nul", REG_SZ, Bytes(L"abc", false), ERROR_INVALID_DATA, false, L""},
        {"odd_count_3", REG_SZ, Bytes(L"a", true, 1), ERROR_INVALID_DATA, false, L""},
        {"odd_count_with_nul", REG_SZ, Bytes(L"ab", true) + "z", ERROR_INVALID_DATA, false, L""},
        {"single_byte", REG_SZ, "q", ERROR_INVALID_DATA, false, L""},
        {"embedded_nul_ends_text", REG_SZ, Bytes(std::wstring(L"ab\0cd", 5), true), 0, true, L"ab"},
        {"chars259", REG_SZ, Bytes(s259, true), 0, true, s259}, {"chars260", REG_SZ, Bytes(s260, true), 0, false, s260},
        {"chars260_no_nul", REG_SZ, Bytes(s260, false), ERROR_INVALID_DATA, false, L""},
        {"dword_type", REG_DWORD, std::string("\x01\x00\x00\x00", 4), ERROR_INVALID_DATA, false, L""},
        {"binary_type", REG_BINARY, Bytes(L"text", true), ERROR_INVALID_DATA, false, L""},
        {"multi_sz_type", REG_MULTI_SZ, Bytes(L"a", true) + std::string(2, '\0'), ERROR_INVALID_DATA, false, L""},
    };
    QXTest::TestRegKey key;
    for (const auto& c : cases)
    {
        // RegSetValueExW quietly counts a NUL that follows the given bytes of
        // a string value (Windows does this too): follow them with a non-NUL
        // character so that exactly these bytes are stored.
        const std::string stored = c.data + "!!";
        key.SetRaw(QXTest::Widen(c.name), c.type, stored.data(), static_cast<DWORD>(c.data.size()));
    }
    CRegistryHelper helper;
    ATL::CRegKey open;
    ASSERT_EQ(open.Open(key.Root(), key.SubKey().c_str(), KEY_READ), ERROR_SUCCESS);
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        const std::wstring name = QXTest::Widen(c.name);
        std::wstring viaFunction = L"untouched", viaHelper = L"untouched";
        EXPECT_EQ(QXCommonFunctions::RegQueryStringValue(open, name.c_str(), viaFunction), c.status);
        EXPECT_EQ(viaFunction, c.status == 0 ? c.expected : L"untouched");
        EXPECT_EQ(helper.QueryRegKey(open, name, viaHelper), c.helperOk);
        EXPECT_EQ(viaHelper, c.helperOk ? c.expected : L"untouched");
    }
    std::wstring value;
    EXPECT_EQ(QXCommonFunctions::RegQueryStringValue(open, L"absent", value), DWORD(ERROR_FILE_NOT_FOUND));
    EXPECT_FALSE(helper.QueryRegKey(open, L"absent", value));
    key.SetString(L"", L"default text");
    EXPECT_EQ(QXCommonFunctions::RegQueryStringValue(open, nullptr, value), 0u);
    EXPECT_EQ(value, L"default text");

    // DWORD values: wrong type, eight bytes, absent: refused, value untouched.
    key.SetDword(L"number", 0xDEADBEEF);
    const unsigned long long wide = 7;
    key.SetRaw(L"qword", REG_QWORD, &wide, sizeof(wide));
    DWORD number = 0;
    EXPECT_TRUE(helper.QueryRegKeyDWORD(key.Handle(), L"number", number));
    EXPECT_EQ(number, 0xDEADBEEFu);
    for (const wchar_t* name : {L"plain", L"qword", L"absent"})
        EXPECT_FALSE(helper.QueryRegKeyDWORD(key.Handle(), name, number)) << QXTest::Narrow(name);
    EXPECT_EQ(number, 0xDEADBEEFu);
}

TEST(Registry, OpenRegKeyAsksForReadAndWriteAndEnumerationAppends)
{
    QXTest::TestRegKey key;
    CRegistryHelper helper;
    ATL::CRegKey opened, missing;
    ASSERT_TRUE(helper.OpenRegKey(opened, key.Root(), key.SubKey()));
    EXPECT_EQ(opened.SetDWORDValue(L"written", 5), ERROR_SUCCESS); // write access came with the key
    EXPECT_FALSE(helper.OpenRegKey(missing, key.Root(), key.SubKey() + L"\\nope"));
    EXPECT_EQ(static_cast<HKEY>(missing), nullptr);

    for (const std::wstring& name : {std::wstring(L"alpha"), std::wstring(L"beta"), std::wstring(L"Gamma\\nested"),
                                     std::wstring(L"empty"), std::wstring(255, L'k')})
        key.CreateSubKey(name);
    std::vector<std::wstring> names = {L"kept"};
    ASSERT_TRUE(helper.EnumerateRegSubKeys(key.Root(), key.SubKey(), names));
    ASSERT_EQ(names.size(), 6u);
    EXPECT_EQ(names[0], L"kept");
    std::sort(names.begin() + 1, names.end(), [](auto& a, auto& b) { return _wcsicmp(a.c_str(), b.c_str()) < 0; });
    EXPECT_EQ(names, (std::vector<std::wstring>{L"kept", L"alpha", L"beta", L"empty", L"Gamma", std::wstring(255, L'k')}));
    std::vector<std::wstring> none = {L"x"};
    EXPECT_TRUE(helper.EnumerateRegSubKeys(key.Root(), key.SubKey() + L"\\empty", none));
    EXPECT_FALSE(helper.EnumerateRegSubKeys(key.Root(), key.SubKey() + L"\\missing", none));
    EXPECT_EQ(none, std::vector<std::wstring>{L"x"});
}

namespace
{
// The real helper with its value reader replaced: OpenAndQueryRegKey must
// reach the reader through the interface.
class RecordingHelper : public CRegistryHelper
{
public:
    bool QueryRegKey(HKEY key, const std::wstring& valueName, std::wstring& value) override
    {
        calls.push_back(key != nullptr ? valueName : L"<no key>");
        value = L"from override";
        return answer;
    }
    std::vector<std::wstring> calls;
    bool answer = true;
};
} // namespace

TEST(Registry, OpenAndQueryCallsTheVirtualReader)
{
    QXTest::TestRegKey key;
    key.SetString(L"name", L"real value");
    RecordingHelper helper;
    IRegistryHelper& registry = helper;
    std::wstring value;
    EXPECT_TRUE(registry.OpenAndQueryRegKey(key.Root(), key.SubKey(), L"name", value));
    EXPECT_EQ(value, L"from override");
    helper.answer = false;
    EXPECT_FALSE(registry.OpenAndQueryRegKey(key.Root(), key.SubKey(), L"name", value));
    // A key that cannot be opened never reaches the reader.
    EXPECT_FALSE(registry.OpenAndQueryRegKey(key.Root(), key.SubKey() + L"\\missing", L"name", value));
    EXPECT_EQ(helper.calls, (std::vector<std::wstring>{L"name", L"name"}));
    // Without the override the real reader answers.
    EXPECT_TRUE(CRegistryHelper().OpenAndQueryRegKey(key.Root(), key.SubKey(), L"name", value));
    EXPECT_EQ(value, L"real value");
}
