// sig: whether files are validly signed under a policy, who signed them, and
// how their signer's chain fares; optionally whether the signer is a rule's
// certificate.

#include "Decision.h"
#include "Facts.h"
#include "Inspect.h"

#include "QXCommon/DigitalCertificate.h"
#include "QXCommon/HResult.h"
#include "QXCommon/VerifySignedFile.h"

#include <atlsecurity.h>

#include <wintrust.h>

namespace qxinspect
{
namespace
{
using QXCommon::CDigitalCertificate;

// The chain's CERT_TRUST_* error bits, by name.
const struct
{
    DWORD bit;
    const wchar_t* name;
} ChainErrorBits[] = {
    {CERT_TRUST_IS_NOT_TIME_VALID, L"not time valid"},
    {CERT_TRUST_IS_NOT_TIME_NESTED, L"not time nested"},
    {CERT_TRUST_IS_REVOKED, L"revoked"},
    {CERT_TRUST_IS_NOT_SIGNATURE_VALID, L"signature not valid"},
    {CERT_TRUST_IS_NOT_VALID_FOR_USAGE, L"not valid for usage"},
    {CERT_TRUST_IS_UNTRUSTED_ROOT, L"untrusted root"},
    {CERT_TRUST_REVOCATION_STATUS_UNKNOWN, L"revocation unknown"},
    {CERT_TRUST_IS_CYCLIC, L"cyclic"},
    {CERT_TRUST_INVALID_EXTENSION, L"invalid extension"},
    {CERT_TRUST_INVALID_POLICY_CONSTRAINTS, L"invalid policy constraints"},
    {CERT_TRUST_INVALID_BASIC_CONSTRAINTS, L"invalid basic constraints"},
    {CERT_TRUST_INVALID_NAME_CONSTRAINTS, L"invalid name constraints"},
    {CERT_TRUST_IS_OFFLINE_REVOCATION, L"revocation offline"},
    {CERT_TRUST_NO_ISSUANCE_CHAIN_POLICY, L"no issuance chain policy"},
    {CERT_TRUST_IS_PARTIAL_CHAIN, L"partial chain"},
    {CERT_TRUST_CTL_IS_NOT_TIME_VALID, L"CTL not time valid"},
    {CERT_TRUST_CTL_IS_NOT_SIGNATURE_VALID, L"CTL signature not valid"},
    {CERT_TRUST_CTL_IS_NOT_VALID_FOR_USAGE, L"CTL not valid for usage"},
};

std::vector<std::wstring> ChainErrorNames(DWORD status)
{
    std::vector<std::wstring> names;
    for (const auto& bit : ChainErrorBits)
        if ((status & bit.bit) != 0)
            names.push_back(bit.name);
    return names;
}

std::wstring Joined(const std::vector<std::wstring>& names)
{
    std::wstring text;
    for (const std::wstring& name : names)
        text += (text.empty() ? L"" : L", ") + name;
    return text;
}

struct Options
{
    bool enforceExpiry = false;
    uint32_t ignoreFlags = 0;
    bool network = false;
    bool haveCert = false;
    CDigitalCertificate cert;
};

// One file: verification, signer, chain and table. Returns the exit code it
// calls for (0 verified and matching, 1 not, 3 could not answer).
int CheckFile(Context& context, const std::wstring& path, Options& options, const ATL::CAccessToken& token,
              Json& results)
{
    if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES)
    {
        const DWORD error = GetLastError();
        const std::wstring text = QXCommon::CHResult(HRESULT_FROM_WIN32(error)).ToString();
        if (context.json)
            results.Push(Json::MakeObject().Set(L"path", path).Set(L"error", static_cast<unsigned long>(error)).Set(
                L"errorText", text));
        else
            Out(path + L": cannot be read: " + text + L"\n");
        Err(L"qxinspect: " + path + L": " + text + L"\n");
        return ExitFailed;
    }

    CDigitalCertificate signer;
    const DWORD readError = signer.ReadFromSignedFile(path);
    QXCommon::VerifySignedFile policy(options.enforceExpiry, options.ignoreFlags, options.network);
    const HRESULT result = policy.Verify(signer, path, token);
    const std::wstring resultText = ResultText(result);
    DWORD chainStatus = 0;
    DWORD policyError = 0;
    const bool haveSigner = readError == 0;
    const bool chainBuilt = haveSigner && signer.Verify(options.ignoreFlags, chainStatus, policyError, options.network);
    DWORD entries = 0;
    const bool haveEntries = CDigitalCertificate::GetNumberOfCertificatesFromFile(path, entries);
    const bool matches = options.haveCert && haveSigner && signer == options.cert;
    const std::wstring name = haveSigner ? TakeBstr(signer.GetName()) : std::wstring();
    const std::wstring friendly = haveSigner ? TakeBstr(signer.GetFriendlyName()) : std::wstring();
    const std::wstring expires = haveSigner ? UtcText(signer.GetExpirationDate()) : std::wstring();

    if (context.json)
    {
        Json entry = Json::MakeObject();
        entry.Set(L"path", path)
            .Set(L"result", static_cast<unsigned long>(result))
            .Set(L"resultHex", Hex32(static_cast<uint32_t>(result)))
            .Set(L"resultName", ResultName(result))
            .Set(L"resultText", resultText)
            .Set(L"verified", result == S_OK);
        if (haveSigner)
        {
            Json chain = Json::MakeArray();
            for (const std::wstring& bit : ChainErrorNames(chainStatus))
                chain.Push(bit);
            Json signerJson = Json::MakeObject();
            signerJson.Set(L"name", name).Set(L"friendlyName", friendly).Set(L"expires", expires);
            signerJson.Set(L"chainBuilt", chainBuilt);
            signerJson.Set(L"chainErrorStatus", static_cast<unsigned long>(chainStatus))
                .Set(L"chainErrorStatusHex", Hex32(chainStatus))
                .Set(L"chainErrors", chain)
                .Set(L"policyError", static_cast<unsigned long>(policyError))
                .Set(L"policyErrorHex", Hex32(policyError))
                .Set(L"policyErrorText", ResultText(static_cast<HRESULT>(policyError)));
            entry.Set(L"signer", signerJson);
        }
        else
        {
            entry.Set(L"signer", nullptr).Set(L"signerReadError", static_cast<unsigned long>(readError));
        }
        entry.Set(L"certificateTableEntries", haveEntries ? Json(static_cast<unsigned long>(entries)) : Json(nullptr));
        if (options.haveCert)
            entry.Set(L"matchesCert", matches);
        results.Push(entry);
    }
    else
    {
        Out(path + L"\n");
        Out(L"  result:          " + resultText + (result == S_OK ? L" (verified)" : L"") + L"\n");
        if (haveSigner)
        {
            Out(L"  signer:          " + name + L"\n");
            Out(L"  friendly name:   " + friendly + L"\n");
            Out(L"  expires:         " + expires + L"\n");
            if (chainBuilt)
            {
                Out(L"  chain status:    " + Hex32(chainStatus) +
                    (chainStatus != 0 ? L" (" + Joined(ChainErrorNames(chainStatus)) + L")" : L"") + L"\n");
                Out(L"  policy error:    " + ResultText(static_cast<HRESULT>(policyError)) + L"\n");
            }
            else
            {
                Out(L"  chain:           could not be built (run with --log for the reason)\n");
            }
        }
        else
        {
            Out(L"  signer:          (none: " + ResultText(static_cast<HRESULT>(readError)) + L")\n");
        }
        Out(L"  table entries:   " + (haveEntries ? std::to_wstring(entries) : std::wstring(L"(not a PE image)")) +
            L"\n");
        if (options.haveCert)
            Out(L"  matches cert:    " + BoolText(matches) + L"\n");
    }
    return result == S_OK && (!options.haveCert || matches) ? ExitOk : ExitNo;
}

int RunSig(Context& context, const std::vector<std::wstring>& args)
{
    ArgParser parser({L"--cert", L"--ignore"}, {L"--enforce-expiry", L"--network"});
    std::wstring error;
    if (!parser.Parse(args, error))
        return Fail(ExitUsage, error);
    if (parser.Positional().empty())
        return Fail(ExitUsage, L"sig needs at least one PATH (see qxinspect help sig)");

    Options options;
    SignaturePolicy policy;
    if (!ParsePolicy(parser, policy, error))
        return Fail(ExitUsage, error);
    options.enforceExpiry = policy.enforceExpiry;
    options.network = policy.network;
    options.ignoreFlags = policy.ignoreFlags;
    if (auto cert = parser.Value(L"--cert"))
    {
        const DWORD certError = options.cert.ReadFromCERFile(*cert);
        if (certError != 0)
            return Fail(ExitFailed, L"--cert " + *cert + L": " +
                                        QXCommon::CHResult(static_cast<HRESULT>(certError)).ToString());
        options.haveCert = true;
    }

    // Files are opened as this process's user, as the agent opens them as the
    // user it verifies for.
    ATL::CAccessToken token;
    if (!token.GetProcessToken(TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE))
        return Fail(ExitFailed, L"the process token cannot be opened: error " + std::to_wstring(GetLastError()));

    int exitCode = ExitOk;
    Json results = Json::MakeArray();
    for (const std::wstring& path : parser.Positional())
    {
        const int code = CheckFile(context, path, options, token, results);
        if (code == ExitFailed || (code == ExitNo && exitCode == ExitOk))
            exitCode = code;
    }
    if (context.json)
    {
        Json document = Json::MakeObject();
        document.Set(L"enforceExpiry", options.enforceExpiry)
            .Set(L"ignoreFlags", static_cast<unsigned long>(options.ignoreFlags))
            .Set(L"network", options.network);
        if (options.haveCert)
            document.Set(L"cert", TakeBstr(options.cert.GetName()));
        document.Set(L"files", results);
        OutJson(document);
    }
    return exitCode;
}
} // namespace

QXINSPECT_COMMAND(L"sig", L"sig PATH... [--cert FILE.cer] [--enforce-expiry] [--ignore FLAGS] [--network]",
                  L"whether files are validly signed, by whom, and how the signer's chain fares",
                  L"For each PATH verifies the embedded Authenticode signature and then the chain\n"
                  L"of the file's signer under the base policy, as the agent does (the file is\n"
                  L"opened as this process's user). Prints the result (code and text, 0 when\n"
                  L"the file counts as validly signed), the signer's name, friendly name and\n"
                  L"expiry, the chain's error status (CERT_TRUST_* bits, named) and the policy's\n"
                  L"error, and the number of entries in the file's certificate table.\n"
                  L"  --cert FILE.cer    also tell whether the signer is this certificate (same\n"
                  L"                     issuer and serial number); a file counts only if it is\n"
                  L"  --enforce-expiry   an expired signer fails (by default it is accepted)\n"
                  L"  --ignore FLAGS     chain-policy flags to ignore (CERT_CHAIN_POLICY_*_FLAG),\n"
                  L"                     decimal or 0x-hexadecimal; e.g. 0xF00 ignores unknown\n"
                  L"                     revocation, 0x10 an untrusted root, 0x7 expiry\n"
                  L"  --network          allow the chain engine to fetch URLs\n"
                  L"Exit codes: 0 every file verified (and matched --cert), 1 some did not,\n"
                  L"2 bad command line, 3 a file or the --cert certificate could not be read.\n",
                  &RunSig);
} // namespace qxinspect
