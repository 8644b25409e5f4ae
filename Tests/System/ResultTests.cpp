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
std::wstring SystemText(DWORD code, DWORD flags = FORMAT_MESSAGE_IGNORE_INSERTS)
{
    wchar_t* raw = nullptr;
    DWORD n = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | flags, nullptr, code,
                             MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<LPWSTR>(&raw), 0, nullptr);
    std::wstring text = n != 0 ? std::wstring(raw, n) : std::wstring();
    LocalFree(raw);
    return text;
}

std::wstring Hex(DWORD code, const wchar_t* format = L"0x%08x ")
{
    wchar_t text[16];
    swprintf(text, 16, format, static_cast<unsigned>(code));
    return text;
}
} // namespace

TEST(HResult, ToStringGivesTheSystemTextWithoutItsLineBreakOrAFallback)
{
    // Every code the system has a text for: the code, a blank, the text
    // without the one line break that ends it.
    int withText = 0;
    for (DWORD code = 0; code < 16000; ++code)
    {
        std::wstring text = SystemText(code);
        if (text.empty())
            continue;
        ++withText;
        if (text.size() >= 2 && text.back() == L'\n')
            text.erase(text.size() - (text[text.size() - 2] == L'\r' ? 2 : 1));
        ASSERT_EQ(QXCommon::CHResult(static_cast<HRESULT>(code)).ToString(), Hex(code) + text);
    }
    EXPECT_GT(withText, 100);
    EXPECT_EQ(QXCommon::CHResult(E_ACCESSDENIED).ToString().rfind(L"0x80070005 ", 0), 0u);
    // Codes without a text here: dispatch errors by number, others unknown.
    const std::pair<DWORD, const wchar_t*> fallbacks[] = {
        {0x80040201, L"IDispatch error #1"},        {0x80040210, L"IDispatch error #16"},
        {0x8004FFFF, L"IDispatch error #65023"},    {0x80040200, L"Unknown error 0x80040200"},
        {0x80041200, L"IDispatch error #4096"},     {0x80050200, L"Unknown error 0x80050200"},
        {0x800401FF, L"Unknown error 0x800401FF"},  {0xA0051234, L"Unknown error 0xA0051234"},
    };
    for (const auto& [code, fallback] : fallbacks)
        EXPECT_TRUE(!SystemText(code).empty() ||
                    QXCommon::CHResult(static_cast<HRESULT>(code)).ToString() == Hex(code) + fallback) << code;
}

TEST(ErrorMessage, TextWithoutLineBreaksAndItsLogLine)
{
    QXTest::LogCapture capture;
    EXPECT_EQ(QXCommonFunctions::ErrorMessageFromCode(0), L""); // zero: empty and silent
    EXPECT_EQ(capture.Count(), 0u) << capture.Dump();
    for (int code : {5, 2, static_cast<int>(0x80070057)})
    {
        std::wstring expected = SystemText(static_cast<DWORD>(code), 0);
        ASSERT_FALSE(expected.empty()) << "the system has no text for " << code;
        for (size_t at; (at = expected.find(L"\r\n")) != std::wstring::npos;)
            expected.erase(at, 2);
        EXPECT_EQ(QXCommonFunctions::ErrorMessageFromCode(code), expected);
        EXPECT_LOGGED(capture, 4, "QXCommonFunctions::ErrorMessageFromCode",
                      L"Error " + Hex(code, L"%X") + L" [" + expected + L"]\n");
    }
    // A code without a text logs why.
    const int code = 0x2BADF00D;
    wchar_t* raw = nullptr;
    ASSERT_EQ(FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM, nullptr, code, 0,
                             reinterpret_cast<LPWSTR>(&raw), 100, nullptr), 0u);
    const DWORD systemError = GetLastError();
    EXPECT_EQ(QXCommonFunctions::ErrorMessageFromCode(code), L"");
    EXPECT_LOGGED(capture, 1, "QXCommonFunctions::ErrorMessageFromCode",
                  L"FormatMessageW failed - error " + std::to_wstring(systemError) + L"\n");
}

TEST(Guid, NewGuidsTheirTextAndEquality)
{
    EXPECT_EQ(QXCommon::CGuid().ToString(), L"{00000000-0000-0000-0000-000000000000}");
    std::set<std::wstring> seen;
    for (int k = 0; k < 20; ++k)
    {
        QXCommon::CGuid guid;
        ASSERT_TRUE(guid.CreateNew());
        const std::wstring text = k % 2 ? guid.ToString() : QXCommon::CGuid::CreateNewAsString();
        CLSID parsed = {}; // braced, upper-case hex only, new each time
        EXPECT_TRUE(text.size() == 38u && text.find_first_of(L"abcdef") == text.npos && seen.insert(text).second &&
                    CLSIDFromString(text.c_str(), &parsed) == S_OK) << QXTest::Narrow(text);
        EXPECT_TRUE((k % 2 == 0 || QXCommon::CGuid(parsed) == guid) && !(guid == QXCommon::CGuid()));
    }
    const GUID g1 = {0x01234567, 0x89AB, 0xCDEF, {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}};
    GUID g2 = g1;
    g2.Data4[7] ^= 1; // last byte only
    QXCommon::CGuid a(g1), b(g2);
    EXPECT_TRUE(a != b && !(a == b));
    EXPECT_EQ(a.ToString(), L"{01234567-89AB-CDEF-0123-456789ABCDEF}");
    static_cast<GUID&>(b).Data4[7] = 0xEF; // writable through the conversion
    EXPECT_TRUE(b == a);

    const std::pair<std::wstring, std::wstring> cases[] = {
        {L"abc", L"{ABC}"}, {L"{abc}", L"{ABC}"}, {L"", L""}, {L"{abc", L"{ABC}"}, {L"abc}", L"{ABC}"}, {L"{", L"{}"},
        {L"}", L"{}"},     {L"0123abcd-ef01-2345-6789-abcdef012345", L"{0123ABCD-EF01-2345-6789-ABCDEF012345}"},
        {L"not a guid", L"{NOT A GUID}"},
    };
    for (auto [text, out] : cases)
    {
        QXCommon::CGuid::Canonicalize(text);
        EXPECT_EQ(text, out);
    }
}

namespace
{
// What the library hands the event log (Wine accepts events and drops them).
struct Reported { DWORD id; WORD type, category, strings; PSID user; DWORD dataSize; void* data; std::wstring text; };
std::vector<Reported> g_reported;
std::vector<std::wstring> g_sources;

BOOL WINAPI RecordEvent(HANDLE source, WORD type, WORD category, DWORD id, PSID user, WORD strings, DWORD dataSize,
                        LPCWSTR* texts, LPVOID data)
{
    g_reported.push_back({id, type, category, strings, user, dataSize, data, strings ? texts[0] : L""});
    return ReportEventW(source, type, category, id, user, strings, dataSize, texts, data);
}

HANDLE WINAPI RecordSource(LPCWSTR server, LPCWSTR name)
{
    g_sources.push_back(server == nullptr ? name : L"?");
    return RegisterEventSourceW(server, name);
}
} // namespace

TEST(EventLog, OneTruncatedTextPerEventUnderTheProductSource)
{
    QXTest::ImportPatch report(L"QXCommon.dll", "advapi32.dll", "ReportEventW", (void*)&RecordEvent);
    QXTest::ImportPatch source(L"QXCommon.dll", "advapi32.dll", "RegisterEventSourceW", (void*)&RecordSource);
    ASSERT_TRUE(report.Installed() && source.Installed());
    QXTest::LogCapture capture;
    EXPECT_EQ(QXCommonFunctions::LogEventDirect(1000, EVENTLOG_INFORMATION_TYPE, L"Process %ls blocked (%d)",
                                                L"C:\\x.exe", 42), 0u);
    EXPECT_EQ(QXCommonFunctions::LogEventDirect(1001, EVENTLOG_WARNING_TYPE, L"%ls", std::wstring(5000, L'z').c_str()),
              0u);
    EXPECT_EQ(QXCommonFunctions::LogEventDirect(1002, EVENTLOG_ERROR_TYPE, nullptr), 0u);
    EXPECT_EQ(capture.Count(), 0u) << capture.Dump();
    EXPECT_EQ(g_sources, std::vector<std::wstring>(3, L"Kestrova Runwarden"));
    ASSERT_EQ(g_reported.size(), 3u);
    const std::pair<WORD, std::wstring> expected[] = {{EVENTLOG_INFORMATION_TYPE, L"Process C:\\x.exe blocked (42)"},
                                                      {EVENTLOG_WARNING_TYPE, std::wstring(255, L'z')},
                                                      {EVENTLOG_ERROR_TYPE, L""}};
    for (DWORD i = 0; i < 3; ++i)
    {
        const Reported& r = g_reported[i];
        EXPECT_TRUE(r.id == 1000 + i && r.type == expected[i].first && r.text == expected[i].second) << i;
        EXPECT_TRUE(r.category == 0 && r.strings == 1 && r.user == nullptr && r.dataSize == 0 && r.data == nullptr) << i;
    }
}
