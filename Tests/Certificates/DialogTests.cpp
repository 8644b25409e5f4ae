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
bool OnWine()
{
    return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

// Whether this session can make top-level windows at all (Wine without a
// usable display driver cannot).
bool CanCreateWindows()
{
    HWND window = CreateWindowExW(0, L"STATIC", L"probe", WS_OVERLAPPEDWINDOW, 0, 0, 10, 10, nullptr, nullptr,
                                  GetModuleHandleW(nullptr), nullptr);
    if (window == nullptr)
        return false;
    DestroyWindow(window);
    return true;
}

struct Found
{
    const wchar_t* title;
    HWND window;
};

BOOL CALLBACK MatchTitle(HWND window, LPARAM parameter)
{
    auto* found = reinterpret_cast<Found*>(parameter);
    DWORD process = 0;
    GetWindowThreadProcessId(window, &process);
    wchar_t text[128] = {};
    GetWindowTextW(window, text, 128);
    if (process == GetCurrentProcessId() && std::wstring(text) == found->title)
    {
        found->window = window;
        return FALSE;
    }
    return TRUE;
}

struct DialogRun
{
    bool appeared = false;
    HWND owner = nullptr;
    HWND parent = nullptr;
    bool threadEnded = false;
};

// Runs show(ui) on a thread that owns a parent window given to the UI object;
// waits up to 20 s for a window of this process titled `title`, notes its
// owner, closes it with `closeMessage` and waits for the thread.
DialogRun ShowAndClose(const wchar_t* title, UINT closeMessage, WPARAM closeParameter,
                       const std::function<void(CDigitalCertificateUI&)>& show)
{
    DialogRun run;
    std::atomic<HWND> parent{nullptr};
    std::atomic<bool> done{false};
    std::thread thread([&] {
        HWND window = CreateWindowExW(0, L"STATIC", L"qxtest parent", WS_OVERLAPPEDWINDOW, 0, 0, 100, 100, nullptr,
                                      nullptr, GetModuleHandleW(nullptr), nullptr);
        parent = window;
        {
            CDigitalCertificateUI ui;
            ui.SetParentWnd(window);
            show(ui);
        }
        DestroyWindow(window);
        done = true;
    });
    Found found = {title, nullptr};
    for (int i = 0; i < 400 && !done && found.window == nullptr; ++i)
    {
        Sleep(50);
        EnumWindows(&MatchTitle, reinterpret_cast<LPARAM>(&found));
    }
    if (found.window != nullptr)
    {
        run.appeared = true;
        run.owner = GetWindow(found.window, GW_OWNER);
        PostMessageW(found.window, closeMessage, closeParameter, 0);
    }
    for (int i = 0; i < 400 && !done; ++i)
        Sleep(50);
    run.parent = parent;
    run.threadEnded = done;
    if (done)
        thread.join();
    else
        thread.detach(); // a dialog that will not close: fail rather than hang
    return run;
}
} // namespace

TEST(CertificateDialogs, Viewer)
{
    {
        QXTest::LogCapture log;
        CDigitalCertificateUI ui;
        EXPECT_EQ(0, ui.ViewCertificate(CDigitalCertificate()));
        EXPECT_EQ(0, ui.ViewCertificate(static_cast<PCCERT_CONTEXT>(nullptr)));
        EXPECT_TRUE(log.Has(1, "QXCommon::CDigitalCertificateUI::ViewCertificate",
                            L"No certificate to view - error 87\n"))
            << log.Dump();
    }
    if (!CanCreateWindows())
        GTEST_SKIP() << "no display driver here: top-level windows cannot be created";

    CDigitalCertificate signer;
    ASSERT_EQ(0u, signer.ReadFromSignedFile(FixturePath(L"signed.exe")));
    const DialogRun run = ShowAndClose(L"Certificate", WM_CLOSE, 0,
                                       [&](CDigitalCertificateUI& ui) { ui.ViewCertificate(signer); });
    ASSERT_TRUE(run.threadEnded);
    EXPECT_TRUE(run.appeared);
    // Wine's viewer does not take the parent as its owner.
    if (!OnWine())
    {
        EXPECT_EQ(run.parent, run.owner);
    }
}

TEST(CertificateDialogs, Pickers)
{
    {
        QXTest::LogCapture log;
        CDigitalCertificateUI ui;
        EXPECT_EQ(nullptr, ui.SelectCertificateFromFileStore(FixturePath(L"missing.cer")));
        EXPECT_EQ(nullptr, ui.ShowSelectionUI(nullptr));
        EXPECT_TRUE(log.HasFragment(L"Failed to CertOpenStore [")) << log.Dump();
        EXPECT_TRUE(log.HasFragment(L"No store to select from")) << log.Dump();
    }
    if (OnWine())
        GTEST_SKIP() << "Wine's CryptDlg exports CertSelectCertificateW as an unimplemented stub (calling it ends "
                        "the process)";
    if (!CanCreateWindows())
        GTEST_SKIP() << "no display driver here: top-level windows cannot be created";

    struct Case
    {
        const char* name;
        std::function<CDigitalCertificate*(CDigitalCertificateUI&)> select;
    } const cases[] = {
        {"file store", [](CDigitalCertificateUI& ui) { return ui.SelectCertificateFromFileStore(FixturePath(L"signer.cer")); }},
        {"system store", [](CDigitalCertificateUI& ui) { return ui.SelectCertificate(std::wstring(L"CA")); }},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.name);
        CDigitalCertificate* chosen = reinterpret_cast<CDigitalCertificate*>(1);
        const DialogRun run = ShowAndClose(L"Please select a certificate", WM_COMMAND, IDCANCEL,
                                           [&](CDigitalCertificateUI& ui) { chosen = c.select(ui); });
        ASSERT_TRUE(run.threadEnded);
        EXPECT_TRUE(run.appeared);
        EXPECT_EQ(run.parent, run.owner);
        EXPECT_EQ(nullptr, chosen); // cancelled
    }
}
