// The logging contract: nothing is formatted while both outputs are off, the
// source file is reported relative to the source tree, a bad format text is
// replaced by the structured logger's text, and the scope trace writes
// ENTER / EXIT / EXCEPTION EXIT.

#include "QXLog.h"
#include "QXTestSupport.h"

#include "QXCommon/FunctionTrace.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace
{
// Counts how often it is formatted.
struct Counted
{
    mutable int* counter;
};
} // namespace

template <>
struct fmt::formatter<Counted, wchar_t> : fmt::formatter<int, wchar_t>
{
    template <typename Context>
    auto format(const Counted& c, Context& ctx) const
    {
        ++*c.counter;
        return fmt::formatter<int, wchar_t>::format(42, ctx);
    }
};

TEST(Logging, NothingIsFormattedWhileBothOutputsAreOff)
{
    CQXDbgManager* manager = GetDbgManager();
    ASSERT_FALSE(manager->GetFileOutput());
    ASSERT_FALSE(manager->GetDebuggerOutput());
    int formatted = 0;
    QXLOG_INFO("Tests::Off", L"value {}\n", Counted{&formatted});
    EXPECT_EQ(formatted, 0);

    QXTest::LogCapture capture;
    QXLOG_INFO("Tests::On", L"value {}\n", Counted{&formatted});
    EXPECT_EQ(formatted, 1);
    EXPECT_TRUE(capture.Has(4, "Tests::On", L"value 42\n")) << capture.Dump();
}

TEST(Logging, LineCarriesLevelFunctionAndRelativeSourceFile)
{
    QXTest::LogCapture capture;
    std::wstring name = L"abc";
    QXLOG_ERROR("QXCommon::CThing::Do", L"Failed to do [{}] - error {}\n", name, 5u);
    int line = __LINE__ - 1;
    auto entries = capture.Entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].level, 1);
    EXPECT_EQ(entries[0].function, "QXCommon::CThing::Do");
    EXPECT_EQ(entries[0].text, L"Failed to do [abc] - error 5\n");
    EXPECT_EQ(entries[0].file, "Tests/Frame/LoggingTests.cpp");
    EXPECT_EQ(entries[0].line, line);
}

TEST(Logging, HexadecimalAndWideAndNarrowParameters)
{
    QXTest::LogCapture capture;
    const wchar_t* nullText = nullptr;
    QXLOG_INFO("Tests::Fmt", L"Error {:X} [{}] [{}] [{}]\n", 0x80070005u, std::string("narrow"), nullText,
               L"wide");
    EXPECT_TRUE(capture.Has(L"Error 80070005 [narrow] [(null)] [wide]\n")) << capture.Dump();
}

TEST(Logging, BadFormatIsReplacedNotThrown)
{
    QXTest::LogCapture capture;
    EXPECT_NO_THROW(QXLOG_INFO("Tests::Bad", L"two {} {} but one\n", 1));
    EXPECT_NO_THROW(QXLOG_INFO("Tests::Bad", L"unterminated {\n", 1));
    auto entries = capture.Entries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].text.rfind(L"Log format error [two {} {} but one]", 0), 0u) << capture.Dump();
    EXPECT_EQ(entries[0].text, Zarn::Detail::HandleFormatException(L"two {} {} but one\n", "argument not found"));
}

TEST(Logging, LogKeepsTheCallersLastError)
{
    QXTest::LogCapture capture;
    SetLastError(1234);
    QXLOG_ERROR("Tests::LastError", L"x {}\n", 1);
    EXPECT_EQ(GetLastError(), 1234u);
}

namespace
{
void Traced(bool fail)
{
    QXCommon::CFunctionTrace trace("Source/QXCommon/Traced.cpp", "QXCommon::CTraced::Run");
    if (fail)
        throw std::runtime_error("boom");
}
} // namespace

TEST(FunctionTrace, EnterAndExitOrExceptionExit)
{
    QXTest::LogCapture capture;
    Traced(false);
    EXPECT_THROW(Traced(true), std::runtime_error);
    auto entries = capture.Entries();
    ASSERT_EQ(entries.size(), 4u) << capture.Dump();
    EXPECT_EQ(entries[0].text, L"ENTER\n");
    EXPECT_EQ(entries[1].text, L"EXIT\n");
    EXPECT_EQ(entries[2].text, L"ENTER\n");
    EXPECT_EQ(entries[3].text, L"EXCEPTION EXIT\n");
    for (const auto& e : entries)
    {
        EXPECT_EQ(e.level, 4);
        EXPECT_EQ(e.line, 0);
        EXPECT_EQ(e.function, "QXCommon::CTraced::Run");
        EXPECT_EQ(e.file, "Source/QXCommon/Traced.cpp");
    }
}

TEST(FunctionTrace, SilentWhileLoggingIsOff)
{
    {
        QXTest::LogCapture capture;
        GetDbgManager()->SetDebuggerOutput(false);
        Traced(false);
        EXPECT_EQ(capture.Count(), 0u);
    }
}

TEST(DbgManager, LogFileReceivesLines)
{
    QXTest::TempDir dir;
    std::wstring path = dir.File(L"log.txt");
    CQXDbgManager* manager = GetDbgManager();
    ASSERT_TRUE(manager->SetLogFile(path.c_str()));
    QXLOG_ERROR("Tests::File", L"Failed to write - error {}\n", 87);
    manager->SetLogFile(nullptr);
    EXPECT_FALSE(manager->GetFileOutput());

    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    char buffer[1024] = {};
    DWORD got = 0;
    ReadFile(file, buffer, sizeof buffer - 1, &got, nullptr);
    CloseHandle(file);
    std::string text(buffer, got);
    EXPECT_NE(text.find("L1 Tests/Frame/LoggingTests.cpp("), std::string::npos) << text;
    EXPECT_NE(text.find("Tests::File: Failed to write - error 87\n"), std::string::npos) << text;
}
