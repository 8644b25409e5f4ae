// The impersonation guard on real threads: after it ends, the thread
// impersonates exactly what it impersonated before, nested, in sequence and
// while an exception unwinds, unless its owner said nothing happened.

#include "TokenSuite.h"

#include "QXCommon/ImpersonationSaver.h"

#include <stdexcept>
#include <vector>

using namespace TokenTest;
using QXTest::DescribeImpersonation;

namespace
{
const char* const Saver = "QXCommon::CImpersonationSaver::~CImpersonationSaver";

// Two identities that differ in their groups' attributes.
struct Identities
{
    ATL::CHandle a = QXTest::AdminDenyOnlyToken();
    ATL::CHandle b = QXTest::RestrictedProcessToken({L"S-1-5-32-545"});
};

bool Impersonate(HANDLE token)
{
    return ImpersonateLoggedOnUser(token) != FALSE;
}

TEST(ImpersonationToken, CapturesWhatTheThreadImpersonates)
{
    QXTest::RevertAtExit revert;
    Identities ids;
    QXCommon::CQxAccessToken token;
    EXPECT_TRUE(token.GetCurrentTokenForImpersonation());
    EXPECT_EQ(token.GetHandle(), nullptr);

    ASSERT_TRUE(Impersonate(ids.a));
    EXPECT_TRUE(token.GetCurrentTokenForImpersonation());
    ASSERT_NE(token.GetHandle(), nullptr);
    EXPECT_EQ(TypeOf(token.GetHandle()), TokenImpersonation);
    EXPECT_EQ(QXTest::DescribeToken(token.GetHandle()), QXTest::DescribeToken(ids.a));
    RevertToSelf();
    // What it captured can be put back on a thread.
    EXPECT_TRUE(token.ImpersonateLoggedOnUser());
    EXPECT_EQ(DescribeImpersonation(), QXTest::DescribeToken(ids.a));
}

// An anonymous-level token cannot be opened, as the thread or as the
// process: nothing is captured, and a guard made then ends with the thread
// impersonating nothing.
TEST(ImpersonationToken, AnonymousImpersonationCannotBeCaptured)
{
    QXTest::RevertAtExit revert;
    HANDLE anonymous = nullptr;
    ATL::CHandle own = ProcessToken();
    ASSERT_TRUE(DuplicateTokenEx(own, TOKEN_ALL_ACCESS, nullptr, SecurityAnonymous, TokenImpersonation, &anonymous));
    ATL::CHandle owner(anonymous);
    ASSERT_TRUE(SetThreadToken(nullptr, anonymous));
    QXTest::LogCapture log;
    QXCommon::CQxAccessToken token;
    EXPECT_FALSE(token.GetCurrentTokenForImpersonation());
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_CANT_OPEN_ANONYMOUS));
    EXPECT_EQ(token.GetHandle(), nullptr);
    const char* function = "QXCommon::CQxAccessToken::GetCurrentTokenForImpersonation";
    EXPECT_LOG(log, 1, function, L"Error Failed to GetThreadToken Error[1347]. Trying as self...\n");
    EXPECT_LOG(log, 1, function, L"Failed to GetThreadToken() as the current process. Error: 1347\n");
    {
        QXCommon::CImpersonationSaver saver;
    }
    EXPECT_EQ(DescribeImpersonation(), L"nothing");
}

// The owner's reports, and whether the guard then reverts.
TEST(ImpersonationSaver, RestoresThePreviousImpersonationUnlessToldNothingHappened)
{
    QXTest::RevertAtExit revert;
    Identities ids;
    struct
    {
        std::vector<int> reports;
        bool reverts;
    } cases[] = {
        {{}, true}, {{1}, true}, {{2}, false}, {{0}, false}, {{0, 2}, true}, {{1, 0}, true}, {{0, 0}, false},
    };
    for (HANDLE before : {static_cast<HANDLE>(nullptr), ids.a.m_h})
    {
        for (const auto& c : cases)
        {
            SCOPED_TRACE(testing::PrintToString(c.reports) + (before ? " while impersonating" : ""));
            RevertToSelf();
            if (before != nullptr)
            {
                ASSERT_TRUE(Impersonate(before));
            }
            const std::wstring previous = DescribeImpersonation();
            QXTest::LogCapture log;
            {
                QXCommon::CImpersonationSaver saver;
                ASSERT_TRUE(Impersonate(ids.b));
                for (int report : c.reports)
                    saver.SetImpersonationOccurred(report);
            }
            EXPECT_EQ(DescribeImpersonation(), c.reverts ? previous : QXTest::DescribeToken(ids.b));
            EXPECT_EQ(log.Has(4, Saver, L"Not reverting as no impersonation occurred.\n"), !c.reverts) << log.Dump();
            const bool restores = c.reverts && before != nullptr;
            EXPECT_EQ(log.Has(4, Saver, L"Reveting back to saved impersonation state\n"), restores) << log.Dump();
            EXPECT_EQ(log.HasFragment(L"Succeeded to revert with ImpersonateLoggedOnUser. Error["), restores);
        }
    }
}

// Nested guards and guards left by an exception: each level gets back what
// it had, also when the exception passes through both.
TEST(ImpersonationSaver, NestedAndUnwinding)
{
    QXTest::RevertAtExit revert;
    Identities ids;
    const std::wstring a = QXTest::DescribeToken(ids.a);
    for (int throwAt : {0, 1, 2})
    {
        SCOPED_TRACE(throwAt);
        RevertToSelf();
        try
        {
            QXCommon::CImpersonationSaver outer;
            ASSERT_TRUE(Impersonate(ids.a));
            try
            {
                QXCommon::CImpersonationSaver inner;
                ASSERT_TRUE(Impersonate(ids.b));
                inner.SetImpersonationOccurred(TRUE);
                if (throwAt == 1)
                    throw std::runtime_error("inner");
                if (throwAt == 2)
                    throw 2;
            }
            catch (const std::runtime_error&)
            {
                EXPECT_EQ(DescribeImpersonation(), a);
            }
            EXPECT_EQ(DescribeImpersonation(), a);
        }
        catch (int)
        {
            EXPECT_EQ(throwAt, 2);
        }
        EXPECT_EQ(DescribeImpersonation(), L"nothing");
    }
    // In sequence on one thread: each guard restores the same starting point.
    ASSERT_TRUE(Impersonate(ids.a));
    for (HANDLE inside : {ids.b.m_h, ids.a.m_h, ids.b.m_h})
    {
        QXCommon::CImpersonationSaver saver;
        ASSERT_TRUE(Impersonate(inside));
    }
    EXPECT_EQ(DescribeImpersonation(), a);
}
} // namespace
