#include "QXCommon/ProcessIDAndCreateTime.h"

#include "QXLog.h"

#include <cwchar>

namespace QXCommon
{
CProcessIDAndCreateTime::CProcessIDAndCreateTime()
    : valid(FALSE), processId(0), createTime{0, 0}, processHandle(nullptr)
{
}

CProcessIDAndCreateTime::~CProcessIDAndCreateTime()
{
    if (processHandle != nullptr)
        ::CloseHandle(processHandle);
}

CProcessIDAndCreateTime::CProcessIDAndCreateTime(CProcessIDAndCreateTime& other)
    : valid(other.valid),
      processId(other.processId),
      createTime(other.createTime),
      idAndCreateTime(other.idAndCreateTime),
      processHandle(nullptr)
{
}

CProcessIDAndCreateTime& CProcessIDAndCreateTime::operator=(CProcessIDAndCreateTime& other)
{
    if (this != &other)
    {
        // The key is copied first: if that throws, this object is unchanged.
        idAndCreateTime = other.idAndCreateTime;
        if (processHandle != nullptr)
        {
            ::CloseHandle(processHandle);
            processHandle = nullptr;
        }
        valid = other.valid;
        processId = other.processId;
        createTime = other.createTime;
    }
    return *this;
}

void CProcessIDAndCreateTime::Reset()
{
    valid = FALSE;
    processId = 0;
    idAndCreateTime.clear();
    createTime = FILETIME{0, 0};
    if (processHandle != nullptr)
    {
        ::CloseHandle(processHandle);
        processHandle = nullptr;
    }
}

DWORD CProcessIDAndCreateTime::Clear()
{
    Reset();
    return 0;
}

void CProcessIDAndCreateTime::SetProcessID(DWORD id)
{
    Reset();
    processId = id;
}

DWORD CProcessIDAndCreateTime::Initialise()
{
    return Initialise(::GetCurrentProcessId());
}

DWORD CProcessIDAndCreateTime::Initialise(DWORD id)
{
    const char* const function = "QXCommon::CProcessIDAndCreateTime::Initialise";
    Reset();
    SetProcessID(id);

    HANDLE process = nullptr;
    DWORD result = GetProcessHandle(process);
    if (result != 0)
    {
        Reset(); // the id given is not kept either
        return result;
    }

    FILETIME created = {};
    FILETIME exited = {};
    FILETIME kernel = {};
    FILETIME user = {};
    if (!::GetProcessTimes(process, &created, &exited, &kernel, &user))
    {
        result = ::GetLastError();
        QXLOG_ERROR(function, L"Get process times failed. error [{}]\n", result);
        // A failure is never reported as success.
        if (result == 0)
            result = ERROR_GEN_FAILURE;
    }
    else
    {
        // Three 32-bit numbers and two hyphens fit in 33 characters.
        wchar_t key[40];
        const int length = std::swprintf(key, sizeof(key) / sizeof(key[0]), L"%u-%u-%u", static_cast<unsigned>(processId),
                                         static_cast<unsigned>(created.dwHighDateTime),
                                         static_cast<unsigned>(created.dwLowDateTime));
        if (length <= 0)
        {
            result = ERROR_INVALID_DATA;
            QXLOG_ERROR(function, L"Error formatting process ID and create time string [{}]\n", length);
        }
        else
        {
            idAndCreateTime.assign(key, static_cast<size_t>(length));
            createTime = created;
            valid = TRUE;
            QXLOG_INFO(function, L"Process ID and create time string created: [{}]\n", idAndCreateTime);
        }
    }
    ReleaseProcessHandle(process);
    if (result != 0)
        Reset();
    return result;
}

BOOL CProcessIDAndCreateTime::IsValid() const
{
    return valid;
}

DWORD CProcessIDAndCreateTime::GetProcessID() const
{
    return processId;
}

std::wstring CProcessIDAndCreateTime::GetProcessIDAndCreateTime() const
{
    return idAndCreateTime;
}

DWORD CProcessIDAndCreateTime::GetProcessID(DWORD& id) const
{
    if (!valid)
    {
        QXLOG_ERROR("QXCommon::CProcessIDAndCreateTime::GetProcessID", L"Process ID is invalid\n");
        return ERROR_INVALID_DATA;
    }
    id = processId;
    return 0;
}

DWORD CProcessIDAndCreateTime::GetProcessIDAndCreateTime(std::wstring& key) const
{
    if (!valid)
    {
        QXLOG_ERROR("QXCommon::CProcessIDAndCreateTime::GetProcessIDAndCreateTime",
                    L"Process and create time string is invalid.\n");
        return ERROR_INVALID_DATA;
    }
    key = idAndCreateTime;
    return 0;
}

DWORD CProcessIDAndCreateTime::GetProcessStartTime(FILETIME& time) const
{
    if (!valid)
    {
        QXLOG_ERROR("QXCommon::CProcessIDAndCreateTime::GetProcessStartTime", L"Process start time is invalid.\n");
        return ERROR_INVALID_DATA;
    }
    time = createTime;
    return 0;
}

DWORD CProcessIDAndCreateTime::GetProcessHandle(HANDLE& process)
{
    if (processHandle != nullptr)
    {
        process = processHandle;
        return 0;
    }
    return InitProcessHandle(process);
}

DWORD CProcessIDAndCreateTime::InitProcessHandle(HANDLE& process)
{
    HANDLE opened = ::OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_DUP_HANDLE, FALSE, processId);
    if (opened == nullptr)
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR("QXCommon::CProcessIDAndCreateTime::InitProcessHandle", L"Open process failed. Error [{}]\n",
                    error);
        return error != 0 ? error : ERROR_GEN_FAILURE;
    }
    processHandle = opened;
    process = opened;
    return 0;
}

DWORD CProcessIDAndCreateTime::ReleaseProcessHandle(HANDLE& process)
{
    if (processHandle == nullptr)
        return 0;
    if (process != nullptr && process != processHandle)
    {
        QXLOG_ERROR("QXCommon::CProcessIDAndCreateTime::ReleaseProcessHandle", L"Process handle invalid\n");
        return ERROR_INVALID_HANDLE;
    }
    ::CloseHandle(processHandle);
    processHandle = nullptr;
    process = nullptr;
    return 0;
}
} // namespace QXCommon
