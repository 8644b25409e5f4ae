// The client process of the pipe hand-over tests.
//
//   qxpipe_client PIPE COUNT EVENT
//     Hands this process's identity, with Administrators deny-only, over
//     COUNT times through CPipeImpersonateClient, finding the pipe by waiting
//     for the named event the server sets when it listens. Prints "result
//     ok=N failed=N left=N handles+N": hand-overs that succeeded, that failed,
//     after which the thread still impersonated, and how much this process's
//     handle count grew from the first to the last one.

#include "QXCommon/PipeImpersonateClient.h"
#include "TokenTestSupport.h"

#include <cstdio>
#include <string>

int wmain(int argc, wchar_t** argv)
{
    if (argc != 4)
    {
        std::fprintf(stderr, "usage: qxpipe_client PIPE COUNT EVENT\n");
        return 2;
    }
    ATL::CHandle token = QXTest::AdminDenyOnlyToken();
    ATL::CHandle ready(OpenEventW(SYNCHRONIZE, FALSE, argv[3]));
    QXCommon::CPipeImpersonateClient client(argv[1], token, [&](const std::wstring&) {
        return WaitForSingleObject(ready, 10000) == WAIT_OBJECT_0 ? 1 : 0;
    });
    int ok = 0, failed = 0, left = 0;
    size_t firstHandles = 0;
    for (int k = 0; k < _wtoi(argv[2]); ++k)
    {
        const bool done = client.ConnectAndImpersonate(10000, 1) && client.SendReadyMessage();
        client.RevertToSelf();
        ++(done ? ok : failed);
        left += QXTest::DescribeImpersonation() != L"nothing";
        if (k == 0)
            firstHandles = QXTest::OpenHandleCount();
    }
    std::printf("result ok=%d failed=%d left=%d handles%+lld\n", ok, failed, left,
                static_cast<long long>(QXTest::OpenHandleCount()) - static_cast<long long>(firstHandles));
    return failed == 0 && left == 0 ? 0 : 1;
}
