// CQXEnvironmentVars: per-file variables in an environment table.

#include "QXCommon/QXEnvironmentVars.h"

#include "QXLog.h"

namespace QXCommon
{
void CQXEnvironmentVars::SplitFilePath(const std::wstring& filePath, std::wstring& directory, std::wstring& fileName)
{
    size_t slash = filePath.find_last_of(L"\\/");
    if (slash == std::wstring::npos)
    {
        // "C:x.exe" names a file relative to the drive's current folder.
        size_t colon = filePath.find(L':');
        directory = colon == std::wstring::npos ? std::wstring() : filePath.substr(0, colon + 1);
        fileName = colon == std::wstring::npos ? filePath : filePath.substr(colon + 1);
        return;
    }
    fileName = filePath.substr(slash + 1);
    directory = filePath.substr(0, slash);
    // A drive's root keeps its separator: "C:\x.exe" lives in "C:\", not "C:".
    if (directory.size() == 2 && directory[1] == L':')
        directory += filePath[slash];
    else if (directory.empty())
        directory = filePath.substr(0, 1);
}

int CQXEnvironmentVars::DefineKestrovaFileEnvVariables(const std::wstring& filePath, CEnvironmentEx& environment)
{
    if (filePath.empty())
    {
        QXLOG_ERROR("QXCommon::CQXEnvironmentVars::DefineKestrovaFileEnvVariables", L"File path is empty.\n");
        return 0;
    }
    std::wstring directory;
    std::wstring fileName;
    SplitFilePath(filePath, directory, fileName);
    environment.Add(std::wstring(L"ExecutableName"), fileName);
    environment.Add(std::wstring(L"DirectoryName"), directory);
    environment.Add(std::wstring(L"FullPathName"), filePath);
    return 1;
}
} // namespace QXCommon
