#pragma once
// Shared by the ownership suite: named pipes whose descriptors the test sets
// (pipes keep real descriptors that can be read, checked and changed by
// path), the owner read back by path, the platform's own WRITE_OWNER answer,
// and a fixture whose tokens differ only in the Administrators group and
// which checks that every test leaves the restore privilege and the thread's
// impersonation as it found them.

#include "QXTestSupport.h"
#include "TokenTestSupport.h"

#include "QXCommon/ChangeFileOwner.h"

#include <aclapi.h>
#include <sddl.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace OwnerTest
{
// Owned by LocalSystem; Administrators may take it, everyone may read it.
inline const wchar_t* const AdminsMayTake = L"O:SYG:SYD:(A;;WO;;;BA)(A;;FR;;;WD)";

// A pipe with the descriptor. Every open by path (a descriptor read, an owner
// change) takes one listening instance, so it keeps several.
class SecuredPipe
{
public:
    explicit SecuredPipe(const std::wstring& sddl, int instances = 8)
    {
        static LONG counter = 0;
        m_path = L"\\\\.\\pipe\\qxowner-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                 std::to_wstring(InterlockedIncrement(&counter));
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl.c_str(), SDDL_REVISION_1, &descriptor, nullptr))
            return;
        SECURITY_ATTRIBUTES attributes{sizeof attributes, descriptor, FALSE};
        for (int i = 0; i < instances; ++i)
            m_instances.push_back(CreateNamedPipeW(m_path.c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE,
                                                   PIPE_UNLIMITED_INSTANCES, 0, 0, 0, &attributes));
        LocalFree(descriptor);
    }
    ~SecuredPipe()
    {
        for (HANDLE instance : m_instances)
            CloseHandle(instance);
    }
    SecuredPipe(const SecuredPipe&) = delete;
    SecuredPipe& operator=(const SecuredPipe&) = delete;
    const std::wstring& Path() const { return m_path; }

private:
    std::wstring m_path;
    std::vector<HANDLE> m_instances;
};

// The owner's SID as the system reads it back; "<error N>".
inline std::wstring OwnerOf(const std::wstring& path)
{
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    const DWORD error = GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, &owner,
                                              nullptr, nullptr, nullptr, &descriptor);
    if (error != ERROR_SUCCESS)
        return L"<error " + std::to_wstring(error) + L">";
    std::wstring text = QXTest::SidText(owner);
    LocalFree(descriptor);
    return text;
}

// Whether the platform's AccessCheck grants the token WRITE_OWNER on the file
// as it reads now.
inline bool PlatformGrantsWriteOwner(const std::wstring& path, HANDLE token)
{
    std::vector<BYTE> descriptor(65536);
    DWORD needed = 0;
    ATL::CHandle check = QXTest::ImpersonationCopy(token);
    GENERIC_MAPPING mapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};
    PRIVILEGE_SET privileges[4] = {};
    DWORD length = sizeof privileges, granted = 0;
    BOOL status = FALSE;
    return GetFileSecurityW(path.c_str(), 7, descriptor.data(), 65536, &needed) &&
           AccessCheck(descriptor.data(), check, WRITE_OWNER, &mapping, privileges, &length, &granted, &status) &&
           status;
}

class Ownership : public testing::Test
{
protected:
    void SetUp() override
    {
        HANDLE own = nullptr;
        ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, &own));
        full.Attach(own);
        denied.Attach(QXTest::AdminDenyOnlyToken().Detach());
        ATL::CSid sid;
        ASSERT_TRUE(full.GetUser(&sid) && denied.GetHandle() != nullptr);
        user = sid.Sid();
        restoreBefore = Restore();
        ASSERT_NE(restoreBefore, 0xFFFFFFFF) << "this process holds no restore privilege";
    }
    void TearDown() override
    {
        EXPECT_EQ(Restore(), restoreBefore) << "the restore privilege is not back in its previous state";
        EXPECT_EQ(QXTest::DescribeImpersonation(), L"nothing");
    }
    // The restore privilege's attributes in the process token.
    static DWORD Restore()
    {
        HANDLE token = nullptr;
        if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token))
            return 0xFFFFFFFF;
        ATL::CHandle owner(token);
        return QXTest::PrivilegeAttributes(token, SE_RESTORE_NAME);
    }

    ATL::CAccessToken full;   // this process's token
    ATL::CAccessToken denied; // the same with Administrators deny-only
    std::wstring user;        // the user both carry
    DWORD restoreBefore = 0;
};
} // namespace OwnerTest
