#pragma once
// The facts of one program start, asked in the agent's order: the process's
// identity key, the command line split into its program (made a full path),
// the NT image check of the program, the process's token, and the
// environment table of its user. A failed step keeps its error and the walk
// goes on.

#include "Platform.h"

#include "QXCommon/EnvironmentEx.h"

#include <atlsecurity.h>

#include <memory>
#include <optional>
#include <string>

namespace qxinspect
{
struct ProgramStart
{
    // Inputs: the process (0: this one), and the program as a PATH or as a
    // command line to split.
    DWORD pid = 0;
    std::optional<std::wstring> commandLine;
    std::wstring path;

    // 1: the process identity key.
    DWORD processId = 0;
    DWORD identityError = ERROR_SUCCESS;
    std::wstring key;
    FILETIME created = {};
    // 4 (made first: it names the program): the command line, split.
    std::wstring line;
    SplitLine split;
    // The program's full path (empty when the command line names none) and
    // how it was found.
    std::wstring program, programSource;
    // 2: the NT image check.
    DWORD imageError = ERROR_SUCCESS;
    BOOL isNTExe = FALSE;
    // 3: the token, its elevation and Administrators membership.
    ATL::CAccessToken token;
    DWORD tokenError = ERROR_SUCCESS;
    AccountName user;
    bool elevated = false, restrictedOrFullAdmin = false, hasAdminSid = false, administratorsMember = false;
    std::wstring elevationType;
    // 5: the user's environment table.
    std::unique_ptr<QXCommon::CEnvironmentEx> env;
    std::wstring envError;
};

void StepIdentity(ProgramStart& start);
void StepSplit(ProgramStart& start);
void StepImage(ProgramStart& start);
void StepToken(ProgramStart& start);
void StepEnvironment(ProgramStart& start);
// Every step, in this order.
void Prepare(ProgramStart& start);
} // namespace qxinspect
