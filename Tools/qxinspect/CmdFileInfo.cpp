// fileinfo: everything the library knows about files, answered on worker
// threads that each hash with their own cached provider.

#include "FileFacts.h"

#include <algorithm>

namespace qxinspect
{
namespace
{
constexpr uint32_t MaxThreads = 64;

// A folder stands for the files directly in it, by name.
std::vector<std::wstring> ExpandFolders(const std::vector<std::wstring>& arguments)
{
    std::vector<std::wstring> paths;
    for (const std::wstring& argument : arguments)
    {
        const DWORD attributes = GetFileAttributesW(argument.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
        {
            paths.push_back(argument);
            continue;
        }
        const std::wstring folder =
            argument.back() == L'\\' || argument.back() == L'/' ? argument : argument + L"\\";
        std::vector<std::wstring> files;
        WIN32_FIND_DATAW data;
        HANDLE find = FindFirstFileW((folder + L"*").c_str(), &data);
        if (find != INVALID_HANDLE_VALUE)
        {
            do
                if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
                    files.push_back(folder + data.cFileName);
            while (FindNextFileW(find, &data));
            FindClose(find);
        }
        std::sort(files.begin(), files.end(),
                  [](const std::wstring& a, const std::wstring& b) { return _wcsicmp(a.c_str(), b.c_str()) < 0; });
        paths.insert(paths.end(), files.begin(), files.end());
    }
    return paths;
}

Json Describe(const FileInfo& info, std::wstring& text)
{
    Json entry = Json::MakeObject();
    entry.Set(L"path", info.path);
    text += info.path + L"\n";
    const FileStatus& failed = !info.status.Ok() ? info.status : info.hashes.status;
    if (!failed.Ok())
    {
        text += L"  could not answer: " + failed.reason + L"\n";
        return SetWin32(entry, failed.error).Set(L"reason", failed.reason);
    }
    entry.Set(L"isNTExe", info.imageError == 0 ? Json(info.isNTExe != FALSE) : Json());
    if (info.imageError != 0)
        entry.Set(L"imageError", Win32Json(info.imageError));
    text += L"  NT image:       " +
            (info.imageError == 0 ? BoolText(info.isNTExe != FALSE) : L"check failed: " + Win32Text(info.imageError)) +
            L"\n";
    entry.Set(L"sha1", info.hashes.sha1).Set(L"sha256", info.hashes.sha256).Set(L"adler32", info.hashes.adler32);
    text += L"  sha1:           " + info.hashes.sha1 + L"\n  sha256:         " + info.hashes.sha256 +
            L"\n  adler32:        " + info.hashes.adler32 + L"\n";

    const SignatureFacts& sig = info.signature;
    Json signature = Json::MakeObject();
    SetHresult(signature, L"result", sig.result).Set(L"verified", sig.result == S_OK);
    text += L"  signature:      " + ResultText(sig.result) + (sig.result == S_OK ? L" (verified)" : L"") + L"\n";
    if (sig.readError == 0)
    {
        signature.Set(L"signer", Json::MakeObject()
                                     .Set(L"name", sig.name)
                                     .Set(L"friendlyName", sig.friendlyName)
                                     .Set(L"expires", sig.expires)
                                     .Set(L"thumbprint", sig.thumbprint));
        text += L"  signer:         " + sig.name + L" (friendly name " + sig.friendlyName + L"), expires " +
                sig.expires + L"\n                  sha256 " + sig.thumbprint + L"\n";
    }
    else
    {
        signature.Set(L"signer", nullptr);
        text += L"  signer:         none\n";
    }
    entry.Set(L"signature", std::move(signature));
    entry.Set(L"certificateTableEntries", sig.haveEntries ? Json(static_cast<unsigned long>(sig.entries)) : Json());
    text += L"  table entries:  " + (sig.haveEntries ? std::to_wstring(sig.entries) : std::wstring(L"(not a PE image)")) +
            L"\n";

    if (info.owner.error == 0)
    {
        entry.Set(L"owner", Account(info.owner.owner));
        text += L"  owner:          " + info.owner.owner.Qualified() + L" " + info.owner.owner.sid + L"\n";
    }
    else
    {
        entry.Set(L"owner", nullptr).Set(L"ownerError", Win32Json(info.owner.error));
        text += L"  owner:          cannot be read: " + Win32Text(info.owner.error) + L"\n";
    }
    return entry;
}

int RunFileInfo(Context& context, const std::vector<std::wstring>& args)
{
    ArgParser parser({L"--threads", L"--ignore"}, {L"--enforce-expiry", L"--network"});
    std::wstring error;
    if (!parser.Parse(args, error))
        return Fail(ExitUsage, error + SeeHelp(L"fileinfo"));
    if (parser.Positional().empty())
        return Fail(ExitUsage, L"fileinfo needs at least one PATH" + SeeHelp(L"fileinfo"));
    uint32_t threads = 4;
    if (auto text = parser.Value(L"--threads"); text && (!ParseNumber32(*text, threads) || threads == 0 ||
                                                         threads > MaxThreads))
        return Fail(ExitUsage, L"--threads needs a number from 1 to 64, not " + *text);
    SignaturePolicy policy;
    if (!ParsePolicy(parser, policy, error))
        return Fail(ExitUsage, error);

    // Files are opened for the signature check as this process's user.
    ATL::CAccessToken token;
    if (!token.GetProcessToken(TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE))
        return Fail(ExitFailed, L"the process token cannot be opened: " + Win32Text(GetLastError()));

    const std::vector<FileInfo> infos = DescribeFiles(ExpandFolders(parser.Positional()), threads, policy, token);
    bool someFailed = false;
    Json files = Json::MakeArray();
    std::wstring text;
    for (const FileInfo& info : infos)
    {
        files.Push(Describe(info, text));
        const FileStatus& failed = !info.status.Ok() ? info.status : info.hashes.status;
        if (!failed.Ok())
        {
            someFailed = true;
            Err(L"qxinspect: " + info.path + L": " + failed.reason + L"\n");
        }
    }
    if (context.json)
        OutJson(Json::MakeObject()
                    .Set(L"threads", threads)
                    .Set(L"policy", PolicyJson(policy))
                    .Set(L"files", std::move(files)));
    else
        Out(text);
    return someFailed ? ExitFailed : ExitOk;
}
} // namespace

QXINSPECT_COMMAND(L"fileinfo", L"fileinfo PATH... [--threads N] [--enforce-expiry] [--ignore FLAGS] [--network]",
                  L"everything the library knows about files: image, hashes, signature, owner",
                  L"For each PATH (a folder stands for the files directly in it, by name):\n"
                  L"whether it is an NT image; its SHA-1, SHA-256 and Adler-32 texts of the first\n"
                  L"8 MiB (the file's identity, as hash writes them); the signature's result\n"
                  L"under the policy (as sig, the file opened as this process's user), the signer's\n"
                  L"name, friendly name and expiry; the number of certificate-table entries;\n"
                  L"the owner (name and SID).\n"
                  L"  --threads N   worker threads (1 to 64, default 4), each hashing with its\n"
                  L"                own cached provider; the answers keep the order of the files\n"
                  L"  --enforce-expiry, --ignore FLAGS, --network   the signature policy (see sig)\n"
                  L"A file that is not a regular disk file under 4 GiB (a device, a pipe) or\n"
                  L"cannot be read is not answered.\n"
                  L"--json prints {command, threads, policy, files[]}; a file not answered gets\n"
                  L"error, errorText and reason instead of its answers.\n"
                  L"Exit codes: 0 every file answered, 2 bad command line, 3 some file was not.\n",
                  &RunFileInfo);
} // namespace qxinspect
