// CQXEnvironmentVars_ProcessEnv: per-file variables in the process's own
// environment.

#include "QXCommon/QXEnvironmentVars_ProcessEnv.h"

#include "QXCommon/EnvironmentEx.h"
#include "QXCommon/QXEnvironmentVars.h"

#include "QXLog.h"

#include <cwctype>

namespace QXCommon
{
BOOL CQXEnvironmentVars_ProcessEnv::DefineKestrovaFileEnvVariables(const std::wstring& filePath)
{
    if (filePath.empty())
    {
        QXLOG_ERROR("QXCommon::CQXEnvironmentVars_ProcessEnv::DefineKestrovaFileEnvVariables",
                    L"File path is empty.\n");
        return FALSE;
    }
    std::wstring directory;
    std::wstring fileName;
    CQXEnvironmentVars::SplitFilePath(filePath, directory, fileName);
    BOOL ok = DefineIndividualKestrovaFileEnvVariable(L"ExecutableName", fileName);
    ok = DefineIndividualKestrovaFileEnvVariable(L"DirectoryName", directory) && ok;
    ok = DefineIndividualKestrovaFileEnvVariable(L"FullPathName", filePath) && ok;
    return ok;
}

BOOL CQXEnvironmentVars_ProcessEnv::DefineIndividualKestrovaFileEnvVariable(const std::wstring& name,
                                                                          const std::wstring& value)
{
    if (name.empty() || value.empty())
        return TRUE;
    std::wstring upper(name);
    for (wchar_t& c : upper)
        c = static_cast<wchar_t>(towupper(c));
    if (!SetEnvironmentVariableW(upper.c_str(), value.c_str()))
    {
        QXLOG_ERROR("QXCommon::CQXEnvironmentVars_ProcessEnv::DefineIndividualKestrovaFileEnvVariable",
                    L"Failed to SetEnvironmentVariable [{}] - error {}\n", upper, GetLastError());
        return FALSE;
    }
    return TRUE;
}

DWORD CQXEnvironmentVars_ProcessEnv::ExpandEnvVariables(const std::wstring& input, std::wstring& output)
{
    if (&input == &output)
        return ExpandEnvVariables(output);
    return CEnvironmentEx::ExpandStringDirect(input, output);
}

DWORD CQXEnvironmentVars_ProcessEnv::ExpandEnvVariables(std::wstring& text)
{
    std::wstring expanded;
    DWORD error = CEnvironmentEx::ExpandStringDirect(text, expanded);
    if (error == ERROR_SUCCESS)
        text.swap(expanded);
    return error;
}
} // namespace QXCommon
