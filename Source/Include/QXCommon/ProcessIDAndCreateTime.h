#pragma once
// CProcessIDAndCreateTime: names a process uniquely over time. A process id is
// reused as soon as its process has gone, so the id is paired with the
// process's creation time in one text key, "id-high-low" ("%u-%u-%u": the id,
// then the high and the low 32-bit word of the creation FILETIME, in
// decimal), for example 4242-31140922-1579100672. Keys are compared as plain
// text; two processes that ever carried the same id have different keys.
//
// Results of type DWORD are Win32 error codes (0 success). The object lends
// out a process handle through the protected virtual GetProcessHandle /
// ReleaseProcessHandle pair, which a derived class can override to use a
// handle it already holds. Not synchronised: one thread at a time.

#include "QXCommonAPI.h"

#include <string>

namespace QXCommon
{
class QXCOMMON_API CProcessIDAndCreateTime
{
public:
    virtual ~CProcessIDAndCreateTime();

    CProcessIDAndCreateTime(); // empty: not valid, id 0, no creation time, empty key
    // Copy the id, the creation time, the key and the validity. A process
    // handle held by the other object is not shared: the copy opens its own
    // when it needs one.
    CProcessIDAndCreateTime(CProcessIDAndCreateTime& other);
    CProcessIDAndCreateTime& operator=(CProcessIDAndCreateTime& other);

    // Reads the creation time of the process and makes its key. The process
    // is opened with PROCESS_QUERY_INFORMATION | PROCESS_DUP_HANDLE; its error
    // is returned when it cannot be (87 for an id that names no process). A
    // failure of GetProcessTimes returns its error, never 0. On failure the
    // object is left empty: not valid, id 0, empty key.
    DWORD Initialise(DWORD processId);
    DWORD Initialise(); // the calling process
    // Back to empty; closes a held handle. Returns 0.
    DWORD Clear();

    BOOL IsValid() const;
    // The stored values, valid or not (0 and an empty key before Initialise).
    DWORD GetProcessID() const;
    std::wstring GetProcessIDAndCreateTime() const;
    // The values of a valid object; ERROR_INVALID_DATA (13), logged, with the
    // output left untouched otherwise.
    DWORD GetProcessID(DWORD& processId) const;
    DWORD GetProcessIDAndCreateTime(std::wstring& key) const;
    DWORD GetProcessStartTime(FILETIME& createTime) const;

protected:
    // Hands out the held process handle, opening and holding one first when
    // none is held. The handle stays the object's.
    virtual DWORD GetProcessHandle(HANDLE& process);
    // Closes the held handle when process is it or null (process is then
    // set to null). Another handle is refused with ERROR_INVALID_HANDLE (6)
    // and the held one kept. Without a held handle: 0, nothing done.
    virtual DWORD ReleaseProcessHandle(HANDLE& process);
    // Forgets the old identity (as Clear) and stores the new id.
    virtual void SetProcessID(DWORD processId);

private:
    DWORD InitProcessHandle(HANDLE& process);
    void Reset();

    BOOL valid;
    DWORD processId;
    FILETIME createTime;
    std::wstring idAndCreateTime;
    HANDLE processHandle;
};
} // namespace QXCommon
