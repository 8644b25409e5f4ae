// The logging contract: nothing is formatted while both outputs are off, the
// source file is reported relative to the source tree, a bad format text is
// replaced by the structured logger's text, and the scope trace writes
// ENTER / EXIT / EXCEPTION EXIT.

#include "QXLog.h"
#include "QXTestSupport.h"
#include "Zarn2.h"

#include "QXCommon/FunctionTrace.h"

#include <atlbase.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

struct Counted { int* counter; }; // counts how often it is formatted

template <>
struct fmt::formatter<Counted, wchar_t> : fmt::formatter<int, wchar_t>
{
    auto format(const Counted& c, auto& ctx) const
    {
        ++*c.counter;
        return fmt::formatter<int, wchar_t>::format(42, ctx);
    }
};

TEST(Logging, FormattedOnlyWhenAnOutputIsOnWithLevelFunctionAndRelativeFile)
{
    ASSERT_FALSE(GetDbgManager()->GetFileOutput() || GetDbgManager()->GetDebuggerOutput());
    int formatted = 0;
    QXLOG_INFO("Tests::Off", L"value {}\n", Counted{&formatted});
    EXPECT_FALSE(Zarn::Detail::ShouldLog(Zarn::Severity::Info));
    EXPECT_EQ(formatted, 0);

    QXTest::LogCapture capture;
    EXPECT_TRUE(Zarn::Detail::ShouldLog(Zarn::Severity::Error));
    QXLOG_INFO("Tests::On", L"value {}\n", Counted{&formatted});
    const int onLine = __LINE__ - 1;
    EXPECT_EQ(formatted, 1);
    const wchar_t* nullText = nullptr;
    const std::wstring name = L"abc";
    const std::string narrow = "narrow";
    SetLastError(1234);
    QXLOG_ERROR("QXCommon::CThing::Do", L"[{}] {:X} [{}] [{}] - error {}\n", name, 0x80070005u, narrow, nullText, 5u);
    const int line = __LINE__ - 1;
    EXPECT_EQ(GetLastError(), 1234u); // logging keeps the caller's last error
    Zarn::Detail::Log(Zarn::Severity::Error, "Source/QXCommon/X.cpp", 7, "LsaUtil::Lookup", L"bad\n");
    Zarn::Detail::Log(Zarn::Severity::Info, "Source/QXCommon/X.cpp", 8, "LsaUtil::Lookup", L"good\n");
    const std::string here = "Tests/Frame/LoggingTests.cpp(";
    EXPECT_EQ(capture.Dump(), "  L4 " + here + std::to_string(onLine) + ") Tests::On: value 42\n  L1 " + here +
                                  std::to_string(line) + ") QXCommon::CThing::Do: [abc] 80070005 [narrow] [(null)] - "
                                  "error 5\n  L1 Source/QXCommon/X.cpp(7) LsaUtil::Lookup: bad\n"
                                  "  L4 Source/QXCommon/X.cpp(8) LsaUtil::Lookup: good\n");
}

TEST(Logging, BadFormatIsReplacedNotThrownAndTheLogFileReceivesLines)
{
    QXTest::TempDir dir;
    const std::wstring path = dir.File(L"log.txt");
    {
        QXTest::LogCapture capture;
        ASSERT_TRUE(GetDbgManager()->SetLogFile(path.c_str()));
        EXPECT_NO_THROW(QXLOG_INFO("Tests::Bad", L"two {} {} but one\n", 1));
        EXPECT_NO_THROW(QXLOG_INFO("Tests::Bad", L"unterminated {\n", 1));
        QXLOG_ERROR("Tests::File", L"Failed to write - error {}\n", 87);
        GetDbgManager()->SetLogFile(nullptr);
        EXPECT_FALSE(GetDbgManager()->GetFileOutput());
        auto entries = capture.Entries();
        ASSERT_EQ(entries.size(), 3u);
        EXPECT_EQ(entries[0].text, Zarn::Detail::HandleFormatException(L"two {} {} but one\n", "argument not found"));
        EXPECT_TRUE(entries[0].text.starts_with(L"Log format error [two {} {} but one]")) << capture.Dump();
    }
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    EXPECT_NE(text.find("L1 Tests/Frame/LoggingTests.cpp("), std::string::npos) << text;
    EXPECT_NE(text.find("Tests::File: Failed to write - error 87\n"), std::string::npos) << text;
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

TEST(FunctionTrace, EnterAndExitOrExceptionExitOnlyWhileLogging)
{
    QXTest::LogCapture capture;
    Traced(false);
    EXPECT_THROW(Traced(true), std::runtime_error);
    GetDbgManager()->SetDebuggerOutput(false);
    Traced(false);
    const std::string at = "  L4 Source/QXCommon/Traced.cpp(0) QXCommon::CTraced::Run: ";
    EXPECT_EQ(capture.Dump(), at + "ENTER\n" + at + "EXIT\n" + at + "ENTER\n" + at + "EXCEPTION EXIT\n");
}
