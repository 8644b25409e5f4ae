// The identity hand-over between two processes: one GetToken against a client
// process that hands its identity over in a loop, compared with the limit, a
// bare round trip of one byte each way over a message-mode pipe to a second
// process.
//
// Both client processes are qxbench itself: started with QXBENCH_PIPE_CHILD
// set in their environment, the case plays the client named there and ends
// the process instead of measuring.

#include "Bench.h"

#include "QXCommon/Guid.h"
#include "QXCommon/PipeImpersonateClient.h"
#include "QXCommon/PipeImpersonateServer.h"

#include <atlsecurity.h>

#include <string>

namespace
{
const wchar_t* const ChildVariable = L"QXBENCH_PIPE_CHILD";

// "handover PIPE READY STOP": hands this process's identity over each time
// the server sets READY, until STOP is set. "echo PIPE": answers every byte.
int RunChild(const std::wstring& request)
{
    const size_t first = request.find(L' '), second = request.find(L' ', first + 1), third = request.find(L' ', second + 1);
    const std::wstring mode = request.substr(0, first), pipe = request.substr(first + 1, second - first - 1);
    if (mode == L"echo")
    {
        ATL::CHandle client(CreateFileW(request.substr(first + 1).c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                        OPEN_EXISTING, 0, nullptr));
        BYTE byte = 0;
        DWORD done = 0;
        while (ReadFile(client, &byte, 1, &done, nullptr) && WriteFile(client, &byte, 1, &done, nullptr))
        {
        }
        return 0;
    }
    ATL::CHandle ready(OpenEventW(SYNCHRONIZE, FALSE, request.substr(second + 1, third - second - 1).c_str()));
    ATL::CHandle stop(OpenEventW(SYNCHRONIZE, FALSE, request.substr(third + 1).c_str()));
    ATL::CAccessToken token;
    token.GetProcessToken(TOKEN_DUPLICATE | TOKEN_IMPERSONATE | TOKEN_QUERY);
    QXCommon::CPipeImpersonateClient client(pipe, token.GetHandle(), [&](const std::wstring&) {
        HANDLE events[] = {ready, stop};
        return WaitForMultipleObjects(2, events, FALSE, 30000) == WAIT_OBJECT_0 ? 1 : 0;
    });
    while (client.ConnectAndImpersonate(0, 0))
    {
        client.SendReadyMessage();
        client.RevertToSelf();
    }
    return 0;
}

// qxbench started again as a client; waited for (or ended) on destruction.
class Child
{
public:
    explicit Child(const std::wstring& request)
    {
        wchar_t self[MAX_PATH] = {};
        GetModuleFileNameW(nullptr, self, MAX_PATH);
        std::wstring commandLine = L"\"" + std::wstring(self) + L"\" pipe";
        STARTUPINFOW startup = {sizeof(startup)};
        startup.dwFlags = STARTF_USESTDHANDLES; // no handles: the child prints nothing
        PROCESS_INFORMATION info = {};
        SetEnvironmentVariableW(ChildVariable, request.c_str());
        if (CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &info))
        {
            CloseHandle(info.hThread);
            m_process.Attach(info.hProcess);
        }
        SetEnvironmentVariableW(ChildVariable, nullptr);
    }
    ~Child()
    {
        if (m_process != nullptr && WaitForSingleObject(m_process, 10000) != WAIT_OBJECT_0)
            TerminateProcess(m_process, 1);
    }
    bool Started() const { return m_process != nullptr; }

private:
    ATL::CHandle m_process;
};

void Run(qxbench::Runner& runner)
{
    wchar_t request[1024] = {};
    const DWORD length = GetEnvironmentVariableW(ChildVariable, request, 1024);
    if (length > 0 && length < 1024)
        ExitProcess(static_cast<UINT>(RunChild(request)));

    const std::wstring unique = L"qxbench-" + QXCommon::CGuid::CreateNewAsString();
    const std::wstring pipe = L"\\\\.\\pipe\\" + unique, echoPipeName = pipe + L"-echo";
    ATL::CHandle ready(CreateEventW(nullptr, FALSE, FALSE, (L"Local\\" + unique + L"-ready").c_str()));
    ATL::CHandle stop(CreateEventW(nullptr, TRUE, FALSE, (L"Local\\" + unique + L"-stop").c_str()));
    ATL::CHandle echoPipe(CreateNamedPipeW(echoPipeName.c_str(), PIPE_ACCESS_DUPLEX,
                                           PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT, 1, 32, 32, 0, nullptr));
    {
        Child handover(L"handover " + pipe + L" Local\\" + unique + L"-ready Local\\" + unique + L"-stop");
        Child echo(L"echo " + echoPipeName);
        if (!handover.Started() || !echo.Started() ||
            (!ConnectNamedPipe(echoPipe, nullptr) && GetLastError() != ERROR_PIPE_CONNECTED))
        {
            SetEvent(stop);
            return;
        }
        runner.Compare(
            L"CPipeImpersonateServer::GetToken from a client process", L"one byte each way over a message pipe",
            [&] {
                ATL::CHandle token;
                QXCommon::CPipeImpersonateServer::GetToken(token, pipe, ready);
                qxbench::KeepAlive(token.m_h);
            },
            [&] {
                BYTE byte = 1;
                DWORD done = 0;
                WriteFile(echoPipe, &byte, 1, &done, nullptr);
                ReadFile(echoPipe, &byte, 1, &done, nullptr);
                qxbench::KeepAlive(byte);
            },
            1, L"a whole hand-over, pipe made and closed each time; the client is released by the ready event");
        SetEvent(stop);
        DisconnectNamedPipe(echoPipe);
    }
}
} // namespace

QXBENCH_CASE(L"pipe", &Run);
