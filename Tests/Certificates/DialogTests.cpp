// The certificate viewer and picker, shown for real: each is opened on a
// thread that owns its parent window, found by its title, checked and closed.

#include "CertificateFixtures.h"
#include "QXTestSupport.h"

#include "QXCommon/DigitalCertificateUI.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

using QXCommon::CDigitalCertificate;
using QXCommon::CDigitalCertificateUI;
using QXTest::Certs::FixturePath;

namespace
{
HWND MakeWindow()
{
    return CreateWindowExW(0, L"STATIC", L"qxtest", WS_OVERLAPPEDWINDOW, 0, 0, 100, 100, nullptr, nullptr, nullptr,
                           nullptr);
}

// Runs show(ui) on a thread whose window is the UI's parent, waits (20 s at
// most) for a window of this process titled `title`, closes it, and tells
// whether it appeared owned by that parent (Wine's viewer takes no owner).
bool ShowAndClose(const wchar_t* title, UINT close, WPARAM closeParameter,
                  const std::function<void(CDigitalCertificateUI&)>& show)
{
    std::atomic<HWND> parent{nullptr};
    std::atomic<bool> done{false};
    std::thread thread([&] {
        CDigitalCertificateUI ui;
        parent = MakeWindow();
        ui.SetParentWnd(parent);
        show(ui);
        DestroyWindow(parent);
        done = true;
    });
    bool appeared = false;
    for (int i = 0; i < 800 && !done; ++i)
    {
        Sleep(50);
        HWND window = FindWindowW(nullptr, title);
        DWORD process = 0;
        GetWindowThreadProcessId(window, &process);
        if (!appeared && window != nullptr && process == GetCurrentProcessId())
        {
            appeared = GetWindow(window, GW_OWNER) == parent || QXTest::Certs::OnWine();
            PostMessageW(window, close, closeParameter, 0);
        }
    }
    EXPECT_TRUE(done) << "the dialog did not close";
    done ? thread.join() : thread.detach();
    return appeared;
}

// Without a display driver (Wine here) no top-level window can be made.
bool CanMakeWindows()
{
    HWND window = MakeWindow();
    return window != nullptr && DestroyWindow(window);
}
} // namespace

TEST(CertificateDialogs, Viewer)
{
    QXTest::LogCapture log;
    EXPECT_EQ(0, CDigitalCertificateUI().ViewCertificate(CDigitalCertificate()));
    EXPECT_TRUE(log.Has(1, "QXCommon::CDigitalCertificateUI::ViewCertificate", L"No certificate to view - error 87\n"));
    if (!CanMakeWindows())
        GTEST_SKIP() << "no display driver here: top-level windows cannot be created";

    CDigitalCertificate signer;
    ASSERT_EQ(0u, signer.ReadFromSignedFile(FixturePath(L"signed.exe")));
    EXPECT_TRUE(ShowAndClose(L"Certificate", WM_CLOSE, 0, [&](auto& ui) { ui.ViewCertificate(signer); }));
}

TEST(CertificateDialogs, Pickers)
{
    QXTest::LogCapture log;
    CDigitalCertificateUI ui;
    EXPECT_EQ(nullptr, ui.SelectCertificateFromFileStore(FixturePath(L"missing.cer")));
    EXPECT_EQ(nullptr, ui.ShowSelectionUI(nullptr));
    EXPECT_TRUE(log.HasFragment(L"Failed to CertOpenStore [") && log.HasFragment(L"No store to select from"));
    if (QXTest::Certs::OnWine())
        GTEST_SKIP() << "Wine's CryptDlg has CertSelectCertificateW as an unimplemented stub that ends the process";
    if (!CanMakeWindows())
        GTEST_SKIP() << "no display driver here: top-level windows cannot be created";

    for (const bool fromFile : {true, false})
    {
        CDigitalCertificate* chosen = reinterpret_cast<CDigitalCertificate*>(1);
        EXPECT_TRUE(ShowAndClose(L"Please select a certificate", WM_COMMAND, IDCANCEL, [&](auto& ui) {
            chosen = fromFile ? ui.SelectCertificateFromFileStore(FixturePath(L"signer.cer"))
                              : ui.SelectCertificate(std::wstring(L"CA"));
        }));
        EXPECT_EQ(nullptr, chosen); // cancelled
    }
}
