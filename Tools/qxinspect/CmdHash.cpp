// hash: the text that identifies a file, as the agent computes it.

#include "FileFacts.h"

#include "QXCommon/DataLoader.h"
#include "QXCommon/QXCommonFunctions.h"
#include "QXCommon/SignatureAlgorithmStrategy.h"

#include <cwctype>

namespace qxinspect
{
namespace
{
const wchar_t* AlgorithmName(SignatureAlgorithm algorithm)
{
    switch (algorithm)
    {
    case SignatureAlgorithmSHA1: return L"sha1";
    case SignatureAlgorithmSHA256: return L"sha256";
    case SignatureAlgorithmAdler32: return L"adler32";
    default: return L"unknown";
    }
}

bool ParseAlgorithm(std::wstring text, SignatureAlgorithm& algorithm)
{
    for (wchar_t& c : text)
        c = static_cast<wchar_t>(std::towlower(c));
    if (text == L"sha1")
        algorithm = SignatureAlgorithmSHA1;
    else if (text == L"sha256")
        algorithm = SignatureAlgorithmSHA256;
    else if (text == L"adler32")
        algorithm = SignatureAlgorithmAdler32;
    else
        return false;
    return true;
}

int RunHash(Context& context, const std::vector<std::wstring>& args)
{
    ArgParser parser({L"--algorithm"}, {});
    std::wstring error;
    if (!parser.Parse(args, error))
        return Fail(ExitUsage, error + SeeHelp(L"hash"));
    if (parser.Positional().empty())
        return Fail(ExitUsage, L"hash needs at least one PATH" + SeeHelp(L"hash"));

    // The tool's own process holds the algorithm: an option sets it, as a
    // caller of the library would; otherwise it is read as the agent reads it.
    SignatureAlgorithmStrategy* strategies = SignatureAlgorithmStrategy::Get();
    const auto option = parser.Value(L"--algorithm");
    if (option)
    {
        SignatureAlgorithm algorithm = SignatureAlgorithmUnknown;
        if (!ParseAlgorithm(*option, algorithm))
            return Fail(ExitUsage, L"unknown algorithm " + *option + L" (sha1, sha256 or adler32)");
        strategies->SetSignatureAlgorithm(algorithm);
    }
    else
        strategies->GetSignatureAlgorithmFromRegistry();
    const SignatureAlgorithm algorithm = strategies->GetCurrentSignatureAlgorithm();
    if (algorithm == SignatureAlgorithmUnknown)
        return Fail(ExitFailed, L"no hash algorithm is set: HKLM\\SOFTWARE\\Kestrova Technologies\\Runwarden\\"
                                L"MessagesConfig\\Properties value SignatureAlgorithm is missing, unreadable, not "
                                L"a DWORD or not 0, 1 or 2 (give --algorithm)");

    bool someFailed = false;
    Json files = Json::MakeArray();
    for (const std::wstring& path : parser.Positional())
    {
        // Only a regular disk file under 4 GiB has an identity: anything else
        // is refused before the library is asked, and what is hashed is read
        // from the handle that was checked (GenerateFileHash's steps: the
        // process's strategy on the first 8 MiB).
        ATL::CHandle file;
        FileStatus status = OpenRegularFile(path, file);
        std::wstring hash;
        if (status.Ok())
        {
            const std::unique_ptr<QXCommon::IHashStrategy> strategy = strategies->GetHashStrategy();
            QXCommon::CDataLoader loader;
            ::SetLastError(ERROR_SUCCESS);
            if (!strategy || !loader.LoadFile(nullptr, HashedBytes, file) ||
                !strategy->GenerateHash(loader.GetData(), loader.GetNumBytes(), hash))
            {
                status.error = ::GetLastError() != ERROR_SUCCESS ? ::GetLastError() : ERROR_READ_FAULT;
                status.reason = QXCommonFunctions::ErrorMessageFromCode(static_cast<int>(status.error));
                hash.clear();
            }
        }
        Json entry = Json::MakeObject().Set(L"path", path);
        if (status.Ok())
        {
            files.Push(entry.Set(L"hash", hash));
            if (!context.json)
                Out(hash + L"  " + path + L"\n");
            continue;
        }
        someFailed = true;
        files.Push(SetWin32(entry, status.error).Set(L"reason", status.reason));
        Err(L"qxinspect: " + path + L": no hash: " + status.reason + L" (error " + std::to_wstring(status.error) +
            L")\n");
    }
    if (context.json)
        OutJson(Json::MakeObject()
                    .Set(L"algorithm", AlgorithmName(algorithm))
                    .Set(L"source", option ? L"option" : L"registry")
                    .Set(L"files", files));
    return someFailed ? ExitFailed : ExitOk;
}
} // namespace

QXINSPECT_COMMAND(L"hash", L"hash PATH... [--algorithm sha1|sha256|adler32]",
                  L"the hash that identifies each file",
                  L"Prints \"HASH  PATH\" for each file: the digest of its first 8 MiB\n"
                  L"(8,388,608 bytes), which is what the agent stores as the file's identity:\n"
                  L"SHA-1 (40) and SHA-256 (64) as lower-case hex digits, Adler-32 as 8\n"
                  L"upper-case ones.\n"
                  L"  --algorithm A  hash with A; without it the algorithm is the one the agent\n"
                  L"                 uses, read from HKLM\\SOFTWARE\\Kestrova Technologies\\Runwarden\\\n"
                  L"                 MessagesConfig\\Properties, REG_DWORD SignatureAlgorithm\n"
                  L"                 (0 SHA-1, 1 SHA-256, 2 Adler-32; no default)\n"
                  L"A file that is not a regular disk file under 4 GiB (a device, a pipe, a\n"
                  L"folder) or cannot be read has no hash: it is reported on standard error with\n"
                  L"the reason; --json prints {command, algorithm, source, files[]}, per file\n"
                  L"the hash or error, errorText and reason.\n"
                  L"Exit codes: 0 every file hashed, 2 bad command line, 3 no algorithm is set\n"
                  L"or some file could not be hashed.\n",
                  &RunHash);
} // namespace qxinspect
