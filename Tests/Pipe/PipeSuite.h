#pragma once
// Shared by the pipe suite: unique pipe names, the client process run on a
// thread while the server works on the test's thread, and token details.

#include "QXCommon/Guid.h"
#include "QXCommon/PipeImpersonateClient.h"
#include "QXCommon/PipeImpersonateServer.h"
#include "QXTestSupport.h"
#include "TokenTestSupport.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#define EXPECT_LOG(capture, text) EXPECT_TRUE((capture).Has(text)) << (capture).Dump()

namespace PipeTest
{
inline std::wstring UniquePipeName()
{
    return L"\\\\.\\pipe\\qxtest-" + QXCommon::CGuid::CreateNewAsString();
}

// qxpipe_client.exe with the arguments, run to its end on a thread.
class ClientRun
{
public:
    explicit ClientRun(const std::wstring& arguments)
        : m_thread([this, line = L"\"" + QXTest::HelperPath(L"qxpipe_client.exe") + L"\" " + arguments] {
              m_result = QXTest::RunProcess(line, 30000);
          })
    {
    }
    ~ClientRun() { Wait(); }
    const QXTest::ProcessResult& Wait()
    {
        if (m_thread.joinable())
            m_thread.join();
        return m_result;
    }

private:
    QXTest::ProcessResult m_result;
    std::thread m_thread;
};

template <typename T>
T Info(HANDLE token, TOKEN_INFORMATION_CLASS infoClass)
{
    T value{};
    DWORD size = 0;
    GetTokenInformation(token, infoClass, &value, sizeof value, &size);
    return value;
}

inline ATL::CHandle ProcessToken()
{
    HANDLE token = nullptr;
    OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, &token);
    return ATL::CHandle(token);
}

inline std::wstring UserOf(HANDLE token)
{
    BYTE buffer[256] = {};
    DWORD size = 0;
    if (!GetTokenInformation(token, TokenUser, buffer, sizeof buffer, &size))
        return L"";
    return QXTest::SidText(reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid);
}

inline bool Impersonating()
{
    return QXTest::DescribeImpersonation() != L"nothing";
}

// The rest of the first line that holds the marker ("" when none does).
inline std::string LineAfter(const std::string& output, const std::string& marker)
{
    const size_t at = output.find(marker);
    if (at == std::string::npos)
        return "";
    const size_t begin = at + marker.size();
    return output.substr(begin, output.find_first_of("\r\n", begin) - begin);
}
} // namespace PipeTest
