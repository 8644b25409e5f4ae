// Texts of result codes, GUID values and their text forms, and the event log.

#include "QXLog.h"
#include "QXTestSupport.h"

#include "QXCommon/Guid.h"
#include "QXCommon/HResult.h"
#include "QXCommon/QXCommonFunctions.h"

#include <gtest/gtest.h>

#include <objbase.h>

#include <set>
#include <string>

namespace
{
// The system's own text for a code, as FormatMessageW gives it (empty if none).
std::wstring SystemText(DWORD code, DWORD flags)
{
    wchar_t* raw = nullptr;
    DWORD n = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | flags, nullptr, code,
                             MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<LPWSTR>(&raw), 0, nullptr);
    std::wstring text = n != 0 ? std::wstring(raw, n) : std::wstring();
    LocalFree(raw);
    return text;
}
} // namespace

TEST(HResult, ToStringForCodesWithAndWithoutText)
{
    struct Case
    {
        HRESULT code;
        const wchar_t* prefix;
        const wchar_t* fallback; // text when the system has none
    };
    const Case cases[] = {
        {E_ACCESSDENIED, L"0x80070005 ", nullptr},
        {static_cast<HRESULT>(0x80040201), L"0x80040201 ", L"IDispatch error #1"},
        {static_cast<HRESULT>(0x80040210), L"0x80040210 ", L"IDispatch error #16"},
        {static_cast<HRESULT>(0x8004FFFF), L"0x8004ffff ", L"IDispatch error #65023"},
        {static_cast<HRESULT>(0x80040200), L"0x80040200 ", L"Unknown error 0x80040200"},
        {static_cast<HRESULT>(0x80041200), L"0x80041200 ", L"IDispatch error #4096"},
        {static_cast<HRESULT>(0x80050200), L"0x80050200 ", L"Unknown error 0x80050200"},
        {static_cast<HRESULT>(0x800401FF), L"0x800401ff ", L"Unknown error 0x800401FF"},
        {static_cast<HRESULT>(0xA0051234), L"0xa0051234 ", L"Unknown error 0xA0051234"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.prefix);
        std::wstring system = SystemText(static_cast<DWORD>(c.code), FORMAT_MESSAGE_IGNORE_INSERTS);
        std::wstring text = QXCommon::CHResult(c.code).ToString();
        ASSERT_EQ(text.rfind(c.prefix, 0), 0u) << QXTest::Narrow(text);
        std::wstring message = text.substr(wcslen(c.prefix));
        if (system.empty())
        {
            ASSERT_NE(c.fallback, nullptr) << "the system has no text for this code here";
            EXPECT_EQ(message, c.fallback);
        }
        else
        {
            // The system's text without its trailing line break.
            while (!system.empty() && (system.back() == L'\n' || system.back() == L'\r'))
                system.pop_back();
            EXPECT_EQ(message, system);
            EXPECT_EQ(message.find(L'\n'), std::wstring::npos);
        }
    }
}

TEST(ErrorMessage, TextWithoutLineBreaksAndItsLogLine)
{
    QXTest::LogCapture capture;
    EXPECT_EQ(QXCommonFunctions::ErrorMessageFromCode(0), L""); // zero: empty and silent
    EXPECT_EQ(capture.Count(), 0u) << capture.Dump();
    for (int code : {5, 2, static_cast<int>(0x80070057)})
    {
        SCOPED_TRACE(code);
        std::wstring system = SystemText(static_cast<DWORD>(code), 0);
        ASSERT_FALSE(system.empty()) << "the system has no text for this code";
        std::wstring text = QXCommonFunctions::ErrorMessageFromCode(code);
        EXPECT_EQ(text.find(L"\r\n"), std::wstring::npos);
        std::wstring expected = system;
        for (size_t at; (at = expected.find(L"\r\n")) != std::wstring::npos;)
            expected.erase(at, 2);
        EXPECT_EQ(text, expected);
        wchar_t hex[16];
        swprintf(hex, 16, L"%X", static_cast<unsigned>(code));
        EXPECT_TRUE(capture.Has(4, "QXCommonFunctions::ErrorMessageFromCode",
                                std::wstring(L"Error ") + hex + L" [" + text + L"]\n"))
            << capture.Dump();
    }
}

TEST(ErrorMessage, CodeWithoutTextLogsTheFailure)
{
    QXTest::LogCapture capture;
    const int code = 0x2BADF00D;
    ASSERT_TRUE(SystemText(code, FORMAT_MESSAGE_IGNORE_INSERTS).empty());
    wchar_t* raw = nullptr;
    SetLastError(0);
    ASSERT_EQ(FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM, nullptr, code, 0,
                             reinterpret_cast<LPWSTR>(&raw), 100, nullptr),
              0u);
    const DWORD systemError = GetLastError();
    EXPECT_NE(systemError, 0u);

    EXPECT_EQ(QXCommonFunctions::ErrorMessageFromCode(code), L"");
    EXPECT_TRUE(capture.Has(1, "QXCommonFunctions::ErrorMessageFromCode",
                            L"FormatMessageW failed - error " + std::to_wstring(systemError) + L"\n"))
        << capture.Dump();
}

TEST(Guid, NewGuidsAndTheirText)
{
    QXCommon::CGuid zero;
    EXPECT_EQ(zero.ToString(), L"{00000000-0000-0000-0000-000000000000}");

    std::set<std::wstring> seen;
    for (int k = 0; k < 20; ++k)
    {
        QXCommon::CGuid guid;
        ASSERT_TRUE(guid.CreateNew());
        std::wstring text = guid.ToString();
        SCOPED_TRACE(QXTest::Narrow(text));
        ASSERT_EQ(text.size(), 38u);
        EXPECT_TRUE(text.front() == L'{' && text.back() == L'}');
        EXPECT_EQ(text.find_first_of(L"abcdef"), std::wstring::npos); // upper-case hex only
        EXPECT_TRUE(seen.insert(text).second);

        CLSID parsed = {};
        ASSERT_EQ(CLSIDFromString(text.c_str(), &parsed), S_OK);
        EXPECT_TRUE(QXCommon::CGuid(parsed) == guid);
        EXPECT_FALSE(guid == zero);
    }
    std::wstring fresh = QXCommon::CGuid::CreateNewAsString();
    EXPECT_EQ(fresh.size(), 38u);
    EXPECT_EQ(seen.count(fresh), 0u);
}

TEST(Guid, EqualityLooksAtEveryByte)
{
    const GUID g1 = {0x01234567, 0x89AB, 0xCDEF, {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}};
    GUID g2 = g1;
    g2.Data4[7] ^= 1; // last byte only
    QXCommon::CGuid a(g1), b(g2);
    EXPECT_FALSE(a == b);
    EXPECT_TRUE(a != b);
    EXPECT_EQ(a.ToString(), L"{01234567-89AB-CDEF-0123-456789ABCDEF}");
    GUID& ref = b; // writable through the conversion
    ref.Data4[7] = 0xEF;
    EXPECT_TRUE(b == a);
}

TEST(Guid, Canonicalize)
{
    const std::pair<std::wstring, std::wstring> cases[] = {
        {L"abc", L"{ABC}"}, {L"{abc}", L"{ABC}"}, {L"", L""}, {L"{abc", L"{ABC}"},
        {L"abc}", L"{ABC}"}, {L"{", L"{}"},       {L"}", L"{}"},
        {L"0123abcd-ef01-2345-6789-abcdef012345", L"{0123ABCD-EF01-2345-6789-ABCDEF012345}"},
        {L"not a guid", L"{NOT A GUID}"},
    };
    for (auto [text, out] : cases)
    {
        QXCommon::CGuid::Canonicalize(text);
        EXPECT_EQ(text, out);
    }
}

TEST(EventLog, WritesUnderTheProductSource)
{
    QXTest::LogCapture capture;
    // Wine accepts the source and the event and drops the event: success, no log line.
    EXPECT_EQ(QXCommonFunctions::LogEventDirect(1000, EVENTLOG_INFORMATION_TYPE, L"Process %ls blocked (%d)",
                                                L"C:\\x.exe", 42),
              0u);
    std::wstring longText(5000, L'z');
    EXPECT_EQ(QXCommonFunctions::LogEventDirect(1001, EVENTLOG_WARNING_TYPE, L"%ls", longText.c_str()), 0u);
    EXPECT_EQ(QXCommonFunctions::LogEventDirect(1002, EVENTLOG_ERROR_TYPE, nullptr), 0u);
    EXPECT_EQ(capture.Count(), 0u) << capture.Dump();
}
