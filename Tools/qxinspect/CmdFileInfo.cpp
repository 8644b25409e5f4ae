// fileinfo: everything the library knows about files, answered on worker
// threads that each hash with their own cached provider, printed in the
// order of the files as soon as each is ready.

#include "Records.h"

namespace qxinspect
{
namespace
{
// A --from line is a path, perhaps quoted as it was pasted.
std::wstring PathOf(const Input& input)
{
    const std::wstring& text = input.text;
    return text.size() >= 2 && text.front() == L'"' && text.back() == L'"' ? text.substr(1, text.size() - 2) : text;
}

int RunFileInfo(Context& context, const std::vector<std::wstring>& args)
{
    ArgParser parser({L"--threads", L"--ignore", L"--from"}, {L"--enforce-expiry", L"--network", L"--recursive", L"--csv"});
    std::wstring error;
    if (!parser.Parse(args, error))
        return Fail(ExitUsage, error + SeeHelp(L"fileinfo"));
    const auto from = parser.Value(L"--from");
    if (parser.Positional().empty() == !from)
        return Fail(ExitUsage, L"fileinfo needs PATHs or --from FILE, not both" + SeeHelp(L"fileinfo"));
    uint32_t threads = 4;
    SignaturePolicy policy;
    if (!ParseThreads(parser, threads, error) || !ParsePolicy(parser, policy, error))
        return Fail(ExitUsage, error);
    const bool csv = parser.Has(L"--csv");
    if (csv && context.json)
        return Fail(ExitUsage, L"--csv and --json do not go together" + SeeHelp(L"fileinfo"));
    Inputs inputs;
    if (!inputs.Open(parser.Positional(), from, parser.Has(L"--recursive"), error))
        return FailInput(error, Json(), L"qxinspect: " + error + L"\n");

    // Files are opened for the signature check as this process's user.
    ATL::CAccessToken token;
    if (!token.GetProcessToken(TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_IMPERSONATE))
        return Fail(ExitFailed, L"the process token cannot be opened: " + Win32Text(GetLastError()));

    const FactsNeeded needed = FactsNeeded::All();
    auto work = [&](const Input& input) {
        return input.problem.empty() ? ComputeFacts(PathOf(input), needed, policy, &token)
                                     : FactsWithout(input.text, FileStatus{ERROR_INVALID_DATA, input.problem});
    };
    if (!inputs.Many() && !csv)
    {
        // One file: one document, as it always was.
        Input input;
        inputs.Next(input);
        WorkerProviders providers;
        WorkerProviders::Thread provider;
        const Facts facts = work(input);
        std::wstring text;
        Json files = Json::MakeArray().Push(FileJson(input.text, facts, text));
        const FileStatus& failed = FileFailure(facts);
        if (!failed.Ok())
            Err(L"qxinspect: " + input.text + L": " + failed.reason + L"\n");
        if (context.json)
            OutJson(Json::MakeObject().Set(L"threads", threads).Set(L"policy", PolicyJson(policy)).Set(L"files", files));
        else
            Out(text);
        return failed.Ok() ? ExitOk : ExitFailed;
    }

    FileRecords records(csv ? Format::Csv : context.json ? Format::Json : Format::Text, threads, policy);
    RunInOrder<Facts>(inputs, threads, L"files", work, [&](const Input& input, Facts& facts) {
        records.Record(Input{input.index, input.line, PathOf(input), input.problem}, facts);
        DWORD failed = 0;
        return !OutputFailed(failed);
    });
    records.Summary(inputs.ReadError());
    return records.ExitCode();
}
} // namespace

QXINSPECT_COMMAND(L"fileinfo",
                  L"fileinfo (PATH... | --from FILE) [--recursive] [--threads N] [--csv] [--enforce-expiry] "
                  L"[--ignore FLAGS] [--network]",
                  L"everything the library knows about files: image, hashes, signature, owner",
                  L"For each file: whether it is an NT image; its SHA-1, SHA-256 and Adler-32\n"
                  L"texts of the first 8 MiB (the file's identity, as hash writes them); the\n"
                  L"signature's result under the policy (as sig, the file opened as this\n"
                  L"process's user), the signer's name, friendly name and expiry; the number of\n"
                  L"certificate-table entries; the owner (name and SID). Each file is answered as\n"
                  L"soon as it and every file before it are done; with more than one file a\n"
                  L"summary line ends the run (files, answered, could not answer), and progress\n"
                  L"goes to standard error when it is a terminal.\n"
                  L"  PATH...       files; a folder stands for the files in it, by name\n"
                  L"  --recursive   and for those in the folders below it (links to folders are\n"
                  L"                not followed)\n"
                  L"  --from FILE   one path per line (- reads standard input as it comes; blank\n"
                  L"                lines and # lines skipped, quotes around a path dropped)\n"
                  L"  --threads N   worker threads (1 to 64, default 4), each hashing with its\n"
                  L"                own cached provider; the answers keep the order of the files\n"
                  L"  --csv         one CSV row per file (path, isNTExe, sha1, sha256, adler32,\n"
                  L"                signature, verified, signer, expires, thumbprint, tableEntries,\n"
                  L"                owner, ownerSid, reason) under a header; the summary goes to\n"
                  L"                standard error\n"
                  L"  --enforce-expiry, --ignore FLAGS, --network   the signature policy (see sig)\n"
                  L"A file that is not a regular disk file under 4 GiB (a device, a pipe) or\n"
                  L"cannot be read is not answered.\n"
                  L"--json prints {command, threads, policy, files[]} for one file; for more,\n"
                  L"JSON Lines: one {command, record: \"file\", file} per file, then {command,\n"
                  L"record: \"summary\", threads, policy, files, answered, couldNotAnswer}. A file\n"
                  L"not answered gets error, errorText and reason instead of its answers.\n"
                  L"Exit codes: 0 every file answered, 2 bad command line or --from file, 3 some\n"
                  L"file was not.\n",
                  &RunFileInfo);
} // namespace qxinspect
