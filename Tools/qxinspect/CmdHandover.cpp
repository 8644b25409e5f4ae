// handover: the identity hand-over over an impersonating pipe, end to end.
// The tool starts itself as the client in a child process (optionally under a
// token with the Administrators group deny-only), serves the pipe, and shows
// the primary token it obtained and how long that took.

#include "Access.h"

#include "QXCommon/Guid.h"
#include "QXCommon/PipeImpersonateClient.h"
#include "QXCommon/PipeImpersonateServer.h"

#include <atlsecurity.h>
#include <sddl.h>

#include <chrono>
#include <cwchar>
#include <memory>

namespace qxinspect
{
namespace
{
std::unique_ptr<BYTE[]> TokenInfo(HANDLE token, TOKEN_INFORMATION_CLASS infoClass)
{
    DWORD size = 0;
    GetTokenInformation(token, infoClass, nullptr, 0, &size);
    auto buffer = std::make_unique<BYTE[]>(size != 0 ? size : 1);
    if (size == 0 || !GetTokenInformation(token, infoClass, buffer.get(), size, &size))
        return nullptr;
    return buffer;
}

std::wstring Attributes(DWORD attributes)
{
    static const std::pair<DWORD, const wchar_t*> names[] = {
        {SE_GROUP_MANDATORY, L"mandatory"}, {SE_GROUP_ENABLED_BY_DEFAULT, L"enabled-by-default"},
        {SE_GROUP_ENABLED, L"enabled"},     {SE_GROUP_OWNER, L"owner"},
        {SE_GROUP_USE_FOR_DENY_ONLY, L"deny-only"}, {SE_GROUP_INTEGRITY, L"integrity"},
        {SE_GROUP_LOGON_ID, L"logon-id"}};
    std::wstring text;
    for (const auto& [bit, name] : names)
        if ((attributes & bit) == bit)
            text += (text.empty() ? L"" : L",") + std::wstring(name);
    return text;
}

// The user and groups of a token as one comparable text.
std::wstring IdentityOf(HANDLE token)
{
    auto user = TokenInfo(token, TokenUser);
    auto groups = TokenInfo(token, TokenGroups);
    if (!user || !groups)
        return L"";
    auto sidText = [](PSID sid) { return std::wstring(ATL::CSid(*static_cast<const SID*>(sid)).Sid()); };
    std::wstring identity = sidText(reinterpret_cast<TOKEN_USER*>(user.get())->User.Sid);
    const auto* list = reinterpret_cast<const TOKEN_GROUPS*>(groups.get());
    for (DWORD k = 0; k < list->GroupCount; ++k)
        identity += L" " + sidText(list->Groups[k].Sid) + L":" + Hex32(list->Groups[k].Attributes);
    return identity;
}

// The child's side: hands this process's own token over the pipe, looking
// for the pipe by waiting for the server's ready event.
int RunClient(const std::wstring& pipe, const std::wstring& eventName)
{
    ATL::CAccessToken token;
    if (!token.GetProcessToken(TOKEN_DUPLICATE | TOKEN_IMPERSONATE | TOKEN_QUERY))
        return Fail(ExitFailed, L"cannot open this process's token, error " + std::to_wstring(GetLastError()));
    ATL::CHandle ready(OpenEventW(SYNCHRONIZE, FALSE, eventName.c_str()));
    if (ready == nullptr)
        return Fail(ExitFailed, L"cannot open the event " + eventName + L", error " + std::to_wstring(GetLastError()));
    QXCommon::CPipeImpersonateClient client(pipe, token.GetHandle(), [&](const std::wstring&) {
        return WaitForSingleObject(ready, 10000) == WAIT_OBJECT_0 ? 1 : 0;
    });
    if (!client.ConnectAndImpersonate(10000, 10))
        return Fail(ExitFailed, L"cannot connect and impersonate, error " + std::to_wstring(GetLastError()));
    const BOOL sent = client.SendReadyMessage();
    const DWORD error = GetLastError();
    client.RevertToSelf();
    return sent ? ExitOk : Fail(ExitFailed, L"cannot send the ready message, error " + std::to_wstring(error));
}

// Starts this program as the client, under a token with the Administrators
// group deny-only when asked.
bool StartClient(const std::wstring& pipe, const std::wstring& eventName, bool restricted, bool log,
                 ATL::CHandle& process, std::wstring& error)
{
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring commandLine = L"\"" + std::wstring(self) + L"\"" + (log ? L" --log" : L"") + L" handover --client " +
                               pipe + L" --event " + eventName;
    // The client's log lines (--log) go to this process's standard error.
    STARTUPINFOW startup = {sizeof(startup)};
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION info = {};
    ATL::CHandle restrictedToken;
    DWORD code = ERROR_SUCCESS;
    if (restricted && !AdministratorsDenyOnlyToken(restrictedToken, code))
    {
        error = L"cannot make a restricted token, error " + std::to_wstring(code);
        return false;
    }
    const BOOL started =
        restricted ? CreateProcessAsUserW(restrictedToken, nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0,
                                          nullptr, nullptr, &startup, &info)
                   : CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                                    &startup, &info);
    if (!started)
    {
        error = L"cannot start the client process, error " + std::to_wstring(GetLastError());
        return false;
    }
    CloseHandle(info.hThread);
    process.Attach(info.hProcess);
    return true;
}

int RunHandover(Context& context, const std::vector<std::wstring>& args)
{
    ArgParser parser({L"--client", L"--event"}, {L"--restricted"});
    std::wstring error;
    if (!parser.Parse(args, error))
        return Fail(ExitUsage, error);
    if (!parser.Positional().empty())
        return Fail(ExitUsage, L"handover takes no positional arguments" + SeeHelp(L"handover"));
    if (auto pipe = parser.Value(L"--client"))
        return RunClient(*pipe, parser.Value(L"--event").value_or(L""));

    const bool restricted = parser.Has(L"--restricted");
    const std::wstring unique = L"qxinspect-handover-" + QXCommon::CGuid::CreateNewAsString();
    const std::wstring pipe = L"\\\\.\\pipe\\" + unique, eventName = L"Local\\" + unique;
    ATL::CHandle ready(CreateEventW(nullptr, FALSE, FALSE, eventName.c_str()));
    if (ready == nullptr)
        return Fail(ExitFailed, L"cannot create the ready event, error " + std::to_wstring(GetLastError()));
    ATL::CHandle client;
    if (!StartClient(pipe, eventName, restricted, context.log, client, error))
        return Fail(ExitFailed, error);

    const auto start = std::chrono::steady_clock::now();
    ATL::CHandle token;
    const bool taken = QXCommon::CPipeImpersonateServer::GetToken(token, pipe, ready);
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    DWORD clientExit = 0;
    if (WaitForSingleObject(client, 15000) != WAIT_OBJECT_0)
        TerminateProcess(client, ExitFailed);
    GetExitCodeProcess(client, &clientExit);
    if (!taken || token == nullptr)
        return Fail(ExitFailed, L"no identity was handed over (the client process ended with " +
                                    std::to_wstring(clientExit) + L")");

    auto user = TokenInfo(token, TokenUser);
    auto groupInfo = TokenInfo(token, TokenGroups);
    TOKEN_TYPE type = TokenImpersonation;
    DWORD size = 0;
    if (!user || !groupInfo || !GetTokenInformation(token, TokenType, &type, sizeof(type), &size))
        return Fail(ExitFailed, L"cannot read the obtained token, error " + std::to_wstring(GetLastError()));
    ATL::CAccessToken own;
    own.GetProcessToken(TOKEN_QUERY);
    const bool sameAsServer = IdentityOf(token) == IdentityOf(own.GetHandle());
    const PSID userSid = reinterpret_cast<TOKEN_USER*>(user.get())->User.Sid;
    const std::wstring userSidText = ATL::CSid(*static_cast<const SID*>(userSid)).Sid();
    const wchar_t* typeName = type == TokenPrimary ? L"primary" : L"impersonation";

    Json groups = Json::MakeArray();
    std::wstring groupText;
    const auto* list = reinterpret_cast<const TOKEN_GROUPS*>(groupInfo.get());
    for (DWORD k = 0; k < list->GroupCount; ++k)
    {
        const SID_AND_ATTRIBUTES& group = list->Groups[k];
        const AccountName account = NameOf(group.Sid);
        const std::wstring& sid = account.sid;
        const std::wstring name = account.Qualified();
        groups.Push(Account(account)
                        .Set(L"attributes", static_cast<unsigned long>(group.Attributes))
                        .Set(L"flags", Attributes(group.Attributes)));
        groupText += L"  " + sid + (name.empty() ? L"" : L" (" + name + L")") + L"  " + Hex32(group.Attributes) +
                     L" " + Attributes(group.Attributes) + L"\n";
    }
    if (context.json)
    {
        OutJson(Json::MakeObject()
                    .Set(L"pipe", pipe)
                    .Set(L"restricted", restricted)
                    .Set(L"milliseconds", ms)
                    .Set(L"user", Account(NameOf(userSid)))
                    .Set(L"type", typeName)
                    .Set(L"sameAsServer", sameAsServer)
                    .Set(L"groups", std::move(groups)));
        return ExitOk;
    }
    wchar_t time[32];
    std::swprintf(time, 32, L"%.2f ms", ms);
    Out(L"pipe:       " + pipe + L"\n");
    Out(L"client:     a child process" + std::wstring(restricted ? L" with Administrators deny-only" : L"") + L"\n");
    Out(L"taken in:   " + std::wstring(time) + L"\n");
    Out(L"user:       " + AccountOfSid(userSid) + L" " + userSidText + L"\n");
    Out(L"type:       " + std::wstring(typeName) + L"\n");
    Out(L"identity:   " + std::wstring(sameAsServer ? L"the same as this process's token" : L"the client's own") +
        L"\ngroups:\n" + groupText);
    return ExitOk;
}
} // namespace

QXINSPECT_COMMAND(L"handover", L"handover [--restricted]",
                  L"takes a child process's identity over an impersonating pipe",
                  L"Starts qxinspect again as a client process, serves a pipe of a fresh unique name\n"
                  L"and takes the identity the client hands over (the client impersonates its own\n"
                  L"token and sends the ready byte; the server impersonates it and answers with the\n"
                  L"close byte). Prints the primary token obtained: its user, type and groups with\n"
                  L"their attributes, whether it equals this process's own token, and the time the\n"
                  L"server side took from creating the pipe to holding the token.\n"
                  L"  --restricted   start the client under this process's token with the\n"
                  L"                 Administrators group deny-only\n"
                  L"  --client PIPE --event NAME\n"
                  L"                 (used by the tool itself) act as the client of PIPE, looking\n"
                  L"                 for it by waiting for the event NAME\n"
                  L"Exit codes: 0 done, 2 bad arguments, 3 no identity was handed over.\n",
                  &RunHandover);
} // namespace qxinspect
