#pragma once
// QXDbgLog: the debug log of the product. Every component hands its lines to
// the one manager of the process, which writes them to a log file and/or the
// debugger stream (OutputDebugStringW). Both outputs are off unless switched on
// by the environment (QXDBGLOG_FILE=<path>, QXDBGLOG_DEBUGGER=1) or by a
// caller. A caller may attach a sink that receives every line written while an
// output is on, with its level, file, line and function.

#include <windows.h>

#include "SynchronousMultiRead.h"

#ifdef QXDBGLOG_BUILD
#define QXDBGLOG_API __declspec(dllexport)
#else
#define QXDBGLOG_API __declspec(dllimport)
#endif

struct QXDbgLogRecord
{
    const char* file;        // source file as the caller reported it
    int line;
    const char* function;    // qualified function name
    int category;            // always 1 from QXCommon
    int level;               // 1 error, 4 information
    const wchar_t* message;  // the formatted text, normally ending in "\n"
};

// Called with every line while an output is on. Must not log itself.
typedef void (*QXDbgLogSink)(void* context, const QXDbgLogRecord& record);

class QXDBGLOG_API CQXDbgManager
{
public:
    CQXDbgManager();
    ~CQXDbgManager();
    CQXDbgManager(const CQXDbgManager&) = delete;
    CQXDbgManager& operator=(const CQXDbgManager&) = delete;

    // True when either output is on. Two integer tests: callers ask this
    // before they format anything.
    bool GetLogEnabled() const
    {
        return m_fileOutput != 0 || m_debuggerOutput != 0;
    }

    void Log(const char* file, int line, const char* function, int category, int level,
             const wchar_t* message, void* reserved);

    // Opens (appending) or, with null, closes the log file; the file switch
    // follows. Returns false when the file cannot be opened.
    bool SetLogFile(const wchar_t* path);
    void SetDebuggerOutput(bool on);
    bool GetDebuggerOutput() const { return m_debuggerOutput != 0; }
    bool GetFileOutput() const { return m_fileOutput != 0; }

    // Attaches a sink (null detaches). Returns the sink it replaces.
    QXDbgLogSink SetSink(QXDbgLogSink sink, void* context, void** previousContext = nullptr);

private:
    void WriteLine(const QXDbgLogRecord& record);

    volatile LONG m_fileOutput;
    volatile LONG m_debuggerOutput;
    CSynchronousMultiRead m_lock; // guards the file handle and the sink
    HANDLE m_file;
    QXDbgLogSink m_sink;
    void* m_sinkContext;
};

// The manager of this process.
QXDBGLOG_API CQXDbgManager* GetDbgManager();
