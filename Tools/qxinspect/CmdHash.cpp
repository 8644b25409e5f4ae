// hash: the text that identifies a file, as the agent computes it.

#include "Inspect.h"

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
    case SignatureAlgorithmSHA1: return L"SHA1";
    case SignatureAlgorithmSHA256: return L"SHA256";
    case SignatureAlgorithmAdler32: return L"Adler32";
    default: return L"UnknownAlgorithm";
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
        return Fail(ExitUsage, error);
    if (parser.Positional().empty())
        return Fail(ExitUsage, L"hash needs at least one PATH (see qxinspect help hash)");

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
        ::SetLastError(ERROR_SUCCESS);
        const std::wstring hash = QXCommonFunctions::GenerateFileHash(path);
        const DWORD code = hash.empty() ? ::GetLastError() : ERROR_SUCCESS;
        const std::wstring message = code != 0 ? QXCommonFunctions::ErrorMessageFromCode(static_cast<int>(code)) : L"";
        someFailed = someFailed || hash.empty();
        if (context.json)
        {
            Json entry = Json::MakeObject();
            entry.Set(L"path", path);
            if (!hash.empty())
                entry.Set(L"hash", hash);
            else
                entry.Set(L"error", static_cast<unsigned long>(code)).Set(L"message", message);
            files.Push(entry);
        }
        else if (!hash.empty())
            Out(hash + L"  " + path + L"\n");
        else
            Err(L"qxinspect: " + path + L": no hash, error " + std::to_wstring(code) +
                (message.empty() ? L"" : L": " + message) + L"\n");
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
                  L"A file that cannot be read is reported on standard error with the system\n"
                  L"error; --json gives the algorithm, where it came from and, per file, the\n"
                  L"hash or the error.\n"
                  L"Exit codes: 0 every file hashed, 2 bad command line, 3 no algorithm is set\n"
                  L"or some file could not be hashed.\n",
                  &RunHash);
} // namespace qxinspect
