// The client process of the pipe hand-over tests.
//
//   qxpipe_client handover PIPE COUNT [restricted] [event NAME]
//     Hands this process's identity (or, with "restricted", its token with
//     Administrators deny-only) over COUNT times through
//     CPipeImpersonateClient. The pipe is looked for with WaitNamedPipeW, or
//     by waiting for the named event the server sets when it listens.
//     Prints "identity <token description>" and then
//     "result ok=N failed=N left=N handles=A,B": hand-overs that succeeded,
//     that failed, after which the thread still impersonated, and this
//     process's handle count after the first and after the last one.
//   qxpipe_client raw PIPE HEX
//     Opens the pipe as the library's client does, writes the bytes HEX as
//     one message ("-": an empty one) and reads one byte back. Prints
//     "open <error>", "sent", "reply <byte>" or "reply error <error>".

#include "QXCommon/PipeImpersonateClient.h"
#include "TokenTestSupport.h"

#include <cstdio>
#include <string>

namespace
{
int HandOver(const std::wstring& pipe, int count, bool restricted, const wchar_t* eventName)
{
    ATL::CHandle token;
    if (restricted)
        token = QXTest::AdminDenyOnlyToken();
    else
    {
        HANDLE own = nullptr;
        OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, &own);
        token.Attach(own);
    }
    ATL::CHandle ready(eventName != nullptr ? OpenEventW(SYNCHRONIZE, FALSE, eventName) : nullptr);
    std::printf("identity %ls\n", QXTest::DescribeToken(token).c_str());
    QXCommon::CPipeImpersonateClient client(pipe, token, [&](const std::wstring& name) {
        if (ready != nullptr)
            return WaitForSingleObject(ready, 10000) == WAIT_OBJECT_0 ? 1 : 0;
        return WaitNamedPipeW(name.c_str(), 1) ? 1 : 0;
    });
    int ok = 0, failed = 0, left = 0;
    size_t firstHandles = 0;
    for (int k = 0; k < count; ++k)
    {
        const bool done = client.ConnectAndImpersonate(10000, 1) && client.SendReadyMessage();
        client.RevertToSelf();
        ++(done ? ok : failed);
        left += QXTest::DescribeImpersonation() != L"nothing";
        if (k == 0)
            firstHandles = QXTest::OpenHandleCount();
    }
    std::printf("result ok=%d failed=%d left=%d handles=%zu,%zu\n", ok, failed, left, firstHandles,
                QXTest::OpenHandleCount());
    return failed == 0 && left == 0 ? 0 : 1;
}

int Raw(const std::wstring& pipe, const std::wstring& hex)
{
    std::string bytes;
    for (size_t k = 0; hex != L"-" && k + 2 <= hex.size(); k += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(k, 2), nullptr, 16));
    HANDLE opened = INVALID_HANDLE_VALUE;
    for (int k = 0; k < 1000; ++k, Sleep(10))
    {
        opened = CreateFileW(pipe.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                             SECURITY_SQOS_PRESENT | SECURITY_IMPERSONATION, nullptr);
        if (opened != INVALID_HANDLE_VALUE || GetLastError() != ERROR_FILE_NOT_FOUND)
            break;
    }
    std::printf("open %lu\n", opened == INVALID_HANDLE_VALUE ? GetLastError() : 0ul);
    if (opened == INVALID_HANDLE_VALUE)
        return 1;
    ATL::CHandle owner(opened);
    DWORD done = 0;
    if (!WriteFile(opened, bytes.data(), static_cast<DWORD>(bytes.size()), &done, nullptr))
        return 1;
    std::printf("sent\n");
    unsigned char reply = 0;
    if (ReadFile(opened, &reply, 1, &done, nullptr))
        std::printf("reply %u\n", reply);
    else
        std::printf("reply error %lu\n", GetLastError());
    return 0;
}
} // namespace

int wmain(int argc, wchar_t** argv)
{
    const std::wstring mode = argc > 1 ? argv[1] : L"";
    if (mode == L"handover" && argc >= 4)
    {
        bool restricted = false;
        const wchar_t* eventName = nullptr;
        for (int k = 4; k < argc; ++k)
        {
            if (std::wstring(argv[k]) == L"restricted")
                restricted = true;
            else if (std::wstring(argv[k]) == L"event" && k + 1 < argc)
                eventName = argv[++k];
        }
        return HandOver(argv[2], _wtoi(argv[3]), restricted, eventName);
    }
    if (mode == L"raw" && argc == 4)
        return Raw(argv[2], argv[3]);
    std::fprintf(stderr, "usage: qxpipe_client handover PIPE COUNT [restricted] [event NAME] | raw PIPE HEX\n");
    return 2;
}
