// Is a file an NT executable image: crafted headers of every shape the check
// distinguishes, real PE files, and paths that cannot be read.

#include "QXLog.h"
#include "QXTestSupport.h"

#include "QXCommon/QXCommonFunctions.h"

#include <gtest/gtest.h>

#include <aclapi.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace
{
const char* const TryCheck = "QXCommonFunctions::TryCheckIsNTExe";
const char* const Restricted = "QXCommonFunctions::IsNTExeOrAccessRestricted";

// A file of `size` bytes: "MZ", e_lfanew at 60, optionally "PE\0\0" at `peAt`.
std::string Image(size_t size, uint32_t lfanew, int64_t peAt = -1, const char* magic = "MZ")
{
    std::string bytes(size, '\0');
    if (size >= 2)
        std::memcpy(bytes.data(), magic, 2);
    if (size >= 64)
        std::memcpy(bytes.data() + 60, &lfanew, 4);
    if (peAt >= 0 && static_cast<size_t>(peAt) + 4 <= size)
        std::memcpy(bytes.data() + peAt, "PE\0\0", 4);
    return bytes;
}

// What opening `path` for reading as the check does fails with (0: it opens).
DWORD OpenErrorOf(const std::wstring& path)
{
    ATL::CHandle probe(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                   FILE_ATTRIBUTE_NORMAL, nullptr));
    if (probe != INVALID_HANDLE_VALUE)
        return 0;
    DWORD error = GetLastError();
    probe.Detach();
    return error;
}

struct CraftedCase
{
    const char* name;
    std::string bytes;
    BOOL isNTExe;
    const wchar_t* logText; // expected line of TryCheckIsNTExe (null: none)
    int level;
};
} // namespace

TEST(NTImage, CraftedHeaders)
{
    const CraftedCase cases[] = {
        {"empty", "", FALSE, L"ReadFile() bytes read mismatch. dwBytesToRead 64 dwBytesRead 0\n", 1},
        {"shorter_than_dos_header", std::string("MZ") + std::string(61, 'x'), FALSE,
         L"ReadFile() bytes read mismatch. dwBytesToRead 64 dwBytesRead 63\n", 1},
        {"text_file", std::string(300, 'a'), FALSE, L"No DOS header - assume a COM file\n", 4},
        {"lower_case_mz", Image(400, 0x40, 0x40, "mz"), FALSE, L"No DOS header - assume a COM file\n", 4},
        {"mz_text_offset_beyond_end", Image(200, 0x1000, -1), FALSE, L"Short file so not NT EXE file\n", 4},
        {"offset_huge_no_wrap", Image(400, 0x7FFFFFFF), FALSE, L"Short file so not NT EXE file\n", 4},
        {"offset_wraps_to_8", Image(400, 0xFFFFFF10), FALSE, L"No NT header so not NT exe file\n", 4},
        {"offset_wraps_to_0", Image(400, 0xFFFFFF08), FALSE, L"No NT header so not NT exe file\n", 4},
        {"offset_ffffffff", Image(400, 0xFFFFFFFF), FALSE, L"No NT header so not NT exe file\n", 4},
        {"dos_only", Image(0x40 + 0xF8 + 100, 0x40), FALSE, L"No NT header so not NT exe file\n", 4},
        {"offset_zero", Image(0x200, 0), FALSE, L"No NT header so not NT exe file\n", 4},
        {"minimal_nt", Image(0x40 + 0xF8, 0x40, 0x40), TRUE, nullptr, 0},
        {"nt_headers_one_byte_short", Image(0x40 + 0xF8 - 1, 0x40, 0x40), FALSE, L"Short file so not NT EXE file\n",
         4},
        {"truncated_after_signature", Image(0x80 + 24, 0x80, 0x80), FALSE, L"Short file so not NT EXE file\n", 4},
        {"pe_without_zero_bytes", Image(0x200, 0x40, -1) .replace(0x40, 4, "PEab"), FALSE,
         L"No NT header so not NT exe file\n", 4},
        {"nt_far_in_file", Image(0x10000 + 0xF8, 0x10000, 0x10000), TRUE, nullptr, 0},
    };

    QXTest::TempDir dir;
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        std::wstring path = dir.Write(QXTest::Widen(c.name) + L".bin", c.bytes);
        QXTest::LogCapture capture;
        BOOL isNTExe = 7;
        EXPECT_EQ(QXCommonFunctions::TryCheckIsNTExe(path, isNTExe), 0u);
        EXPECT_EQ(isNTExe, c.isNTExe);
        if (c.logText != nullptr)
            EXPECT_TRUE(capture.Has(c.level, TryCheck, c.logText)) << capture.Dump();
        else
            EXPECT_EQ(capture.Count(), 0u) << capture.Dump();

        capture.Clear();
        EXPECT_EQ(QXCommonFunctions::IsNTExeOrAccessRestricted(path), c.isNTExe ? 1 : 0);
        EXPECT_TRUE(capture.Has(4, Restricted,
                                std::wstring(L"Check OK. IsNTExe [") + (c.isNTExe ? L"True" : L"False") + L"].\n"))
            << capture.Dump();
    }
}

TEST(NTImage, ThisSixtyFourBitProgram)
{
    wchar_t self[MAX_PATH] = {};
    ASSERT_NE(GetModuleFileNameW(nullptr, self, MAX_PATH), 0u);
    BOOL isNTExe = FALSE;
    EXPECT_EQ(QXCommonFunctions::TryCheckIsNTExe(self, isNTExe), 0u);
    EXPECT_TRUE(isNTExe);
    EXPECT_EQ(QXCommonFunctions::IsNTExeOrAccessRestricted(self), 1);
    // The check opens for reading and shares reading: a running image is readable.
    std::wstring dll = QXTest::ModuleDir() + L"\\QXCommon.dll";
    EXPECT_EQ(QXCommonFunctions::IsNTExeOrAccessRestricted(dll), 1);
}

TEST(NTImage, SystemFilesOfThePrefix)
{
    wchar_t system[MAX_PATH] = {};
    ASSERT_NE(GetSystemDirectoryW(system, MAX_PATH), 0u);
    int checked = 0;
    std::string notImages;
    for (const wchar_t* pattern : {L"\\*.exe", L"\\*.dll"})
    {
        WIN32_FIND_DATAW found = {};
        HANDLE find = FindFirstFileW((std::wstring(system) + pattern).c_str(), &found);
        ASSERT_NE(find, INVALID_HANDLE_VALUE);
        do
        {
            if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
                continue;
            std::wstring path = std::wstring(system) + L"\\" + found.cFileName;
            BOOL isNTExe = FALSE;
            DWORD result = QXCommonFunctions::TryCheckIsNTExe(path, isNTExe);
            if (result != 0 || !isNTExe)
                notImages += QXTest::Narrow(path) + " result " + std::to_string(result) + "\n";
            ++checked;
        } while (FindNextFileW(find, &found));
        FindClose(find);
    }
    EXPECT_GE(checked, 50);
    EXPECT_TRUE(notImages.empty()) << notImages;
}

TEST(NTImage, MissingPaths)
{
    QXTest::TempDir dir;
    const std::pair<std::wstring, DWORD> cases[] = {
        {dir.File(L"absent.exe"), ERROR_FILE_NOT_FOUND},
        {dir.File(L"no\\such\\folder.exe"), ERROR_PATH_NOT_FOUND},
    };
    for (const auto& [path, error] : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(path));
        QXTest::LogCapture capture;
        BOOL isNTExe = FALSE;
        EXPECT_EQ(QXCommonFunctions::TryCheckIsNTExe(path, isNTExe), error);
        EXPECT_TRUE(capture.Has(1, TryCheck, L"CreateFileW() error " + std::to_wstring(error) + L".\n"))
            << capture.Dump();
        capture.Clear();
        EXPECT_EQ(QXCommonFunctions::IsNTExeOrAccessRestricted(path), 0);
        EXPECT_TRUE(capture.Has(1, Restricted, L"Check Failed.\n")) << capture.Dump();
        EXPECT_TRUE(capture.Has(1, Restricted,
                                L"Failed to check item [" + path + L"]. Error [" + std::to_wstring(error) + L"].\n"))
            << capture.Dump();
    }
    BOOL isNTExe = FALSE;
    EXPECT_NE(QXCommonFunctions::TryCheckIsNTExe(L"", isNTExe), 0u);
    EXPECT_EQ(QXCommonFunctions::IsNTExeOrAccessRestricted(L""), 0);
}

TEST(NTImage, Folder)
{
    QXTest::TempDir dir;
    const std::wstring folder = dir.MakeDir(L"sub");
    // What the platform answers for opening a folder as a file decides the path taken.
    const DWORD openError = OpenErrorOf(folder);
    QXTest::LogCapture capture;
    BOOL isNTExe = FALSE;
    const DWORD result = QXCommonFunctions::TryCheckIsNTExe(folder, isNTExe);
    EXPECT_EQ(QXCommonFunctions::IsNTExeOrAccessRestricted(folder), 0);
    if (openError == 0)
    {
        // Opened: reading a folder's data fails, and that error is the answer.
        EXPECT_NE(result, 0u);
        std::printf("Opening a folder as a file succeeds here; the check fails with %lu\n",
                    static_cast<unsigned long>(result));
        return;
    }
    EXPECT_EQ(result, openError);
    const bool denied = openError == ERROR_ACCESS_DENIED;
    EXPECT_TRUE(capture.Has(denied ? 4 : 1, Restricted,
                            denied ? L"Item is Directory [" + folder + L"].\n"
                                   : L"Failed to check item [" + folder + L"]. Error [" +
                                         std::to_wstring(openError) + L"].\n"))
        << capture.Dump();
}

namespace
{
// Puts the file's own DACL back (so that it can be removed) when the test ends.
struct DaclRestorer
{
    std::wstring path;
    ~DaclRestorer()
    {
        if (!path.empty())
            SetNamedSecurityInfoW(path.data(), SE_FILE_OBJECT,
                                  DACL_SECURITY_INFORMATION | UNPROTECTED_DACL_SECURITY_INFORMATION, nullptr, nullptr,
                                  nullptr, nullptr);
    }
};
} // namespace

TEST(NTImage, UnreadableFileIsAccessRestricted)
{
    QXTest::TempDir dir;
    std::string tried;

    // Way 1: a delete-pending file, kept alive by a read-only handle (which
    // does not clash with the check's sharing mode); the delete is asked for
    // on a second handle.
    std::wstring path = dir.Write(L"pending.exe", Image(0x200, 0x40, 0x40));
    const DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    ATL::CHandle holder(CreateFileW(path.c_str(), GENERIC_READ, shareAll, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_NE(holder, INVALID_HANDLE_VALUE);
    {
        ATL::CHandle deleter(CreateFileW(path.c_str(), DELETE, shareAll, nullptr, OPEN_EXISTING,
                                         FILE_ATTRIBUTE_NORMAL, nullptr));
        ASSERT_NE(deleter, INVALID_HANDLE_VALUE);
        FILE_DISPOSITION_INFO disposition = {TRUE};
        ASSERT_TRUE(SetFileInformationByHandle(deleter, FileDispositionInfo, &disposition, sizeof(disposition)));
    }
    DWORD openError = OpenErrorOf(path);
    tried += "delete-pending file: open error " + std::to_string(openError) + "\n";

    // Way 2: a file whose DACL grants nobody anything.
    DaclRestorer restorer;
    if (openError != ERROR_ACCESS_DENIED)
    {
        path = dir.Write(L"denied.exe", Image(0x200, 0x40, 0x40));
        ACL empty = {};
        ASSERT_TRUE(InitializeAcl(&empty, sizeof(empty), ACL_REVISION));
        DWORD set = SetNamedSecurityInfoW(path.data(), SE_FILE_OBJECT,
                                          DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION, nullptr,
                                          nullptr, &empty, nullptr);
        restorer.path = path;
        openError = OpenErrorOf(path);
        tried += "empty DACL (set: " + std::to_string(set) + "): open error " + std::to_string(openError) + "\n";
    }
    if (openError != ERROR_ACCESS_DENIED)
        GTEST_SKIP() << "no way to make an existing file unreadable here:\n" << tried;

    QXTest::LogCapture capture;
    BOOL isNTExe = FALSE;
    EXPECT_EQ(QXCommonFunctions::TryCheckIsNTExe(path, isNTExe), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_TRUE(capture.Has(1, TryCheck, L"CreateFileW() error 5.\n")) << capture.Dump();
    capture.Clear();

    DWORD attributes = GetFileAttributesW(path.c_str());
    DWORD attributesError = attributes == INVALID_FILE_ATTRIBUTES ? GetLastError() : 0;
    int answer = QXCommonFunctions::IsNTExeOrAccessRestricted(path);
    EXPECT_TRUE(capture.Has(1, Restricted, L"Check Failed.\n")) << capture.Dump();
    if (attributes != INVALID_FILE_ATTRIBUTES || attributesError == ERROR_ACCESS_DENIED)
    {
        EXPECT_EQ(answer, 1);
        EXPECT_TRUE(capture.Has(4, Restricted, L"Access Denied to item [" + path + L"].\n")) << capture.Dump();
    }
    else
    {
        EXPECT_EQ(answer, 0);
        EXPECT_TRUE(capture.Has(1, Restricted,
                                L"Unable to check file attributes of [" + path + L"]. Error [" +
                                    std::to_wstring(attributesError) + L"].\n"))
            << capture.Dump();
        std::printf("The attributes of a delete-pending file cannot be read here (error %lu)\n",
                    static_cast<unsigned long>(attributesError));
    }
}
