#pragma once
// CDigitalCertificateUI: the console's certificate pickers and viewer. The
// dialogs are modal and owned by the parent window set with SetParentWnd.
// The dialog libraries are loaded from the system folder when first needed
// (a process that never shows a dialog never loads them) and unloaded by
// Release or the destructor.

#include "QXCommonAPI.h"

#include "DigitalCertificate.h"

#include <windows.h>
#include <wincrypt.h>

#include <string>

namespace QXCommon
{
class QXCOMMON_API CDigitalCertificateUI
{
public:
    CDigitalCertificateUI();
    virtual ~CDigitalCertificateUI();
    CDigitalCertificateUI(const CDigitalCertificateUI&) = delete;
    CDigitalCertificateUI& operator=(const CDigitalCertificateUI&) = delete;

    void SetParentWnd(HWND parent);

    // Shows the picker on a system store of the current user ("MY", "ROOT",
    // ...), on an open store (left open), or on a certificate file (DER,
    // PKCS #7 or serialised store). The chosen certificate in a new object
    // that the caller deletes (or gives to DeleteDigitalCertificateObject);
    // null when nothing was chosen or the store could not be opened.
    CDigitalCertificate* SelectCertificate(const std::wstring& storeName);
    CDigitalCertificate* SelectCertificate(HCERTSTORE store);
    CDigitalCertificate* SelectCertificateFromFileStore(const std::wstring& path);

    // The picker itself, titled "Please select a certificate": the chosen
    // context, which the caller frees with CertFreeCertificateContext; null
    // when cancelled or when the picker is not available.
    PCCERT_CONTEXT ShowSelectionUI(HCERTSTORE store);

    // The certificate viewer, titled "Certificate". Non-zero when the platform
    // reports the viewer shown and closed; 0 for an empty certificate, when it
    // could not be shown, and where the platform reports closing it as
    // cancelling.
    int ViewCertificate(const CDigitalCertificate& certificate);
    int ViewCertificate(PCCERT_CONTEXT context);

    // Unloads the dialog libraries (loaded again when next needed).
    void Release();

private:
    HMODULE LoadDialogLibrary(HMODULE& module, const wchar_t* name);

    HWND m_parent;
    HMODULE m_cryptDlg;
    HMODULE m_cryptUI;
};
} // namespace QXCommon
