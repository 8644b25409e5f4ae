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

void StepIdentity(ProgramStart& start)
{
    start.processId = start.pid != 0 ? start.pid : GetCurrentProcessId();
    QXCommon::CProcessIDAndCreateTime identity;
    start.identityError = identity.Initialise(start.processId);
    if (start.identityError == 0)
    {
        start.key = identity.GetProcessIDAndCreateTime();
        identity.GetProcessStartTime(start.created);
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

void StepToken(ProgramStart& start)
{
    start.token.Clear();
    start.tokenError = ERROR_SUCCESS;
    if (!QXCommonFunctions::AttachAtlAccessTokenToPrimaryTokenFromProcessId(start.token, start.processId))
    {
        start.tokenError = GetLastError() != ERROR_SUCCESS ? GetLastError() : ERROR_INVALID_HANDLE;
        return;
    }
    const HANDLE token = start.token.GetHandle();
    ATL::CSid user;
    if (start.token.GetUser(&user))
        start.user = NameOf(const_cast<SID*>(user.GetPSID()));
    start.elevated = QXCommonFunctions::IsTokenElevated(token);
    start.elevationType = ElevationTypeName(token);
    start.restrictedOrFullAdmin = QXCommonFunctions::IsRestrictedOrFullAdmin(token);
    start.hasAdminSid = QXCommon::QXAccessTokenMembership().HasAdminSid(token) != FALSE;
    // The system's membership rule asks an impersonation token.
    ATL::CAccessToken query;
    start.administratorsMember = start.token.CreateImpersonationToken(&query) &&
                                 QXCommonFunctions::TokenHasMembership(query, AdministratorsSid);
}

void StepEnvironment(ProgramStart& start)
{
    start.env = std::make_unique<QXCommon::CEnvironmentEx>(0);
    start.envError.clear();
    if (!LoadTable(*start.env, start.pid, start.envError))
        start.env.reset();
}

void Prepare(ProgramStart& start)
{
    StepIdentity(start);
    StepSplit(start);
    StepImage(start);
    StepToken(start);
    StepEnvironment(start);
}
} // namespace qxinspect
