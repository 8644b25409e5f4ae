#pragma once
// CQXEnvironmentVars: the three per-file variables that rules may refer to,
// defined in a CEnvironmentEx table: "ExecutableName" (the file name),
// "DirectoryName" (its folder, without a trailing "\" except for a drive's
// root such as "C:\"; empty for a bare file name) and "FullPathName" (the
// path as given). Names are stored lower-cased, as every table name is.

#include "QXCommonAPI.h"

#include "EnvironmentEx.h"

#include <string>

namespace QXCommon
{
class QXCOMMON_API CQXEnvironmentVars
{
public:
    // 1 = defined; 0 for an empty path.
    static int DefineKestrovaFileEnvVariables(const std::wstring& filePath, CEnvironmentEx& environment);
    // Splits a path at its last "\" or "/" into folder and file name.
    static void SplitFilePath(const std::wstring& filePath, std::wstring& directory, std::wstring& fileName);
};
} // namespace QXCommon
