#include "QXCommon/HashStrategyShaCacheHelper.h"

#include "HashProvider.h"
#include "QXLog.h"

namespace QXCommon
{
DWORD HashStrategyShaCacheHelper::_TLSIndex = TLS_OUT_OF_INDEXES;

HashStrategyShaCacheHelper::~HashStrategyShaCacheHelper() = default;

BOOL HashStrategyShaCacheHelper::InitTLS()
{
    const char* const function = "QXCommon::HashStrategyShaCacheHelper::InitTLS";
    volatile LONG* const index = reinterpret_cast<volatile LONG*>(&_TLSIndex);
    QXLOG_INFO(function, L"Curent TLS index = [{}].\n", static_cast<DWORD>(*index));
    if (static_cast<DWORD>(*index) != TLS_OUT_OF_INDEXES)
    {
        QXLOG_INFO(function, L"Already created...\n");
        return TRUE;
    }
    const DWORD allocated = ::TlsAlloc();
    if (allocated == TLS_OUT_OF_INDEXES)
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Error - Unable to get Tls index. Error = [{}].\n", error);
        ::SetLastError(error);
        return FALSE;
    }
    // Two threads racing here keep one index; the loser gives its own back.
    if (::InterlockedCompareExchange(index, static_cast<LONG>(allocated), static_cast<LONG>(TLS_OUT_OF_INDEXES)) !=
        static_cast<LONG>(TLS_OUT_OF_INDEXES))
    {
        ::TlsFree(allocated);
        QXLOG_INFO(function, L"Already created...\n");
        return TRUE;
    }
    QXLOG_INFO(function, L"Alloc TLS index = [{}].\n", allocated);
    return TRUE;
}

BOOL HashStrategyShaCacheHelper::UninitTLS()
{
    const char* const function = "QXCommon::HashStrategyShaCacheHelper::UninitTLS";
    const DWORD index = _TLSIndex;
    if (index == TLS_OUT_OF_INDEXES)
    {
        QXLOG_ERROR(function, L"TLS Index is not valid.\n");
        return FALSE;
    }
    if (!::TlsFree(index))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Error - unable to free TLS Index [{}]. Error = [{}],\n", index, error);
        ::SetLastError(error);
        return FALSE;
    }
    _TLSIndex = TLS_OUT_OF_INDEXES;
    return TRUE;
}

BOOL HashStrategyShaCacheHelper::CreateSharedContext()
{
    const char* const function = "QXCommon::HashStrategyShaCacheHelper::CreateSharedContext";
    const DWORD index = _TLSIndex;
    if (index == TLS_OUT_OF_INDEXES)
    {
        QXLOG_ERROR(function, L"InitTLS not called or failed.\n");
        return FALSE;
    }
    HCRYPTPROV provider = 0;
    if (!Detail::AcquireHashProvider(provider))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Error - CryptAcquireContext Failed. Error = [{}].\n", error);
        ::SetLastError(error);
        return FALSE;
    }
    if (!::TlsSetValue(index, reinterpret_cast<void*>(provider)))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Error - Tls Set Value failed into index [{}]. Error = [{}].\n", index, error);
        if (!::CryptReleaseContext(provider, 0))
            QXLOG_ERROR(function, L"Error - CryptReleaseContext failed. Error = [{}].\n", ::GetLastError());
        ::SetLastError(error);
        return FALSE;
    }
    QXLOG_INFO(function, L"CryptAcquireContext handle = [{:X}] and recorded in TLS index [{}] OK.\n", provider, index);
    return TRUE;
}

BOOL HashStrategyShaCacheHelper::DestroySharedContext()
{
    const char* const function = "QXCommon::HashStrategyShaCacheHelper::DestroySharedContext";
    const DWORD index = _TLSIndex;
    if (index == TLS_OUT_OF_INDEXES)
    {
        QXLOG_ERROR(function, L"InitTLS not called or failed.\n");
        return FALSE;
    }
    const HCRYPTPROV provider = reinterpret_cast<HCRYPTPROV>(::TlsGetValue(index));
    const DWORD getError = ::GetLastError();
    if (getError != ERROR_SUCCESS)
    {
        QXLOG_ERROR(function, L"Error - TLS Get Value at index [{}] failed. Error = [{}].\n", index, getError);
        return FALSE;
    }
    if (provider == 0)
    {
        QXLOG_ERROR(function, L"Error - TLS Get Value at index [{}] returned NULL.\n", index);
        return FALSE;
    }
    if (!::CryptReleaseContext(provider, 0))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function, L"Error - CryptReleaseContext on object [{:X}] failed. Error = [{}].\n", provider, error);
        if (!::TlsSetValue(index, nullptr))
            QXLOG_ERROR(function,
                        L"Error - TLS Set Value to NULL after CryptReleaseContext failure has failed. Error = [{}].\n",
                        ::GetLastError());
        ::SetLastError(error);
        return FALSE;
    }
    if (!::TlsSetValue(index, nullptr))
    {
        const DWORD error = ::GetLastError();
        QXLOG_ERROR(function,
                    L"Error - TLS Set Value to NULL after CryptReleaseContext succeeded has failed. Error = [{}].\n",
                    error);
        ::SetLastError(error);
        return FALSE;
    }
    QXLOG_INFO(function, L"Successfully Released Context and Set TLS value to NULL.\n");
    return TRUE;
}

HCRYPTPROV HashStrategyShaCacheHelper::GetSharedContext()
{
    const char* const function = "QXCommon::HashStrategyShaCacheHelper::GetSharedContext";
    const DWORD index = _TLSIndex;
    if (index == TLS_OUT_OF_INDEXES)
    {
        QXLOG_ERROR(function, L"InitTLS not called or failed returning NULL.\n");
        return 0;
    }
    const HCRYPTPROV provider = reinterpret_cast<HCRYPTPROV>(::TlsGetValue(index));
    QXLOG_INFO(function, L"Successfully Returning value [{:X}] from index [{}].\n", provider, index);
    return provider;
}
} // namespace QXCommon
