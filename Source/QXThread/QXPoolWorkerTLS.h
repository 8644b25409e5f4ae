#pragma once
// QXThread: hook of a pool worker thread. The pool calls Initialize on each
// worker thread before its first work item and Terminate when the thread
// leaves, each with the pool's context value; a derived hook sets up and
// tears down its per-thread state there. The base does nothing, so a class
// may derive from it for its place in the pool and keep both as they are.

class CQXPoolWorkerTLS
{
public:
    virtual ~CQXPoolWorkerTLS() = default;
    virtual bool Initialize(void* /*context*/) { return true; }
    virtual void Terminate(void* /*context*/) {}
};
