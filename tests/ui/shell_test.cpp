// SPDX-License-Identifier: MIT
#include "files.h"
#include "quit_signals.h"
#include "single_instance.h"
#include "ui_fixture.h"
#include "wait_for.h"

#include <QApplication>
#include <QDBusConnection>
#include <QProcess>
#include <QSignalSpy>
#include <QWindow>

#include <csignal>
#include <thread>
#include <xcb/xcb.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

/// Starts the real program on the test's screen and session bus, with one variable more. Whether it ends in good order.
bool endsCleanly(const QString &variable, const QString &value)
{
    QProcess process;
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.insert(variable, value);
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.start(QStringLiteral(CORVALE_BUNDLE "/Contents/MacOS/Corvale"), {});
    return waitFor([&process] { return process.state() == QProcess::NotRunning; }) &&
           process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

/// Makes the window a status bar, as far as a launch looks for one on the X screen.
void makeStatusBar(QWindow &window)
{
    window.create();
    auto *const screen = qGuiApp->nativeInterface<QNativeInterface::QX11Application>()->connection();
    const auto name = xcb_intern_atom(screen, 0, sizeof "_NET_SYSTEM_TRAY_S0" - 1, "_NET_SYSTEM_TRAY_S0");
    const std::unique_ptr<xcb_intern_atom_reply_t, decltype(&std::free)> selection(
        xcb_intern_atom_reply(screen, name, nullptr), &std::free);
    xcb_set_selection_owner(screen, static_cast<xcb_window_t>(window.winId()), selection->atom, XCB_CURRENT_TIME);
}

class ShellTest : public UiTest {};

} // namespace

TEST_F(ShellTest, WhateverIsWrongWithTheInterfaceFileTheLaunchGoesOn)
{
    QWindow bar;
    makeStatusBar(bar);
    const struct {
        const char *is;
        const char *becomes; ///< null: there is no file
        bool window;
        bool form;
    } rows[] = {
        {"", nullptr, false, false},
        {"<ui version", "<<", false, false},
        {R"("MainWindowController" name="mainW)", R"("QWidget" name="mainW)", false, true},
        {R"(name="mainWindowController")", R"(name="other")", false, true},
        {R"("MainViewController" name="mainV)", R"("QWidget" name="mainV)", true, false},
        {R"(name="rememberText")", R"(name="other")", true, false},
        {R"("TextField" name="emailEdit")", R"("QTextEdit" name="emailEdit")", true, false},
    };
    const QByteArray whole = contentOf(resource(u"Main.ui"_s));
    for (const auto &row : rows) {
        SCOPED_TRACE(row.is);
        ASSERT_TRUE(whole.contains(row.is));
        QFile::remove(resource(u"Main.ui"_s));
        if (row.becomes)
            writeFile(resource(u"Main.ui"_s), QByteArray(whole).replace(row.is, row.becomes));
        delegate_.reset();
        delegate_ = std::make_unique<AppDelegate>();
        delegate_->applicationDidFinishLaunching();
        EXPECT_EQ(delegate_->window != nullptr, row.window);
        EXPECT_EQ(!delegate_->mainViewController.isNull(), row.form);
        ASSERT_TRUE(delegate_->statusItem && delegate_->statusItem->isVisible());
        EXPECT_FALSE(delegate_->statusItem->icon().isMask()) << "it has colours of its own";
        EXPECT_TRUE(delegate_->applicationShouldHandleReopen(false));
        delegate_->onConnectButtonClick();
        EXPECT_EQ(row.form ? nextAlert() : QString(), row.form ? u"Email should not be empty!"_s : QString());
    }
}

TEST_F(ShellTest, ASecondStartHandsItsTokenToTheFirstAndEnds)
{
    SingleInstance first;
    ASSERT_TRUE(first.claim());
    QSignalSpy activated(&first, &SingleInstance::activated);
    EXPECT_TRUE(endsCleanly(u"XDG_ACTIVATION_TOKEN"_s, u"t0ken"_s));
    EXPECT_EQ(activated.value(0).value(0), u"t0ken"_s);
    QDBusConnection::sessionBus().unregisterService(u"com.corvale.macos"_s);
}

TEST_F(ShellTest, AHelperThatCannotBeInstalledEndsTheClient)
{
    EXPECT_TRUE(endsCleanly(u"DBUS_SYSTEM_BUS_ADDRESS"_s, u"unix:path=/nonexistent"_s));
}

TEST(QuitSignals, AProcessThatIsTooBusyEndsAllTheSame)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // a process of its own: a fork would lack the other threads
    EXPECT_EXIT(
        {
            const QuitSignals quitSignals;
            (void)std::raise(SIGTERM);
            while (true)
                std::this_thread::sleep_for(10ms);
        },
        testing::ExitedWithCode(0), "");
}
