#pragma once
// HashStrategyShaCacheHelper: one CryptoAPI provider per thread, kept in a
// thread-local slot, which every CHashStrategySha made on that thread
// borrows. Call InitTLS once per process before worker threads hash,
// CreateSharedContext at the start and DestroySharedContext at the end of
// each worker thread (exactly once each: a second CreateSharedContext
// replaces the first provider without releasing it), and UninitTLS at
// shutdown. It derives from the pool-worker hook and keeps the hook's
// Initialize and Terminate as they are: a pool that wants the per-thread
// provider calls CreateSharedContext and DestroySharedContext from its own
// worker start and end.

#include "QXCommonAPI.h"

#include <QXPoolWorkerTLS.h>
#include <wincrypt.h>

namespace QXCommon
{
class QXCOMMON_API HashStrategyShaCacheHelper : public CQXPoolWorkerTLS
{
public:
    HashStrategyShaCacheHelper() = default;
    HashStrategyShaCacheHelper(const HashStrategyShaCacheHelper&) = default;
    HashStrategyShaCacheHelper& operator=(const HashStrategyShaCacheHelper&) = default;
    ~HashStrategyShaCacheHelper() override;

    // Allocates the slot unless it is allocated. 0 when TlsAlloc fails.
    static BOOL InitTLS();
    // Frees the slot; providers still held by threads are not released.
    static BOOL UninitTLS();
    // Acquires a provider for the calling thread and keeps it in the slot.
    static BOOL CreateSharedContext();
    // Releases the calling thread's provider and clears the slot.
    static BOOL DestroySharedContext();
    // The calling thread's provider, or 0.
    static HCRYPTPROV GetSharedContext();

private:
    static DWORD _TLSIndex; // TLS_OUT_OF_INDEXES until InitTLS
};
} // namespace QXCommon
