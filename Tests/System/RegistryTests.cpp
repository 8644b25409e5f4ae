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
// Raw bytes of a wide text, optionally with its NUL and extra bytes cut off.
std::string Bytes(const std::wstring& text, bool withNul, size_t dropBytes = 0)
{
    std::string bytes(reinterpret_cast<const char*>(text.c_str()), (text.size() + (withNul ? 1 : 0)) * sizeof(wchar_t));
    bytes.resize(bytes.size() - dropBytes);
    return bytes;
}

struct StringCase
{
    const char* name;
    DWORD type;
    std::string data;
    DWORD expectedStatus; // RegQueryStringValue
    bool helperOk;        // CRegistryHelper::QueryRegKey
    std::wstring expected;
};

std::vector<StringCase> StringCases()
{
    const std::wstring s259(259, L'x');
    const std::wstring s260(260, L'y');
    return {
        {"plain", REG_SZ, Bytes(L"hello", true), 0, true, L"hello"},
        {"expand_not_expanded", REG_EXPAND_SZ, Bytes(L"%SystemRoot%\\x", true), 0, true, L"%SystemRoot%\\x"},
        {"empty_size0", REG_SZ, std::string(), 0, true, L""},
        {"only_nul", REG_SZ, Bytes(L"", true), 0, true, L""},
        {"no_terminating_nul", REG_SZ, Bytes(L"abc", false), ERROR_INVALID_DATA, false, L""},
        {"odd_count_3", REG_SZ, Bytes(L"a", true, 1), ERROR_INVALID_DATA, false, L""},
        {"odd_count_with_nul", REG_SZ, Bytes(L"ab", true) + std::string(1, 'z'), ERROR_INVALID_DATA, false, L""},
        {"single_byte", REG_SZ, std::string(1, 'q'), ERROR_INVALID_DATA, false, L""},
        {"embedded_nul_ends_text", REG_SZ, Bytes(std::wstring(L"ab\0cd", 5), true), 0, true, L"ab"},
        {"chars259", REG_SZ, Bytes(s259, true), 0, true, s259},
        {"chars260", REG_SZ, Bytes(s260, true), 0, false, s260},
        {"chars260_no_nul", REG_SZ, Bytes(s260, false), ERROR_INVALID_DATA, false, L""},
        {"dword_type", REG_DWORD, std::string("\x01\x00\x00\x00", 4), ERROR_INVALID_DATA, false, L""},
        {"binary_type", REG_BINARY, Bytes(L"text", true), ERROR_INVALID_DATA, false, L""},
        {"multi_sz_type", REG_MULTI_SZ, Bytes(L"a", true) + std::string(2, '\0'), ERROR_INVALID_DATA, false, L""},
    };
}
} // namespace

TEST(Registry, StringValuesThroughBothReaders)
{
    QXTest::TestRegKey key;
    const auto cases = StringCases();
    for (const auto& c : cases)
    {
        // RegSetValueExW quietly counts a NUL that follows the given bytes of
        // a string value (Windows does this too): follow them with a
        // non-NUL character so that exactly these bytes are stored.
        std::string stored = c.data + "!!";
        key.SetRaw(QXTest::Widen(c.name), c.type, stored.data(), static_cast<DWORD>(c.data.size()));
    }

    ATL::CRegKey open;
    ASSERT_EQ(open.Open(key.Root(), key.SubKey().c_str(), KEY_READ), ERROR_SUCCESS);
    CRegistryHelper helper;
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        const std::wstring name = QXTest::Widen(c.name);

        std::wstring viaFunction = L"untouched";
        DWORD status = QXCommonFunctions::RegQueryStringValue(open, name.c_str(), viaFunction);
        EXPECT_EQ(status, c.expectedStatus);
        if (c.expectedStatus == 0)
            EXPECT_EQ(viaFunction, c.expected);
        else
            EXPECT_EQ(viaFunction, L"untouched");

        std::wstring viaHelper = L"untouched";
        EXPECT_EQ(helper.QueryRegKey(open, name, viaHelper), c.helperOk);
        if (c.helperOk)
            EXPECT_EQ(viaHelper, c.expected);
        else
            EXPECT_EQ(viaHelper, L"untouched");
    }

    std::wstring value;
    EXPECT_EQ(QXCommonFunctions::RegQueryStringValue(open, L"absent", value), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_FALSE(helper.QueryRegKey(open, L"absent", value));
    key.SetString(L"", L"default text");
    EXPECT_EQ(QXCommonFunctions::RegQueryStringValue(open, nullptr, value), 0u);
    EXPECT_EQ(value, L"default text");
}

TEST(Registry, DwordValues)
{
    QXTest::TestRegKey key;
    key.SetDword(L"number", 0xDEADBEEF);
    key.SetString(L"text", L"12");
    const unsigned long long wide = 7;
    key.SetRaw(L"qword", REG_QWORD, &wide, sizeof(wide));

    CRegistryHelper helper;
    DWORD value = 0;
    EXPECT_TRUE(helper.QueryRegKeyDWORD(key.Handle(), L"number", value));
    EXPECT_EQ(value, 0xDEADBEEFu);
    // Wrong type, eight bytes, absent: refused, value untouched.
    for (const wchar_t* name : {L"text", L"qword", L"absent"})
    {
        value = 99;
        EXPECT_FALSE(helper.QueryRegKeyDWORD(key.Handle(), name, value)) << QXTest::Narrow(name);
        EXPECT_EQ(value, 99u);
    }
}

TEST(Registry, OpenRegKeyAsksForReadAndWrite)
{
    QXTest::TestRegKey key;
    CRegistryHelper helper;
    ATL::CRegKey opened;
    ASSERT_TRUE(helper.OpenRegKey(opened, key.Root(), key.SubKey()));
    // Write access was granted with the key: a value can be set through it.
    EXPECT_EQ(opened.SetDWORDValue(L"written", 5), ERROR_SUCCESS);
    DWORD value = 0;
    EXPECT_TRUE(helper.QueryRegKeyDWORD(key.Handle(), L"written", value));
    EXPECT_EQ(value, 5u);

    ATL::CRegKey missing;
    EXPECT_FALSE(helper.OpenRegKey(missing, key.Root(), key.SubKey() + L"\\nope"));
    EXPECT_EQ(static_cast<HKEY>(missing), nullptr);
}

TEST(Registry, EnumerateSubKeysAppends)
{
    QXTest::TestRegKey key;
    key.CreateSubKey(L"alpha");
    key.CreateSubKey(L"beta");
    key.CreateSubKey(L"Gamma\\nested");
    key.CreateSubKey(L"empty");
    CRegistryHelper helper;

    std::vector<std::wstring> names = {L"kept"};
    ASSERT_TRUE(helper.EnumerateRegSubKeys(key.Root(), key.SubKey(), names));
    ASSERT_EQ(names.size(), 5u);
    EXPECT_EQ(names[0], L"kept");
    std::vector<std::wstring> found(names.begin() + 1, names.end());
    std::sort(found.begin(), found.end(), [](const std::wstring& a, const std::wstring& b) {
        return _wcsicmp(a.c_str(), b.c_str()) < 0;
    });
    EXPECT_EQ(found, (std::vector<std::wstring>{L"alpha", L"beta", L"empty", L"Gamma"}));

    std::vector<std::wstring> none = {L"x"};
    EXPECT_TRUE(helper.EnumerateRegSubKeys(key.Root(), key.SubKey() + L"\\empty", none));
    EXPECT_EQ(none, std::vector<std::wstring>{L"x"});

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
        ++calls;
        lastName = valueName;
        lastKeyWasOpen = key != nullptr;
        value = L"from override";
        return answer;
    }
    int calls = 0;
    bool answer = true;
    bool lastKeyWasOpen = false;
    std::wstring lastName;
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
    EXPECT_EQ(helper.calls, 1);
    EXPECT_EQ(helper.lastName, L"name");
    EXPECT_TRUE(helper.lastKeyWasOpen);

    helper.answer = false;
    EXPECT_FALSE(registry.OpenAndQueryRegKey(key.Root(), key.SubKey(), L"name", value));
    EXPECT_EQ(helper.calls, 2);

    // A key that cannot be opened never reaches the reader.
    EXPECT_FALSE(registry.OpenAndQueryRegKey(key.Root(), key.SubKey() + L"\\missing", L"name", value));
    EXPECT_EQ(helper.calls, 2);

    // Without the override the real reader answers.
    CRegistryHelper plain;
    EXPECT_TRUE(plain.OpenAndQueryRegKey(key.Root(), key.SubKey(), L"name", value));
    EXPECT_EQ(value, L"real value");
}
