#pragma once
// Shared by the pipe suite: unique pipe names, the client process run while
// the server works on the test's thread, and what a thread impersonates.

#include "QXCommon/Guid.h"
#include "QXCommon/PipeImpersonateClient.h"
#include "QXCommon/PipeImpersonateServer.h"
#include "QXTestSupport.h"
#include "TokenTestSupport.h"

#include <gtest/gtest.h>

#include <future>
#include <string>

#define EXPECT_LOG(capture, text) EXPECT_TRUE((capture).Has(text)) << (capture).Dump()

namespace PipeTest
{
inline std::wstring UniquePipeName()
{
    return L"\\\\.\\pipe\\qxtest-" + QXCommon::CGuid::CreateNewAsString();
}

// qxpipe_client.exe with the arguments, run to its end on another thread.
inline std::future<QXTest::ProcessResult> StartClient(const std::wstring& arguments)
{
    return std::async(std::launch::async, [line = L"\"" + QXTest::HelperPath(L"qxpipe_client.exe") + L"\" " + arguments] {
        return QXTest::RunProcess(line, 30000);
    });
}

inline bool Impersonating()
{
    return QXTest::DescribeImpersonation() != L"nothing";
}

inline ATL::CHandle ProcessToken()
{
    HANDLE token = nullptr;
    OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, &token);
    return ATL::CHandle(token);
}

// The rest of the first line that holds the marker ("" when none does).
inline std::string LineAfter(const std::string& output, const std::string& marker)
{
    const size_t at = output.find(marker);
    if (at == std::string::npos)
        return "";
    return output.substr(at + marker.size(), output.find_first_of("\r\n", at) - at - marker.size());
}
} // namespace PipeTest
