#pragma once
// The facts of a program start, asked in the agent's order: the process's
// identity key, the command line split into its program (made a full path),
// the NT image check of the program, the process's token, and the
// environment table of its user. A failed step keeps its error and the walk
// goes on.
//
// What belongs to the process (identity, token, table) is asked once for a
// run, whatever the number of program starts evaluated in it; what belongs
// to the program (the split, the image) once per start.

#include "Platform.h"

#include "QXCommon/EnvironmentEx.h"

#include <atlsecurity.h>

#include <memory>
#include <optional>
#include <string>

namespace qxinspect
{
// The process that starts the programs, and its user.
struct ProcessFacts
{
    // Input: the process (0: this one).
    DWORD pid = 0;

    // 1: the process identity key.
    DWORD processId = 0;
    DWORD identityError = ERROR_SUCCESS;
    std::wstring key;
    FILETIME created = {};
    // 3: the token, its elevation and Administrators membership.
    ATL::CAccessToken token;
    DWORD tokenError = ERROR_SUCCESS;
    AccountName user;
    bool elevated = false, restrictedOrFullAdmin = false, hasAdminSid = false, administratorsMember = false;
    std::wstring elevationType;
    // 5: the user's environment table.
    std::unique_ptr<QXCommon::CEnvironmentEx> env;
    std::wstring envError;

    // The token the program's file is opened with for its signature (null
    // when there is none).
    const ATL::CAccessToken* FileToken() const { return token.GetHandle() != nullptr ? &token : nullptr; }
};

void StepIdentity(ProcessFacts& process);
void StepToken(ProcessFacts& process);
void StepEnvironment(ProcessFacts& process);
// Steps 1, 3 and 5.
void PrepareProcess(ProcessFacts& process);

// One program start by that process.
struct ProgramStart
{
    // Input: the program as a PATH or as a command line to split.
    std::optional<std::wstring> commandLine;
    std::wstring path;

    // 4 (made first: it names the program): the command line, split.
    std::wstring line;
    SplitLine split;
    // The program's full path (empty when the command line names none) and
    // how it was found.
    std::wstring program, programSource;
    // 2: the NT image check.
    DWORD imageError = ERROR_SUCCESS;
    BOOL isNTExe = FALSE;
};

void StepSplit(ProgramStart& start);
void StepImage(ProgramStart& start);
} // namespace qxinspect
