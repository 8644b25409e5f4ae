// The process-wide algorithm: every registry state of the prefix's HKLM,
// what GenerateFileHash and qxinspect then answer, and
// CalculateAdler32Checksum's switch to Adler-32. Each test starts from
// "not set"; the registry is put back as it was.

#include "HashTestHelpers.h"
#include "QXTestSupport.h"

#include "QXCommon/QXCommonFunctions.h"

#include <gtest/gtest.h>

#include <vector>

using namespace HashTest;

namespace
{
const std::wstring Properties = L"SOFTWARE\\Kestrova Technologies\\Runwarden\\MessagesConfig\\Properties";
const std::string Fn = "SignatureAlgorithmStrategy::";
constexpr DWORD KeyMissing = 0xFFFF; // registry cases: the key itself is deleted

class Algorithm : public testing::Test
{
protected:
    void SetUp() override
    {
        // The first key of the path that is missing goes again afterwards;
        // if none is, the value is saved to be put back.
        for (size_t end = Properties.find(L'\\', 9); m_created.empty(); end = Properties.find(L'\\', end + 1))
        {
            ATL::CRegKey probe;
            if (probe.Open(HKEY_LOCAL_MACHINE, Properties.substr(0, end).c_str(), KEY_READ) != ERROR_SUCCESS)
                m_created = Properties.substr(0, end);
            if (end == std::wstring::npos)
                break;
        }
        ASSERT_EQ(m_key.Create(HKEY_LOCAL_MACHINE, Properties.c_str()), ERROR_SUCCESS);
        ULONG bytes = sizeof(m_saved);
        m_savedBytes = m_key.QueryValue(L"SignatureAlgorithm", &m_savedType, m_saved, &bytes) == ERROR_SUCCESS ? bytes : ~0u;
        Reset(SignatureAlgorithmUnknown);
    }

    void TearDown() override
    {
        Reset(SignatureAlgorithmUnknown);
        if (m_savedBytes != ~0u)
            m_key.SetValue(L"SignatureAlgorithm", m_savedType, m_saved, m_savedBytes);
        m_key.Close();
        if (!m_created.empty())
            RegDeleteTreeW(HKEY_LOCAL_MACHINE, m_created.c_str());
    }

    void Write(DWORD type, const std::string& data)
    {
        m_key.Create(HKEY_LOCAL_MACHINE, Properties.c_str());
        m_key.DeleteValue(L"SignatureAlgorithm");
        if (type == KeyMissing)
        {
            m_key.Close();
            ASSERT_EQ(RegDeleteKeyW(HKEY_LOCAL_MACHINE, Properties.c_str()), ERROR_SUCCESS);
        }
        else if (type != REG_NONE)
        {
            ASSERT_EQ(m_key.SetValue(L"SignatureAlgorithm", type, data.data(), static_cast<ULONG>(data.size())), 0);
        }
    }

    // Any algorithm, "not set" included (only a failed read brings that back).
    void Reset(SignatureAlgorithm algorithm)
    {
        auto* strategies = SignatureAlgorithmStrategy::Get();
        if (algorithm == SignatureAlgorithmUnknown)
        {
            Write(REG_NONE, "");
            strategies->GetSignatureAlgorithmFromRegistry();
        }
        else
            strategies->SetSignatureAlgorithm(algorithm);
        ASSERT_EQ(strategies->GetCurrentSignatureAlgorithm(), algorithm);
    }

    ATL::CRegKey m_key;
    std::wstring m_created;
    DWORD m_savedType = REG_NONE;
    BYTE m_saved[1024] = {};
    DWORD m_savedBytes = ~0u;
};

std::string Dword(DWORD value)
{
    return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
}
} // namespace

TEST_F(Algorithm, EveryRegistryStateOfTheValue)
{
    const SignatureAlgorithm None = SignatureAlgorithmUnknown, Sha1 = SignatureAlgorithmSHA1,
                             Sha256 = SignatureAlgorithmSHA256, Adler = SignatureAlgorithmAdler32;
    const std::wstring query = L"Query [SignatureAlgorithm] reg value failed. Error [";
    const std::wstring reset = L"]. Setting algorithm to [UnknownAlgorithm].\n";
    const struct
    {
        DWORD type; // REG_NONE: no value
        std::string data;
        SignatureAlgorithm before, after;
        bool result;
        int level;
        std::wstring log;
    } cases[] = {
        {REG_NONE, "", Sha256, None, false, 1, query + L"2" + reset},
        {REG_DWORD, Dword(0), None, Sha1, true, 4, L"Signature algorithm set to [SHA1].\n"},
        {REG_DWORD, Dword(1), Sha1, Sha256, true, 4, L"Signature algorithm set to [SHA256].\n"},
        {REG_DWORD, Dword(2), Sha1, Adler, true, 4, L"Signature algorithm set to [Adler32].\n"},
        {REG_DWORD, Dword(1), Sha256, Sha256, false, 4, L"Signature hash strategy has already been initialised for [SHA256].\n"},
        {REG_DWORD, Dword(3), Sha256, Sha256, false, 1, L"Signature [3] invalid. Unable to proceed.\n"},
        {REG_DWORD, Dword(0xFFFFFFFF), Adler, Adler, false, 1, L"Signature [4294967295] invalid. Unable to proceed.\n"},
        {REG_SZ, std::string("1\0\0", 4), Sha1, None, false, 1, query + L"13" + reset},
        {REG_BINARY, Dword(1), Sha1, None, false, 1, query + L"13" + reset},
        {REG_QWORD, Dword(1) + Dword(0), Sha1, None, false, 1, query + L"234" + reset},
        {REG_DWORD, std::string("\1\0", 2), Sha1, None, false, 1, query + L"13" + reset},
        {KeyMissing, "", Adler, None, false, 1, L"Open [" + Properties + L"] reg key failed. Error [2" + reset},
    };
    auto* strategies = SignatureAlgorithmStrategy::Get();
    for (const auto& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.log));
        Reset(c.before);
        Write(c.type, c.data);
        QXTest::LogCapture log;
        EXPECT_EQ(strategies->GetSignatureAlgorithmFromRegistry(), c.result);
        EXPECT_EQ(strategies->GetCurrentSignatureAlgorithm(), c.after);
        EXPECT_EQ(static_cast<bool>(strategies->GetHashStrategy()), c.after != None);
        const char* by = c.log.starts_with(L"Sig") ? "SetSignatureAlgorithmInternal" : "GetSignatureAlgorithmFromRegistry";
        EXPECT_TRUE(log.Has(c.level, Fn + by, c.log)) << log.Dump();
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
    Write(REG_DWORD, Dword(1));
    ASSERT_TRUE(SignatureAlgorithmStrategy::Get()->GetSignatureAlgorithmFromRegistry());
    EXPECT_EQ(QXCommonFunctions::GenerateFileHash(path), Reference(SignatureAlgorithmSHA256, content));

    // The checksum replaces the path in the caller's buffer, and the process
    // hashes with Adler-32 from then on, even when the file cannot be read.
    const std::wstring adler = Reference(SignatureAlgorithmAdler32, content);
    const std::wstring set = L"Signature algorithm set to [Adler32].\n";
    const struct
    {
        SignatureAlgorithm before;
        std::wstring path;
        int result;
        std::wstring log;
    } cases[] = {
        {SignatureAlgorithmSHA256, path, 1, set},
        {SignatureAlgorithmAdler32, path, 1, L"Signature hash strategy has already been initialised for [Adler32].\n"},
        {SignatureAlgorithmUnknown, dir.File(L"missing"), 0, set},
        {SignatureAlgorithmSHA1, dir.Path(), 0, set},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.path));
        Reset(c.before);
        std::vector<wchar_t> buffer(c.path.begin(), c.path.end());
        buffer.resize(MAX_PATH, L'\0');
        QXTest::LogCapture log;
        EXPECT_EQ(CalculateAdler32Checksum(buffer.data()), c.result);
        EXPECT_EQ(std::wstring(buffer.data()), c.result == 1 ? adler : c.path);
        EXPECT_TRUE(log.Has(Fn + "SetSignatureAlgorithmInternal", c.log)) << log.Dump();
        EXPECT_EQ(c.result == 1, !log.Has(1, "CalculateAdler32Checksum", L"Failed to load file data for [" + c.path + L"].\n"));
        EXPECT_EQ(QXCommonFunctions::GenerateFileHash(path), adler);
    }
    EXPECT_EQ(CalculateAdler32Checksum(nullptr), 0);
}

TEST_F(Algorithm, InspectHashReadsTheAlgorithmLikeTheAgent)
{
    QXTest::TempDir dir;
    const std::string content = RandomBytes(3000);
    const std::wstring file = L" \"" + dir.Write(L"file.bin", content) + L"\"";
    const std::string sha256 = QXTest::Narrow(Reference(SignatureAlgorithmSHA256, content));
    const struct
    {
        DWORD registry; // REG_NONE: no value
        std::wstring arguments;
        DWORD exitCode;
        std::string output;
    } cases[] = {
        {REG_NONE, L"hash" + file, 3, "no hash algorithm is set"},
        {1, L"hash" + file, 0, sha256 + "  " + QXTest::Narrow(dir.File(L"file.bin")) + "\n"},
        {1, L"hash --algorithm Adler32" + file, 0, QXTest::Narrow(Reference(SignatureAlgorithmAdler32, content)) + "  "},
        {3, L"--json hash --algorithm sha256" + file, 0, "\"hash\": \"" + sha256 + "\""},
        {1, L"--json hash" + file + L" \"" + dir.File(L"missing") + L"\"", 3, "\"error\": 2,"},
        {1, L"hash --algorithm md5" + file, 2, "unknown algorithm md5"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.arguments));
        Write(c.registry == REG_NONE ? REG_NONE : REG_DWORD, Dword(c.registry));
        auto run = QXTest::RunProcess(L"\"" + QXTest::HelperPath(L"qxinspect.exe") + L"\" " + c.arguments);
        EXPECT_EQ(run.exitCode, c.exitCode) << run.output;
        EXPECT_NE(run.output.find(c.output), std::string::npos) << run.output;
    }
}
