// The process-wide algorithm: every registry state of the prefix's HKLM,
// what GenerateFileHash then answers, and CalculateAdler32Checksum's switch
// to Adler-32. The state is process-wide: each test starts from "not set"
// and the registry is put back as it was.

#include "HashTestHelpers.h"
#include "QXTestSupport.h"

#include "QXCommon/QXCommonFunctions.h"
#include "QXCommon/SignatureAlgorithmStrategy.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

using namespace HashTest;

namespace
{
const std::wstring Properties = L"SOFTWARE\\Kestrova Technologies\\Runwarden\\MessagesConfig\\Properties";
const std::string Fn = "SignatureAlgorithmStrategy::";

class Algorithm : public testing::Test
{
protected:
    void SetUp() override
    {
        // Remember the first missing key of the path (to remove it again) or
        // the value that was there (to put it back).
        for (size_t end = Properties.find(L'\\', 9); m_created.empty(); end = Properties.find(L'\\', end + 1))
        {
            const std::wstring key = Properties.substr(0, end);
            ATL::CRegKey probe;
            if (probe.Open(HKEY_LOCAL_MACHINE, key.c_str(), KEY_READ) != ERROR_SUCCESS)
                m_created = key;
            if (end == std::wstring::npos)
                break;
        }
        if (m_created.empty())
        {
            ATL::CRegKey key;
            key.Open(HKEY_LOCAL_MACHINE, Properties.c_str(), KEY_READ);
            ULONG bytes = sizeof(m_saved);
            m_hadValue = key.QueryValue(L"SignatureAlgorithm", &m_savedType, m_saved, &bytes) == ERROR_SUCCESS;
            m_savedBytes = bytes;
        }
        ASSERT_EQ(m_key.Create(HKEY_LOCAL_MACHINE, Properties.c_str()), ERROR_SUCCESS);
        Reset(SignatureAlgorithmUnknown);
    }

    void TearDown() override
    {
        Reset(SignatureAlgorithmUnknown);
        m_key.Close();
        if (!m_created.empty())
            RegDeleteTreeW(HKEY_LOCAL_MACHINE, m_created.c_str());
        else if (m_hadValue)
            RegSetKeyValueW(HKEY_LOCAL_MACHINE, Properties.c_str(), L"SignatureAlgorithm", m_savedType, m_saved,
                            m_savedBytes);
    }

    void Write(DWORD type, const void* data, DWORD bytes)
    {
        m_key.Create(HKEY_LOCAL_MACHINE, Properties.c_str());
        ASSERT_EQ(m_key.SetValue(L"SignatureAlgorithm", type, data, bytes), ERROR_SUCCESS);
    }

    // Any algorithm, "not set" included (only a failed read brings that back).
    void Reset(SignatureAlgorithm algorithm)
    {
        auto* strategies = SignatureAlgorithmStrategy::Get();
        if (algorithm == SignatureAlgorithmUnknown)
        {
            m_key.DeleteValue(L"SignatureAlgorithm");
            strategies->GetSignatureAlgorithmFromRegistry();
        }
        else
            strategies->SetSignatureAlgorithm(algorithm);
        ASSERT_EQ(strategies->GetCurrentSignatureAlgorithm(), algorithm);
    }

    ATL::CRegKey m_key;
    std::wstring m_created;
    bool m_hadValue = false;
    DWORD m_savedType = REG_NONE;
    BYTE m_saved[4096] = {};
    DWORD m_savedBytes = 0;
};

enum class Stored
{
    Absent,
    KeyMissing,
    Data,
};

struct RegistryCase
{
    const char* name;
    Stored stored;
    DWORD type;
    std::string data;
    SignatureAlgorithm before;
    bool result;
    SignatureAlgorithm after;
    int level;
    std::wstring log;
};

std::string Dword(DWORD value)
{
    return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
}
} // namespace

TEST_F(Algorithm, EveryRegistryStateOfTheValue)
{
    const std::wstring queryFailed = L"Query [SignatureAlgorithm] reg value failed. Error [";
    const std::wstring resetTail = L"]. Setting algorithm to [UnknownAlgorithm].\n";
    const RegistryCase cases[] = {
        {"absent", Stored::Absent, 0, "", SignatureAlgorithmSHA256, false, SignatureAlgorithmUnknown, 1, queryFailed + L"2" + resetTail},
        {"sha1", Stored::Data, REG_DWORD, Dword(0), SignatureAlgorithmUnknown, true, SignatureAlgorithmSHA1, 4, L"Signature algorithm set to [SHA1].\n"},
        {"sha256", Stored::Data, REG_DWORD, Dword(1), SignatureAlgorithmSHA1, true, SignatureAlgorithmSHA256, 4, L"Signature algorithm set to [SHA256].\n"},
        {"adler32", Stored::Data, REG_DWORD, Dword(2), SignatureAlgorithmSHA1, true, SignatureAlgorithmAdler32, 4, L"Signature algorithm set to [Adler32].\n"},
        {"same_twice", Stored::Data, REG_DWORD, Dword(1), SignatureAlgorithmSHA256, false, SignatureAlgorithmSHA256, 4, L"Signature hash strategy has already been initialised for [SHA256].\n"},
        {"three_rejected", Stored::Data, REG_DWORD, Dword(3), SignatureAlgorithmSHA256, false, SignatureAlgorithmSHA256, 1, L"Signature [3] invalid. Unable to proceed.\n"},
        {"all_ones_rejected", Stored::Data, REG_DWORD, Dword(0xFFFFFFFF), SignatureAlgorithmAdler32, false, SignatureAlgorithmAdler32, 1, L"Signature [4294967295] invalid. Unable to proceed.\n"},
        {"string", Stored::Data, REG_SZ, std::string("1\0\0", 4), SignatureAlgorithmSHA1, false, SignatureAlgorithmUnknown, 1, queryFailed + L"13" + resetTail},
        {"binary", Stored::Data, REG_BINARY, Dword(1), SignatureAlgorithmSHA1, false, SignatureAlgorithmUnknown, 1, queryFailed + L"13" + resetTail},
        {"qword", Stored::Data, REG_QWORD, Dword(1) + Dword(0), SignatureAlgorithmSHA1, false, SignatureAlgorithmUnknown, 1, queryFailed + L"234" + resetTail},
        {"short_dword", Stored::Data, REG_DWORD, std::string("\1\0", 2), SignatureAlgorithmSHA1, false, SignatureAlgorithmUnknown, 1, queryFailed + L"13" + resetTail},
        {"key_missing", Stored::KeyMissing, 0, "", SignatureAlgorithmAdler32, false, SignatureAlgorithmUnknown, 1, L"Open [" + Properties + L"] reg key failed. Error [2]" + resetTail.substr(1)},
    };
    auto* strategies = SignatureAlgorithmStrategy::Get();
    for (const RegistryCase& c : cases)
    {
        SCOPED_TRACE(c.name);
        Reset(c.before);
        m_key.DeleteValue(L"SignatureAlgorithm");
        if (c.stored == Stored::Data)
            Write(c.type, c.data.data(), static_cast<DWORD>(c.data.size()));
        if (c.stored == Stored::KeyMissing)
        {
            m_key.Close();
            ASSERT_EQ(RegDeleteKeyW(HKEY_LOCAL_MACHINE, Properties.c_str()), ERROR_SUCCESS);
        }
        QXTest::LogCapture log;
        EXPECT_EQ(strategies->GetSignatureAlgorithmFromRegistry(), c.result);
        EXPECT_EQ(strategies->GetCurrentSignatureAlgorithm(), c.after);
        EXPECT_EQ(static_cast<bool>(strategies->GetHashStrategy()), c.after != SignatureAlgorithmUnknown);
        EXPECT_TRUE(log.Has(c.level, Fn + (c.log.starts_with(L"Sig") ? "SetSignatureAlgorithmInternal"
                                                                      : "GetSignatureAlgorithmFromRegistry"),
                            c.log))
            << log.Dump();
        m_key.Create(HKEY_LOCAL_MACHINE, Properties.c_str());
    }
}

TEST_F(Algorithm, FileHashFollowsTheAlgorithmAndCalculateAdler32ChecksumSwitchesIt)
{
    QXTest::TempDir dir;
    const std::string content = RandomBytes(5000);
    const std::wstring path = dir.Write(L"file.bin", content);

    {
        QXTest::LogCapture log;
        EXPECT_EQ(QXCommonFunctions::GenerateFileHash(path), L"");
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_STATE));
        EXPECT_TRUE(log.Has(1, Fn + "GetHashStrategy", L"Unknown signature type. Unable to initialise hash strategy.\n"));
        EXPECT_TRUE(log.Has(1, "QXCommonFunctions::GenerateFileHash", L"Hash strategy is null. Unable to generate hash.\n"));
    }
    const DWORD sha256 = 1;
    Write(REG_DWORD, &sha256, sizeof(sha256));
    ASSERT_TRUE(SignatureAlgorithmStrategy::Get()->GetSignatureAlgorithmFromRegistry());
    EXPECT_EQ(QXCommonFunctions::GenerateFileHash(path), Reference(SignatureAlgorithmSHA256, content));

    // The checksum replaces the path in the caller's buffer, and the process
    // hashes with Adler-32 from then on, even when the file cannot be read.
    const std::wstring adler = Reference(SignatureAlgorithmAdler32, content);
    struct Case
    {
        SignatureAlgorithm before;
        std::wstring path;
        int result;
        std::wstring algorithmLog;
    } cases[] = {
        {SignatureAlgorithmSHA256, path, 1, L"Signature algorithm set to [Adler32].\n"},
        {SignatureAlgorithmAdler32, path, 1, L"Signature hash strategy has already been initialised for [Adler32].\n"},
        {SignatureAlgorithmUnknown, dir.File(L"missing"), 0, L"Signature algorithm set to [Adler32].\n"},
        {SignatureAlgorithmSHA1, dir.Path(), 0, L"Signature algorithm set to [Adler32].\n"},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.path));
        Reset(c.before);
        std::vector<wchar_t> buffer(c.path.begin(), c.path.end());
        buffer.resize(MAX_PATH, L'\0');
        QXTest::LogCapture log;
        EXPECT_EQ(CalculateAdler32Checksum(buffer.data()), c.result);
        EXPECT_EQ(std::wstring(buffer.data()), c.result == 1 ? adler : c.path);
        EXPECT_TRUE(log.Has(Fn + "SetSignatureAlgorithmInternal", c.algorithmLog)) << log.Dump();
        EXPECT_EQ(SignatureAlgorithmStrategy::Get()->GetCurrentSignatureAlgorithm(), SignatureAlgorithmAdler32);
        EXPECT_EQ(QXCommonFunctions::GenerateFileHash(path), adler);
        if (c.result == 0)
        {
            EXPECT_TRUE(log.Has(1, "CalculateAdler32Checksum", L"Failed to load file data for [" + c.path + L"].\n"));
        }
    }
    EXPECT_EQ(CalculateAdler32Checksum(nullptr), 0);
}

TEST_F(Algorithm, InspectHashReadsTheAlgorithmLikeTheAgent)
{
    QXTest::TempDir dir;
    const std::string content = RandomBytes(3000);
    const std::wstring path = dir.Write(L"file.bin", content);
    const std::string sha256 = QXTest::Narrow(Reference(SignatureAlgorithmSHA256, content));
    const std::string adler = QXTest::Narrow(Reference(SignatureAlgorithmAdler32, content));
    struct Case
    {
        DWORD registry; // 0xFFFFFFFF: value absent
        std::wstring arguments;
        DWORD exitCode;
        std::string output;
    } cases[] = {
        {0xFFFFFFFF, L"hash \"" + path + L"\"", 3, "no hash algorithm is set"},
        {1, L"hash \"" + path + L"\"", 0, sha256 + "  " + QXTest::Narrow(path) + "\n"},
        {1, L"hash --algorithm Adler32 \"" + path + L"\"", 0, adler + "  "},
        {3, L"--json hash \"" + path + L"\" --algorithm sha256", 0, "\"hash\": \"" + sha256 + "\""},
        {1, L"--json hash \"" + path + L"\" \"" + dir.File(L"missing") + L"\"", 3, "\"error\": 2,"},
        {1, L"hash --algorithm md5 \"" + path + L"\"", 2, "unknown algorithm md5"},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.arguments));
        m_key.DeleteValue(L"SignatureAlgorithm");
        if (c.registry != 0xFFFFFFFF)
            Write(REG_DWORD, &c.registry, sizeof(DWORD));
        auto run = QXTest::RunProcess(L"\"" + QXTest::HelperPath(L"qxinspect.exe") + L"\" " + c.arguments);
        EXPECT_EQ(run.exitCode, c.exitCode) << run.output;
        EXPECT_NE(run.output.find(c.output), std::string::npos) << run.output;
    }
}
