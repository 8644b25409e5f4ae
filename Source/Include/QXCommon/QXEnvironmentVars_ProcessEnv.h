#pragma once
// CQXEnvironmentVars_ProcessEnv: the per-file variables "EXECUTABLENAME",
// "DIRECTORYNAME" and "FULLPATHNAME" (same values as CQXEnvironmentVars)
// defined in the calling process's own environment, and expansion with that
// environment. The process environment is shared by all threads of the
// process: callers serialise their use of these variables.

#include "QXCommonAPI.h"

#include <string>

namespace QXCommon
{
class QXCOMMON_API CQXEnvironmentVars_ProcessEnv
{
public:
    // TRUE = all three defined; FALSE for an empty path or a failed call.
    static BOOL DefineKestrovaFileEnvVariables(const std::wstring& filePath);
    // Sets one variable (name upper-cased). Does nothing, and returns TRUE,
    // when the name or the value is empty; FALSE when the system call fails.
    static BOOL DefineIndividualKestrovaFileEnvVariable(const std::wstring& name, const std::wstring& value);
    // Expands with ExpandEnvironmentStringsW. Win32 error code, 0 = done.
    static DWORD ExpandEnvVariables(const std::wstring& input, std::wstring& output);
    // The same, in place (left as it was on failure).
    static DWORD ExpandEnvVariables(std::wstring& text);
};
} // namespace QXCommon
