#pragma once
// QXThread: hook of a pool worker thread. The pool calls Initialize on each
// worker thread before its first work item and Terminate when the thread
// leaves, each with the pool's context value; an implementation sets up and
// tears down its per-thread state there.

class CQXPoolWorkerTLS
{
public:
    virtual ~CQXPoolWorkerTLS() = default;
    virtual bool Initialize(void* context) = 0;
    virtual void Terminate(void* context) = 0;
};
