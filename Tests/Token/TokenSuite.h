#pragma once
// Shared by the token suite: a thread that sits impersonating a token, the
// test process's own token, and log expectations.

#include "QXTestSupport.h"
#include "TokenTestSupport.h"

#include <atlsecurity.h>

#include <gtest/gtest.h>

// Expects the exact log line, at the level, from the function.
#define EXPECT_LOG(capture, level, function, text) \
    EXPECT_TRUE((capture).Has(level, function, text)) << (capture).Dump()

namespace TokenTest
{
// A thread that waits until the object ends, impersonating an impersonation
// copy of the token (or nothing, for a null token), set from outside.
class ImpersonatingThread
{
public:
    explicit ImpersonatingThread(HANDLE token)
    {
        m_stop.Attach(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        m_thread.Attach(CreateThread(nullptr, 0, &Wait, m_stop.m_h, 0, &m_id));
        if (token != nullptr)
        {
            ATL::CHandle copy = QXTest::ImpersonationCopy(token);
            HANDLE thread = m_thread;
            m_impersonating = SetThreadToken(&thread, copy) != FALSE;
        }
    }
    ~ImpersonatingThread()
    {
        SetEvent(m_stop);
        WaitForSingleObject(m_thread, 10000);
    }
    DWORD Id() const { return m_id; }
    HANDLE Handle() const { return m_thread; }
    bool Impersonating() const { return m_impersonating; }

private:
    static DWORD WINAPI Wait(void* stop)
    {
        WaitForSingleObject(stop, INFINITE);
        return 0;
    }
    ATL::CHandle m_stop, m_thread;
    DWORD m_id = 0;
    bool m_impersonating = false;
};

// This process's primary token with every right.
inline ATL::CHandle ProcessToken()
{
    HANDLE token = nullptr;
    OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, &token);
    return ATL::CHandle(token);
}

inline TOKEN_TYPE TypeOf(HANDLE token)
{
    TOKEN_TYPE type = TokenPrimary;
    DWORD size = 0;
    return GetTokenInformation(token, TokenType, &type, sizeof type, &size) ? type : static_cast<TOKEN_TYPE>(0);
}
} // namespace TokenTest
