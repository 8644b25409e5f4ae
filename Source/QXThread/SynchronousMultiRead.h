#pragma once
// QXThread: reader/writer lock of the product. Many readers or one writer;
// the scope guards take and release it. The lock is not recursive: a thread
// that holds it must not take it again.

#include <windows.h>

class CSynchronousMultiRead
{
public:
    CSynchronousMultiRead() { InitializeSRWLock(&m_lock); }
    ~CSynchronousMultiRead() = default;
    CSynchronousMultiRead(const CSynchronousMultiRead&) = delete;
    CSynchronousMultiRead& operator=(const CSynchronousMultiRead&) = delete;

    void LockRead() { AcquireSRWLockShared(&m_lock); }
    void UnlockRead() { ReleaseSRWLockShared(&m_lock); }
    void LockWrite() { AcquireSRWLockExclusive(&m_lock); }
    void UnlockWrite() { ReleaseSRWLockExclusive(&m_lock); }

    // Holds the lock for reading for its lifetime.
    class CReadLock
    {
    public:
        explicit CReadLock(CSynchronousMultiRead& lock) : m_lock(lock) { m_lock.LockRead(); }
        ~CReadLock() { m_lock.UnlockRead(); }
        CReadLock(const CReadLock&) = delete;
        CReadLock& operator=(const CReadLock&) = delete;

    private:
        CSynchronousMultiRead& m_lock;
    };

    // Holds the lock for writing for its lifetime.
    class CWriteLock
    {
    public:
        explicit CWriteLock(CSynchronousMultiRead& lock) : m_lock(lock) { m_lock.LockWrite(); }
        ~CWriteLock() { m_lock.UnlockWrite(); }
        CWriteLock(const CWriteLock&) = delete;
        CWriteLock& operator=(const CWriteLock&) = delete;

    private:
        CSynchronousMultiRead& m_lock;
    };

private:
    SRWLOCK m_lock;
};
