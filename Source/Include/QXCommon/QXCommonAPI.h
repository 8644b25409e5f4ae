#pragma once
// Export and import of QXCommon's interface.

#include <windows.h>

#if defined(QXCOMMON_BUILD)
#define QXCOMMON_API __declspec(dllexport)
#elif defined(QXCOMMON_STATIC)
#define QXCOMMON_API
#else
#define QXCOMMON_API __declspec(dllimport)
#endif

// Plain C exports.
#ifdef __cplusplus
#define QXCOMMON_C_API extern "C" QXCOMMON_API
#else
#define QXCOMMON_C_API QXCOMMON_API
#endif
