// Is a file an NT executable image: crafted headers of every shape the check
// distinguishes, real PE files, and paths that cannot be read or opened.

#include "QXLog.h"
#include "QXTestSupport.h"

#include "QXCommon/QXCommonFunctions.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

using QXCommonFunctions::IsNTExeOrAccessRestricted;
using QXCommonFunctions::TryCheckIsNTExe;

namespace
{
const char* const TryCheck = "QXCommonFunctions::TryCheckIsNTExe";
const char* const Restricted = "QXCommonFunctions::IsNTExeOrAccessRestricted";

// A file of `size` bytes: "MZ", e_lfanew at 60, optionally "PE\0\0" at `peAt`.
std::string Image(size_t size, uint32_t lfanew, int64_t peAt = -1, const char* magic = "MZ")
{
    std::string bytes(size, '\0');
    std::memcpy(bytes.data(), magic, 2);
    std::memcpy(bytes.data() + 60, &lfanew, 4);
    if (peAt >= 0 && static_cast<size_t>(peAt) + 4 <= size)
        std::memcpy(bytes.data() + peAt, "PE\0\0", 4);
    return bytes;
}
} // namespace

// Headers far into a file are in sparse files (nothing on disk): "PE\0\0"
// at farNt, the file ending with the NT headers.
TEST(NTImage, CraftedHeaders)
{
    struct Case { const char* name; std::string bytes; BOOL isNTExe; std::wstring logText; int level; uint32_t farNt = 0; };
    const wchar_t* const noNt = L"No NT header so not NT exe file\n";
    const wchar_t* const shortFile = L"Short file so not NT EXE file\n";
    auto tooFar = [](uint32_t offset) { return L"NT header offset " + std::to_wstring(offset) + L" too far so not NT exe file\n"; };
    const Case cases[] = { // logText: the line of TryCheckIsNTExe (empty: none)
        {"empty", "", FALSE, L"ReadFile() bytes read mismatch. dwBytesToRead 64 dwBytesRead 0\n", 1},
        {"shorter_than_dos_header", std::string("MZ") + std::string(61, 'x'), FALSE,
         L"ReadFile() bytes read mismatch. dwBytesToRead 64 dwBytesRead 63\n", 1},
        {"text_file", std::string(300, 'a'), FALSE, L"No DOS header - assume a COM file\n", 4},
        {"lower_case_mz", Image(400, 0x40, 0x40, "mz"), FALSE, L"No DOS header - assume a COM file\n", 4},
        {"mz_text_offset_beyond_end", Image(200, 0x1000), FALSE, shortFile, 4},
        {"offset_huge_no_wrap", Image(400, 0x7FFFFFFF), FALSE, shortFile, 4},
        {"offset_wraps_to_8", Image(400, 0xFFFFFF10), FALSE, tooFar(0xFFFFFF10), 4},
        {"offset_wraps_to_0", Image(400, 0xFFFFFF08), FALSE, tooFar(0xFFFFFF08), 4},
        {"offset_ffffffff", Image(400, 0xFFFFFFFF), FALSE, tooFar(0xFFFFFFFF), 4},
        {"dos_only", Image(0x40 + 0xF8 + 100, 0x40), FALSE, noNt, 4}, {"offset_zero", Image(0x200, 0), FALSE, noNt, 4},
        {"minimal_nt", Image(0x40 + 0xF8, 0x40, 0x40), TRUE, L"", 0},
        {"nt_headers_one_byte_short", Image(0x40 + 0xF8 - 1, 0x40, 0x40), FALSE, shortFile, 4},
        {"truncated_after_signature", Image(0x80 + 24, 0x80, 0x80), FALSE, shortFile, 4},
        {"pe_without_zero_bytes", Image(0x200, 0x40).replace(0x40, 4, "PEab"), FALSE, noNt, 4},
        {"nt_far_in_file", Image(0x10000 + 0xF8, 0x10000, 0x10000), TRUE, L"", 0},
        {"nt_at_1_MiB", Image(64, 0x100000), TRUE, L"", 0, 0x100000},
        // The image loader refuses these: answered without reading up to them.
        {"nt_at_256_MiB", Image(64, 0x10000000), FALSE, tooFar(0x10000000), 4, 0x10000000},
        {"nt_at_1_GiB", Image(64, 0x40000000), FALSE, tooFar(0x40000000), 4, 0x40000000},
    };
    QXTest::TempDir dir;
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        const std::wstring name = QXTest::Widen(c.name) + L".bin";
        const std::wstring path = c.farNt == 0 ? dir.Write(name, c.bytes)
                                               : dir.WriteSparse(name, c.farNt + 0xF8ull, {{0, c.bytes}, {c.farNt, std::string("PE\0\0", 4)}});
        QXTest::LogCapture capture;
        BOOL isNTExe = 7;
        EXPECT_EQ(TryCheckIsNTExe(path, isNTExe), 0u);
        EXPECT_EQ(isNTExe, c.isNTExe);
        EXPECT_EQ(capture.Count(), c.logText.empty() ? 0u : 1u) << capture.Dump();
        EXPECT_TRUE(c.logText.empty() || capture.Has(c.level, TryCheck, c.logText)) << capture.Dump();
        capture.Clear();
        EXPECT_EQ(IsNTExeOrAccessRestricted(path), c.isNTExe ? 1 : 0);
        EXPECT_LOGGED(capture, 4, Restricted, std::wstring(L"Check OK. IsNTExe [") + (c.isNTExe ? L"True" : L"False") + L"].\n");
    }
}

// Images of the prefix and the library itself: the check opens for reading
// and shares reading, so a running image is readable.
TEST(NTImage, RealImages)
{
    wchar_t system[MAX_PATH] = {};
    ASSERT_NE(GetSystemDirectoryW(system, MAX_PATH), 0u);
    for (const std::wstring& path : {std::wstring(system) + L"\\kernel32.dll", std::wstring(system) + L"\\notepad.exe",
                                     QXTest::ModuleDir() + L"\\QXCommon.dll"})
    {
        BOOL isNTExe = FALSE;
        EXPECT_TRUE(TryCheckIsNTExe(path, isNTExe) == 0 && isNTExe && IsNTExeOrAccessRestricted(path) == 1) << QXTest::Narrow(path);
    }
}

namespace
{
// Wine enforces no DACLs, so a refused open is made at the library's import
// of CreateFileW: paths holding "denied" are refused with error 5.
HANDLE WINAPI CreateFileRefusing(LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                                 DWORD disposition, DWORD flags, HANDLE templateFile)
{
    if (wcsstr(path, L"denied") == nullptr)
        return CreateFileW(path, access, share, security, disposition, flags, templateFile);
    SetLastError(ERROR_ACCESS_DENIED);
    return INVALID_HANDLE_VALUE;
}
} // namespace

// What cannot be opened is no image, with the open's error, but for a file
// refused for lack of rights: that is one to the caller. A folder, which the
// system refuses to open as a file, and an item whose attributes cannot be
// read either are not.
TEST(NTImage, PathsThatCannotBeOpened)
{
    QXTest::ImportPatch patch(L"QXCommon.dll", "kernel32.dll", "CreateFileW", (void*)&CreateFileRefusing);
    ASSERT_TRUE(patch.Installed());
    QXTest::TempDir dir;
    const std::wstring folder = dir.MakeDir(L"sub"), denied = dir.Write(L"denied.exe", Image(0x200, 0x40, 0x40));
    const std::wstring absent = dir.File(L"absent.exe"), noFolder = dir.File(L"no\\such\\folder.exe"), gone = dir.File(L"denied.dll");
    const struct { std::wstring path; DWORD error; int answer, level; std::wstring logText; } cases[] = {
        {absent, ERROR_FILE_NOT_FOUND, 0, 1, L"Failed to check item [" + absent + L"]. Error [2].\n"},
        {noFolder, ERROR_PATH_NOT_FOUND, 0, 1, L"Failed to check item [" + noFolder + L"]. Error [3].\n"},
        {L"", ERROR_PATH_NOT_FOUND, 0, 1, L"Failed to check item []. Error [3].\n"},
        {folder, ERROR_ACCESS_DENIED, 0, 4, L"Item is Directory [" + folder + L"].\n"},
        {denied, ERROR_ACCESS_DENIED, 1, 4, L"Access Denied to item [" + denied + L"].\n"},
        {gone, ERROR_ACCESS_DENIED, 0, 1, L"Unable to check file attributes of [" + gone + L"]. Error [2].\n"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(QXTest::Narrow(c.path));
        QXTest::LogCapture capture;
        BOOL isNTExe = FALSE;
        EXPECT_EQ(TryCheckIsNTExe(c.path, isNTExe), c.error);
        EXPECT_LOGGED(capture, 1, TryCheck, L"CreateFileW() error " + std::to_wstring(c.error) + L".\n");
        EXPECT_EQ(IsNTExeOrAccessRestricted(c.path), c.answer);
        EXPECT_LOGGED(capture, 1, Restricted, L"Check Failed.\n");
        EXPECT_LOGGED(capture, c.level, Restricted, c.logText);
    }
}
