#include "ProgramStart.h"

#include "FileFacts.h"

#include "QXCommon/ProcessIDAndCreateTime.h"
#include "QXCommon/QXAccessTokenMembership.h"
#include "QXCommon/QXCommonFunctions.h"

namespace qxinspect
{
namespace
{
const wchar_t* const AdministratorsSid = L"S-1-5-32-544";
}

void StepIdentity(ProcessFacts& process)
{
    process.processId = process.pid != 0 ? process.pid : GetCurrentProcessId();
    QXCommon::CProcessIDAndCreateTime identity;
    process.identityError = identity.Initialise(process.processId);
    if (process.identityError == 0)
    {
        process.key = identity.GetProcessIDAndCreateTime();
        identity.GetProcessStartTime(process.created);
    }
}

void StepSplit(ProgramStart& start)
{
    // A bare PATH is the command line of a program started without arguments.
    start.line = start.commandLine ? *start.commandLine : L"\"" + start.path + L"\"";
    start.split = SplitAndExpand(start.line);
    if (!start.commandLine)
    {
        start.program = start.path;
        start.programSource = L"the path given";
    }
    else if (!start.split.split)
    {
        start.program.clear();
        start.programSource = L"the command line names no program";
        return;
    }
    else
    {
        start.program = start.split.module;
        start.programSource = L"the command line";
    }
    // Rules see the full path the program names: a \\?\ or \\.\ prefix is
    // the path it names, a bare name is looked up as the system starts it,
    // anything else is made full against the current folder.
    const std::wstring plain = PlainPath(start.program);
    if (plain != start.program)
    {
        start.program = plain;
        start.programSource += L", its \\\\?\\ or \\\\.\\ prefix removed";
    }
    std::wstring full(MAX_PATH, L'\0');
    DWORD length = 0;
    const bool bare = start.program.find_first_of(L"\\/:") == std::wstring::npos;
    if (bare)
        length = SearchPathW(nullptr, start.program.c_str(), nullptr, MAX_PATH, full.data(), nullptr);
    if (length > 0 && length < MAX_PATH)
        start.programSource += L", found on the search path";
    else
    {
        length = GetFullPathNameW(start.program.c_str(), MAX_PATH, full.data(), nullptr);
        if (length == 0 || length >= MAX_PATH)
            return;
    }
    full.resize(length);
    start.program = full;
}

void StepImage(ProgramStart& start)
{
    start.isNTExe = FALSE;
    start.imageError = start.program.empty() ? ERROR_INVALID_PARAMETER
                                             : QXCommonFunctions::TryCheckIsNTExe(start.program, start.isNTExe);
}

void StepToken(ProcessFacts& process)
{
    process.token.Clear();
    process.tokenError = ERROR_SUCCESS;
    if (!QXCommonFunctions::AttachAtlAccessTokenToPrimaryTokenFromProcessId(process.token, process.processId))
    {
        process.tokenError = GetLastError() != ERROR_SUCCESS ? GetLastError() : ERROR_INVALID_HANDLE;
        return;
    }
    const HANDLE token = process.token.GetHandle();
    ATL::CSid user;
    if (process.token.GetUser(&user))
        process.user = NameOf(const_cast<SID*>(user.GetPSID()));
    process.elevated = QXCommonFunctions::IsTokenElevated(token);
    process.elevationType = ElevationTypeName(token);
    process.restrictedOrFullAdmin = QXCommonFunctions::IsRestrictedOrFullAdmin(token);
    process.hasAdminSid = QXCommon::QXAccessTokenMembership().HasAdminSid(token) != FALSE;
    // The system's membership rule asks an impersonation token.
    ATL::CAccessToken query;
    process.administratorsMember = process.token.CreateImpersonationToken(&query) &&
                                   QXCommonFunctions::TokenHasMembership(query, AdministratorsSid);
}

void StepEnvironment(ProcessFacts& process)
{
    process.env = std::make_unique<QXCommon::CEnvironmentEx>(0);
    process.envError.clear();
    if (!LoadTable(*process.env, process.pid, process.envError))
        process.env.reset();
}

void PrepareProcess(ProcessFacts& process)
{
    StepIdentity(process);
    StepToken(process);
    StepEnvironment(process);
}
} // namespace qxinspect
