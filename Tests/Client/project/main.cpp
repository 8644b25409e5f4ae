// Uses the installed library across its boundary: std::wstring in and out,
// exported classes, C exports.
#include <QXCommon/QXCommon.h>

#include <cstdio>

int wmain()
{
    int failures = 0;
    auto check = [&](bool ok, const char* what) {
        std::printf("%s: %s\n", what, ok ? "ok" : "FAILED");
        failures += ok ? 0 : 1;
    };

    std::wstring guid = L"abc";
    QXCommon::CGuid::Canonicalize(guid);
    check(guid == L"{ABC}", "CGuid::Canonicalize");

    check(QXCommonFunctions::GetCurrentOS() != 0, "GetCurrentOS");
    check(!QXCommonFunctions::ErrorMessageFromCode(5).empty(), "ErrorMessageFromCode");

    std::wstring module, arguments;
    check(QXCommon::CommandLineSplitter::SplitCommandLine(L"\"C:\\Program Files\\App\\a.exe\" -x", module, arguments) &&
              module == L"C:\\Program Files\\App\\a.exe" && arguments == L"-x",
          "SplitCommandLine");

    check(QXCommon::CFilePathPatternMatcher::MatchAgainstPattern(L"C:\\Windows\\notepad.exe", L"C:\\Win*\\notepad.exe", 0) == 1,
          "MatchAgainstPattern");

    int error = -1;
    check(ValidateRegularExpression(L"^c:\\\\windows\\\\.*\\.exe$", &error) && error == 0, "ValidateRegularExpression");

    QXCommon::CEnvironmentEx environment(1);
    environment.Add(L"WINDIR", L"C:\\windows");
    std::wstring expanded;
    check(environment.ExpandString(L"%windir%\\x.exe", expanded) == 1 && expanded == L"C:\\windows\\x.exe",
          "CEnvironmentEx::ExpandString");

    {
        QXCommon::CFunctionTrace trace("Client/main.cpp", "Client::wmain");
    }

    std::printf(failures == 0 ? "client ok\n" : "client FAILED\n");
    return failures == 0 ? 0 : 1;
}
