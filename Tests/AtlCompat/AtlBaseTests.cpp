// CHandle and CRegKey: copying transfers ownership, destruction closes, and
// CRegKey's calls work on a real key of the prefix's registry.

#include "QXTestSupport.h"

#include <atlbase.h>

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace
{
bool IsOpen(HANDLE h)
{
    DWORD flags = 0;
    return GetHandleInformation(h, &flags) != FALSE;
}

HANDLE NewEvent()
{
    return CreateEventW(nullptr, TRUE, FALSE, nullptr);
}

TEST(CHandle, CopyTransfersAndDestructionCloses)
{
    HANDLE raw = NewEvent();
    ASSERT_NE(raw, nullptr);
    {
        ATL::CHandle a(raw);
        ATL::CHandle b(a); // copy takes the handle
        EXPECT_EQ(a.m_h, nullptr);
        EXPECT_EQ(static_cast<HANDLE>(b), raw);
        ATL::CHandle c;
        c = b; // assignment takes it too
        EXPECT_EQ(b.m_h, nullptr);
        EXPECT_EQ(c.m_h, raw);
        EXPECT_TRUE(IsOpen(raw));
    }
    EXPECT_FALSE(IsOpen(raw));

    HANDLE kept = NewEvent();
    {
        ATL::CHandle d(kept);
        EXPECT_EQ(d.Detach(), kept);
    }
    EXPECT_TRUE(IsOpen(kept));

    // Assigning over a held handle closes the old one.
    HANDLE other = NewEvent();
    {
        ATL::CHandle e(kept);
        ATL::CHandle f(other);
        e = f;
        EXPECT_FALSE(IsOpen(kept));
        EXPECT_TRUE(IsOpen(other));
        e.Close();
        EXPECT_EQ(e.m_h, nullptr);
        EXPECT_FALSE(IsOpen(other));
    }
}

TEST(CRegKey, CreateQueryEnumerateAndDelete)
{
    QXTest::TestRegKey parent;
    ATL::CRegKey key;
    DWORD disposition = 0;
    ASSERT_EQ(key.Create(parent.Handle(), L"Atl", nullptr, REG_OPTION_NON_VOLATILE, KEY_READ | KEY_WRITE, nullptr,
                         &disposition),
              ERROR_SUCCESS);
    EXPECT_EQ(disposition, static_cast<DWORD>(REG_CREATED_NEW_KEY));

    ASSERT_EQ(key.SetStringValue(L"Name", L"value text"), ERROR_SUCCESS);
    ASSERT_EQ(key.SetDWORDValue(L"Number", 0xDEADBEEF), ERROR_SUCCESS);
    wchar_t text[64] = {};
    ULONG chars = 64;
    ASSERT_EQ(key.QueryStringValue(L"Name", text, &chars), ERROR_SUCCESS);
    EXPECT_STREQ(text, L"value text");
    EXPECT_EQ(chars, 11u);
    // Too small: the size asked for is enough for the text and its NUL (one
    // more when the stored data may lack the NUL), and works when given.
    chars = 4;
    EXPECT_EQ(key.QueryStringValue(L"Name", text, &chars), ERROR_MORE_DATA);
    EXPECT_GE(chars, 11u);
    EXPECT_LE(chars, 12u);
    EXPECT_EQ(key.QueryStringValue(L"Name", text, &chars), ERROR_SUCCESS);
    EXPECT_STREQ(text, L"value text");
    DWORD number = 0;
    ASSERT_EQ(key.QueryDWORDValue(L"Number", number), ERROR_SUCCESS);
    EXPECT_EQ(number, 0xDEADBEEFu);
    EXPECT_EQ(key.QueryDWORDValue(L"Name", number), ERROR_MORE_DATA); // longer than a DWORD, as ATL reports
    EXPECT_EQ(number, 0xDEADBEEFu);
    EXPECT_EQ(key.QueryStringValue(L"Number", text, &chars), ERROR_INVALID_DATA);
    EXPECT_EQ(key.QueryDWORDValue(L"Missing", number), ERROR_FILE_NOT_FOUND);

    // A string stored without its NUL comes back terminated.
    const wchar_t raw[] = {L'a', L'b', L'c'};
    ASSERT_EQ(key.SetValue(L"Raw", REG_SZ, raw, sizeof(raw)), ERROR_SUCCESS);
    chars = 64;
    ASSERT_EQ(key.QueryStringValue(L"Raw", text, &chars), ERROR_SUCCESS);
    EXPECT_STREQ(text, L"abc");

    ATL::CRegKey child;
    const std::set<std::wstring> names = {L"one", L"two", L"three"};
    for (const auto& name : names)
    {
        ASSERT_EQ(child.Create(key, name.c_str()), ERROR_SUCCESS);
        ATL::CRegKey grandChild;
        ASSERT_EQ(grandChild.Create(child, L"deep"), ERROR_SUCCESS);
    }
    std::set<std::wstring> found;
    for (DWORD i = 0;; ++i)
    {
        wchar_t name[256];
        DWORD length = 256;
        LONG res = key.EnumKey(i, name, &length);
        if (res == ERROR_NO_MORE_ITEMS)
            break;
        ASSERT_EQ(res, ERROR_SUCCESS);
        EXPECT_EQ(length, wcslen(name));
        found.insert(name);
    }
    EXPECT_EQ(found, names);

    ATL::CRegKey root(parent.Handle());
    HKEY opened = nullptr;
    {
        ATL::CRegKey copy(key); // the copy takes the key
        EXPECT_EQ(key.m_hKey, nullptr);
        opened = copy;
        ASSERT_EQ(copy.RecurseDeleteKey(L"one"), ERROR_SUCCESS);
    }
    EXPECT_EQ(RegQueryInfoKeyW(opened, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                               nullptr, nullptr, nullptr),
              ERROR_INVALID_HANDLE); // closed with the copy

    ASSERT_EQ(key.Open(parent.Handle(), L"Atl", KEY_READ), ERROR_SUCCESS);
    DWORD subKeys = 0;
    ASSERT_EQ(RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, nullptr, nullptr, nullptr,
                               nullptr, nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ(subKeys, 2u);
    key.Close();

    ASSERT_EQ(root.RecurseDeleteKey(L"Atl"), ERROR_SUCCESS);
    EXPECT_EQ(key.Open(parent.Handle(), L"Atl", KEY_READ), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(root.RecurseDeleteKey(L"Atl"), ERROR_FILE_NOT_FOUND);
    root.Detach(); // the key belongs to TestRegKey
}
} // namespace
