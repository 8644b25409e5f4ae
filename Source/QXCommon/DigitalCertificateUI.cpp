// CDigitalCertificateUI: certificate pickers (CryptDlg's CertSelectCertificateW)
// and the certificate viewer (CryptUI's CryptUIDlgViewCertificateW), both
// loaded at run time so that the library does not pull the dialog libraries
// into every process that loads it.

#include "QXCommon/DigitalCertificateUI.h"

#include "CryptoGuards.h"
#include "QXLog.h"

#include <cryptuiapi.h>

#include <new>
#include <string>

namespace QXCommon
{
namespace
{
const wchar_t* const SelectionTitle = L"Please select a certificate";
const wchar_t* const ViewerTitle = L"Certificate";

// CryptDlg's picker arguments (the SDK's CERT_SELECT_STRUCT_W).
using HookProc = BOOL(WINAPI*)(HWND, UINT, WPARAM, LPARAM);
using FilterProc = BOOL(WINAPI*)(PCCERT_CONTEXT, DWORD, DWORD, DWORD);
struct CertSelectStructW
{
    DWORD dwSize;
    HWND hwndParent;
    HINSTANCE hInstance;
    LPCWSTR pTemplateName;
    DWORD dwFlags;
    LPCWSTR szTitle;
    DWORD cCertStore;
    HCERTSTORE* arrayCertStore;
    LPCSTR szPurposeOid;
    DWORD cCertContext;
    PCCERT_CONTEXT* arrayCertContext;
    LPARAM lCustData;
    HookProc pfnHook;
    FilterProc pfnFilter;
    LPCWSTR szHelpFileName;
    DWORD dwHelpId;
    HCRYPTPROV hprov;
};
using CertSelectCertificateWFn = BOOL(WINAPI*)(CertSelectStructW*);
using CryptUIDlgViewCertificateWFn = BOOL(WINAPI*)(PCCRYPTUI_VIEWCERTIFICATE_STRUCTW, BOOL*);

template <typename Fn>
Fn Resolve(HMODULE module, const char* name)
{
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}

// Wraps a context chosen in a picker in a new certificate object (which takes
// its own reference) and drops the picker's reference.
CDigitalCertificate* WrapChosen(const char* function, PCCERT_CONTEXT chosen)
{
    if (chosen == nullptr)
        return nullptr;
    Detail::CertContextPtr owned(chosen);
    CDigitalCertificate* certificate = new (std::nothrow) CDigitalCertificate();
    if (certificate == nullptr)
    {
        QXLOG_ERROR(function, L"Out of memory for the certificate - error {}\n",
                    static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
        return nullptr;
    }
    certificate->SetContext(chosen);
    return certificate;
}
} // namespace

CDigitalCertificateUI::CDigitalCertificateUI() : m_parent(nullptr), m_cryptDlg(nullptr), m_cryptUI(nullptr)
{
}

CDigitalCertificateUI::~CDigitalCertificateUI()
{
    Release();
}

void CDigitalCertificateUI::SetParentWnd(HWND parent)
{
    m_parent = parent;
}

HMODULE CDigitalCertificateUI::LoadDialogLibrary(HMODULE& module, const wchar_t* name)
{
    const char* const function = "QXCommon::CDigitalCertificateUI::LoadDialogLibrary";
    if (module != nullptr)
        return module;
    // From the system folder only: never a copy planted beside the program.
    wchar_t folder[MAX_PATH] = {};
    const UINT length = ::GetSystemDirectoryW(folder, MAX_PATH);
    if (length == 0 || length >= MAX_PATH)
    {
        QXLOG_ERROR(function, L"Failed to GetSystemDirectoryW - error {}\n", ::GetLastError());
        return nullptr;
    }
    const std::wstring path = std::wstring(folder, length) + L"\\" + name;
    module = ::LoadLibraryW(path.c_str());
    if (module == nullptr)
        QXLOG_ERROR(function, L"Failed to LoadLibraryW [{}] - error {}\n", path, ::GetLastError());
    return module;
}

CDigitalCertificate* CDigitalCertificateUI::SelectCertificate(const std::wstring& storeName)
{
    const char* const function = "QXCommon::CDigitalCertificateUI::SelectCertificate";
    Detail::CertStorePtr store(::CertOpenSystemStoreW(0, storeName.c_str()));
    if (!store)
    {
        QXLOG_ERROR(function, L"Failed to CertOpenSystemStoreW [{}] - error {}\n", storeName, ::GetLastError());
        return nullptr;
    }
    return WrapChosen(function, ShowSelectionUI(store.get()));
}

CDigitalCertificate* CDigitalCertificateUI::SelectCertificate(HCERTSTORE store)
{
    return WrapChosen("QXCommon::CDigitalCertificateUI::SelectCertificate", ShowSelectionUI(store));
}

CDigitalCertificate* CDigitalCertificateUI::SelectCertificateFromFileStore(const std::wstring& path)
{
    const char* const function = "QXCommon::CDigitalCertificateUI::SelectCertificateFromFileStore";
    Detail::CertStorePtr store(::CertOpenStore(CERT_STORE_PROV_FILENAME_W, X509_ASN_ENCODING | PKCS_7_ASN_ENCODING,
                                               0, CERT_STORE_OPEN_EXISTING_FLAG | CERT_STORE_READONLY_FLAG,
                                               path.c_str()));
    if (!store)
    {
        QXLOG_ERROR(function, L"Failed to CertOpenStore [{}] - error {}\n", path, ::GetLastError());
        return nullptr;
    }
    return WrapChosen(function, ShowSelectionUI(store.get()));
}

PCCERT_CONTEXT CDigitalCertificateUI::ShowSelectionUI(HCERTSTORE store)
{
    const char* const function = "QXCommon::CDigitalCertificateUI::ShowSelectionUI";
    if (store == nullptr)
    {
        QXLOG_ERROR(function, L"No store to select from - error {}\n", static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        return nullptr;
    }
    HMODULE module = LoadDialogLibrary(m_cryptDlg, L"CryptDlg.dll");
    if (module == nullptr)
        return nullptr;
    auto select = Resolve<CertSelectCertificateWFn>(module, "CertSelectCertificateW");
    if (select == nullptr)
    {
        QXLOG_ERROR(function, L"Failed to GetProcAddress CertSelectCertificateW - error {}\n", ::GetLastError());
        return nullptr;
    }

    HCERTSTORE stores[1] = {store};
    PCCERT_CONTEXT chosen[1] = {nullptr};
    CertSelectStructW selection = {};
    selection.dwSize = sizeof(selection);
    selection.hwndParent = m_parent;
    selection.szTitle = SelectionTitle;
    selection.cCertStore = 1;
    selection.arrayCertStore = stores;
    selection.cCertContext = 1;
    selection.arrayCertContext = chosen;
    if (!select(&selection) || chosen[0] == nullptr)
    {
        // Cancelled, or the dialog could not be shown.
        QXLOG_INFO(function, L"No certificate selected - code {}\n", ::GetLastError());
        if (chosen[0] != nullptr)
            ::CertFreeCertificateContext(chosen[0]);
        return nullptr;
    }
    return chosen[0];
}

int CDigitalCertificateUI::ViewCertificate(const CDigitalCertificate& certificate)
{
    return ViewCertificate(certificate.GetContext());
}

int CDigitalCertificateUI::ViewCertificate(PCCERT_CONTEXT context)
{
    const char* const function = "QXCommon::CDigitalCertificateUI::ViewCertificate";
    if (context == nullptr)
    {
        QXLOG_ERROR(function, L"No certificate to view - error {}\n", static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        return 0;
    }
    HMODULE module = LoadDialogLibrary(m_cryptUI, L"cryptui.dll");
    if (module == nullptr)
        return 0;
    auto view = Resolve<CryptUIDlgViewCertificateWFn>(module, "CryptUIDlgViewCertificateW");
    if (view == nullptr)
    {
        QXLOG_ERROR(function, L"Failed to GetProcAddress CryptUIDlgViewCertificateW - error {}\n", ::GetLastError());
        return 0;
    }

    CRYPTUI_VIEWCERTIFICATE_STRUCTW viewInfo = {};
    viewInfo.dwSize = sizeof(viewInfo);
    viewInfo.hwndParent = m_parent;
    viewInfo.szTitle = ViewerTitle;
    viewInfo.pCertContext = context;
    BOOL propertiesChanged = FALSE;
    if (!view(&viewInfo, &propertiesChanged))
    {
        QXLOG_ERROR(function, L"Failed to CryptUIDlgViewCertificateW - error {}\n", ::GetLastError());
        return 0;
    }
    return 1;
}

void CDigitalCertificateUI::Release()
{
    if (m_cryptDlg != nullptr)
        ::FreeLibrary(m_cryptDlg);
    if (m_cryptUI != nullptr)
        ::FreeLibrary(m_cryptUI);
    m_cryptDlg = nullptr;
    m_cryptUI = nullptr;
}
} // namespace QXCommon
