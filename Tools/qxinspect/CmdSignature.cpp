// sig: whether files are validly signed under a policy, who signed them, and
// how their signer's chain fares; optionally whether the signer is a rule's
// certificate.

#include "FileFacts.h"
#include "RuleSet.h"

#include "QXCommon/DigitalCertificate.h"

#include <atlsecurity.h>

#include <wintrust.h>

namespace qxinspect
{
namespace
{
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

// One file: verification, signer, chain and table. Returns the exit code it
// calls for (0 verified and matching, 1 not, 3 could not answer).
int CheckFile(const std::wstring& path, const SignaturePolicy& policy, const Certificate* cert,
              const ATL::CAccessToken& token, bool json, Json& results)
{
    const SignatureFacts facts = ReadSignature(path, policy, token);
    Json entry = Json::MakeObject().Set(L"path", path);
    if (!facts.status.Ok())
    {
        results.Push(SetWin32(entry, facts.status.error).Set(L"reason", facts.status.reason));
        if (!json)
            Out(path + L"\n  could not answer: " + facts.status.reason + L"\n");
        Err(L"qxinspect: " + path + L": " + facts.status.reason + L"\n");
        return ExitFailed;
    }
    const bool haveSigner = facts.readError == 0;
    DWORD chainStatus = 0;
    DWORD policyError = 0;
    const bool chainBuilt =
        haveSigner && facts.signer.Verify(policy.ignoreFlags, chainStatus, policyError, policy.network);
    const bool matches = cert != nullptr && haveSigner && facts.signer == *cert->cert;
    const bool same = cert != nullptr && haveSigner && facts.thumbprint == cert->thumbprint;

    SetHresult(entry, L"result", facts.result).Set(L"verified", facts.result == S_OK);
    std::wstring text = path + L"\n  result:          " + ResultText(facts.result) +
                        (facts.result == S_OK ? L" (verified)" : L"") + L"\n";
    if (haveSigner)
    {
        Json chain = Json::MakeArray();
        for (const std::wstring& bit : ChainErrorNames(chainStatus))
            chain.Push(bit);
        Json signer = Json::MakeObject()
                          .Set(L"name", facts.name)
                          .Set(L"friendlyName", facts.friendlyName)
                          .Set(L"expires", facts.expires)
                          .Set(L"thumbprint", facts.thumbprint)
                          .Set(L"chainBuilt", chainBuilt)
                          .Set(L"chainErrorStatus", static_cast<unsigned long>(chainStatus))
                          .Set(L"chainErrors", chain);
        SetHresult(signer, L"policyError", static_cast<HRESULT>(policyError));
        entry.Set(L"signer", std::move(signer));
        text += L"  signer:          " + facts.name + L"\n  friendly name:   " + facts.friendlyName +
                L"\n  expires:         " + facts.expires + L"\n  sha256:          " + facts.thumbprint + L"\n";
        if (chainBuilt)
            text += L"  chain status:    " + Hex32(chainStatus) +
                    (chainStatus != 0 ? L" (" + Joined(ChainErrorNames(chainStatus)) + L")" : L"") +
                    L"\n  policy error:    " + ResultText(static_cast<HRESULT>(policyError)) + L"\n";
        else
            text += L"  chain:           could not be built (run with --log for the reason)\n";
    }
    else
    {
        entry.Set(L"signer", nullptr);
        SetHresult(entry, L"signerError", static_cast<HRESULT>(facts.readError));
        text += L"  signer:          (none: " + ResultText(static_cast<HRESULT>(facts.readError)) + L")\n";
    }
    entry.Set(L"certificateTableEntries", facts.haveEntries ? Json(static_cast<unsigned long>(facts.entries)) : Json());
    text += L"  table entries:   " +
            (facts.haveEntries ? std::to_wstring(facts.entries) : std::wstring(L"(not a PE image)")) + L"\n";
    if (cert != nullptr)
    {
        entry.Set(L"matchesCert", matches).Set(L"sameCertificate", same);
        text += L"  matches cert:    " + BoolText(matches) + L" (same issuer and serial number)\n" +
                L"  same cert:       " + BoolText(same) + L" (byte for byte, sha256 " + cert->thumbprint + L")\n";
        if (matches && !same)
            Err(L"qxinspect: WARNING: " + path + L": the signer \"" + facts.name +
                L"\" has the issuer and serial number of --cert but is another certificate (sha256 " +
                facts.thumbprint + L", not " + cert->thumbprint + L"): the agent takes it for --cert\n");
    }
    results.Push(std::move(entry));
    if (!json)
        Out(text);
    return facts.result == S_OK && (cert == nullptr || matches) ? ExitOk : ExitNo;
}

int RunSig(Context& context, const std::vector<std::wstring>& args)
{
    ArgParser parser({L"--cert", L"--ignore"}, {L"--enforce-expiry", L"--network"});
    std::wstring error;
    if (!parser.Parse(args, error))
        return Fail(ExitUsage, error + SeeHelp(L"sig"));
    if (parser.Positional().empty())
        return Fail(ExitUsage, L"sig needs at least one PATH" + SeeHelp(L"sig"));
    SignaturePolicy policy;
    if (!ParsePolicy(parser, policy, error))
        return Fail(ExitUsage, error);
    Certificate cert;
    const auto certPath = parser.Value(L"--cert");
    if (certPath && !ReadCertificate(*certPath, cert, error))
        return Fail(ExitUsage, L"--cert " + error);
    if (certPath && WaivesUnknownRoot(policy))
        Err(L"qxinspect: warning: --ignore with 0x10 allows an unknown root: a certificate that anyone makes with "
            L"the issuer name and serial number of --cert verifies and matches\n");

    // Files are opened as this process's user, as the agent opens them as the
    // user it verifies for.
    ATL::CAccessToken token;
    if (!token.GetProcessToken(TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE))
        return Fail(ExitFailed, L"the process token cannot be opened: " + Win32Text(GetLastError()));

    int exitCode = ExitOk;
    Json results = Json::MakeArray();
    // Text goes out per file as it is ready; with --json only the document.
    for (const std::wstring& path : parser.Positional())
    {
        const int code = CheckFile(path, policy, certPath ? &cert : nullptr, token, context.json, results);
        if (code == ExitFailed || (code == ExitNo && exitCode == ExitOk))
            exitCode = code;
    }
    if (context.json)
    {
        Json document = Json::MakeObject().Set(L"policy", PolicyJson(policy));
        document.Set(L"cert", certPath ? Json::MakeObject()
                                             .Set(L"path", cert.path)
                                             .Set(L"name", cert.name)
                                             .Set(L"thumbprint", cert.thumbprint)
                                       : Json());
        OutJson(document.Set(L"files", std::move(results)));
    }
    return exitCode;
}
} // namespace

QXINSPECT_COMMAND(L"sig", L"sig PATH... [--cert FILE] [--enforce-expiry] [--ignore FLAGS] [--network]",
                  L"whether files are validly signed, by whom, and how the signer's chain fares",
                  L"For each PATH verifies the embedded Authenticode signature and then the chain\n"
                  L"of the file's signer under the base policy, as the agent does (the file is\n"
                  L"opened as this process's user). Prints the result (code and text, 0 when\n"
                  L"the file counts as validly signed), the signer's name, friendly name, expiry\n"
                  L"and SHA-256 thumbprint, the chain's error status (CERT_TRUST_* bits, named)\n"
                  L"and the policy's error, and the number of entries in the file's certificate\n"
                  L"table. A PATH that is not a regular disk file under 4 GiB (a device, a folder)\n"
                  L"or cannot be read is not answered (exit 3).\n"
                  L"  --cert FILE        also tell whether the signer is this certificate (DER or\n"
                  L"                     PEM): as the agent compares (same issuer and serial\n"
                  L"                     number; a file counts only if it is) and byte for byte\n"
                  L"                     (SHA-256), with a warning when only the first holds\n"
                  L"  --enforce-expiry   an expired signer fails (by default it is accepted)\n"
                  L"  --ignore FLAGS     chain-policy flags to ignore (CERT_CHAIN_POLICY_*_FLAG),\n"
                  L"                     decimal or 0x-hexadecimal; e.g. 0xF00 ignores unknown\n"
                  L"                     revocation, 0x10 an untrusted or unknown root (then any\n"
                  L"                     certificate with --cert's issuer and serial matches), 0x7\n"
                  L"                     expiry\n"
                  L"  --network          allow the chain engine to fetch URLs\n"
                  L"--json prints {command, policy, cert, files[]}.\n"
                  L"Exit codes: 0 every file verified (and matched --cert), 1 some did not,\n"
                  L"2 bad command line or --cert file, 3 a file could not be answered.\n",
                  &RunSig);
} // namespace qxinspect
