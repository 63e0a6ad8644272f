// SPDX-License-Identifier: MIT
#include "quit_signals.h"
#include "single_instance.h"
#include "text_field.h"
#include "title_button.h"
#include "ui_fixture.h"
#include "user_defaults.h"
#include "wait_for.h"

#include <QApplication>
#include <QDBusConnection>
#include <QFile>
#include <QLocalServer>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>
#include <QWindow>

#include <csignal>
#include <thread>
#include <xcb/xcb.h>

using namespace Qt::StringLiterals;

namespace {

class ShellTest : public UiTest {};

/// A status bar on the X screen, which announces itself and takes every item.
class Bar {
public:
    Bar()
    {
        bar_.create();
        own(static_cast<xcb_window_t>(bar_.winId()));
        xcb_client_message_event_t coming{};
        coming.response_type = XCB_CLIENT_MESSAGE;
        coming.format = 32;
        coming.window = xcb_setup_roots_iterator(xcb_get_setup(screen_)).data->root;
        coming.type = atom("MANAGER");
        coming.data.data32[1] = atom("_NET_SYSTEM_TRAY_S0");
        xcb_send_event(screen_, 0, coming.window, XCB_EVENT_MASK_STRUCTURE_NOTIFY, reinterpret_cast<char *>(&coming));
        xcb_flush(screen_);
    }
    ~Bar() { own(XCB_WINDOW_NONE); }
    Bar(const Bar &) = delete;
    Bar &operator=(const Bar &) = delete;

private:
    xcb_atom_t atom(const QByteArray &name)
    {
        const auto cookie = xcb_intern_atom(screen_, 0, static_cast<uint16_t>(name.size()), name.constData());
        const std::unique_ptr<xcb_intern_atom_reply_t, decltype(&free)> reply(
            xcb_intern_atom_reply(screen_, cookie, nullptr), &free);
        return reply->atom;
    }
    void own(xcb_window_t owner)
    {
        xcb_set_selection_owner(screen_, owner, atom("_NET_SYSTEM_TRAY_S0"), XCB_CURRENT_TIME);
        xcb_flush(screen_);
    }

    xcb_connection_t *screen_ = qGuiApp->nativeInterface<QNativeInterface::QX11Application>()->connection();
    QWindow bar_;
};

/// The real program, on the test's screen and session bus.
class Client {
public:
    explicit Client(const QByteArray &bus = qgetenv("DBUS_SESSION_BUS_ADDRESS"),
                    const QByteArray &systemBus = qgetenv("DBUS_SYSTEM_BUS_ADDRESS"))
    {
        auto environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"DBUS_SESSION_BUS_ADDRESS"_s, QString::fromLatin1(bus));
        environment.insert(u"DBUS_SYSTEM_BUS_ADDRESS"_s, QString::fromLatin1(systemBus));
        process_.setProcessEnvironment(environment);
        process_.setProcessChannelMode(QProcess::ForwardedChannels);
        process_.start(QStringLiteral(CORVALE_BUNDLE "/Contents/MacOS/Corvale"), {});
    }

    /// Once it handles SIGTERM it is past everything that may keep it from starting.
    bool running() const
    {
        QFile status(u"/proc/%1/status"_s.arg(process_.processId()));
        if (!status.open(QIODevice::ReadOnly))
            return false;
        const QByteArray all = status.readAll();
        const qsizetype at = all.indexOf("SigCgt:") + 7;
        return (all.mid(at, all.indexOf('\n', at) - at).trimmed().toULongLong(nullptr, 16) >> (SIGTERM - 1) & 1) != 0;
    }

    bool ended() const { return process_.state() == QProcess::NotRunning; }
    bool endedCleanly() const { return process_.exitStatus() == QProcess::NormalExit && process_.exitCode() == 0; }
    void terminate() { process_.terminate(); }

private:
    QProcess process_;
};

} // namespace

TEST_F(ShellTest, TheRememberedCredentialsFillTheForm)
{
    UserDefaults::setStrings({{u"email"_s, u"ana@b.example"_s}, {u"password"_s, u"s3cret ñ"_s}});
    launch();
    EXPECT_EQ(form().emailEdit->text(), u"ana@b.example"_s);
    EXPECT_EQ(form().passwordEdit->text(), u"s3cret ñ"_s);
    EXPECT_EQ(QApplication::focusWidget(), form().connectButton);
}

TEST_F(ShellTest, AReopenBringsBackTheSameWindowAndTheStatusItemStays)
{
    const Bar bar;
    launch();
    const QWidget *const window = delegate_->window.get();
    EXPECT_TRUE(delegate_->applicationShouldHandleReopen(true));
    delegate_->window->close();
    EXPECT_FALSE(window->isVisible());
    EXPECT_TRUE(delegate_->statusItem->isVisible());

    EXPECT_TRUE(delegate_->applicationShouldHandleReopen(false));
    EXPECT_EQ(delegate_->window.get(), window);
    EXPECT_TRUE(QTest::qWaitForWindowActive(delegate_->window.get()));
    EXPECT_TRUE(form().isVisible());
}

TEST_F(ShellTest, AStatusBarThatComesLaterGetsTheItemWithItsImageAndMenu)
{
    launch();
    EXPECT_EQ(delegate_->statusItem, nullptr); // Qt would make one that no later bar shows
    const Bar bar;
    ASSERT_TRUE(waitFor([this] { return delegate_->statusItem != nullptr; }));
    EXPECT_EQ(delegate_->statusItem->icon().isMask(), false);
    EXPECT_FALSE(delegate_->statusItem->icon().pixmap(22).isNull());
    ASSERT_EQ(delegate_->statusItem->contextMenu(), delegate_->statusMemu);
    EXPECT_EQ(delegate_->statusMemu->actions().constFirst(), delegate_->connectItem);
    emit delegate_->statusItem->activated(QSystemTrayIcon::Trigger);
    EXPECT_TRUE(delegate_->statusMemu->isVisible());
    delegate_->statusMemu->close();
}

TEST_F(ShellTest, WhateverIsWrongWithTheInterfaceFileTheLaunchGoesOn)
{
    const Bar bar;
    struct Row {
        const char *is;
        const char *becomes; ///< null: there is no file
        bool window;
        bool form;
    };
    const Row rows[] = {
        {"", nullptr, false, false},
        {"<ui version", "<<", false, false},
        {"\"MainWindowController\" name=\"mainW", "\"QWidget\" name=\"mainW", false, true},
        {"name=\"mainWindowController\"", "name=\"other\"", false, true},
        {"\"MainViewController\" name=\"mainV", "\"QWidget\" name=\"mainV", true, false},
        {"name=\"rememberText\"", "name=\"other\"", true, false},
        {"\"TextField\" name=\"emailEdit\"", "\"QTextEdit\" name=\"emailEdit\"", true, false},
    };
    QFile shipped(QStringLiteral(CORVALE_BUNDLE "/Contents/Resources/Main.ui"));
    ASSERT_TRUE(shipped.open(QIODevice::ReadOnly));
    const QByteArray whole = shipped.readAll();
    for (const Row &row : rows) {
        SCOPED_TRACE(row.is);
        QFile::remove(resource(u"Main.ui"_s));
        if (row.becomes) {
            QFile spoilt(resource(u"Main.ui"_s));
            ASSERT_TRUE(whole.contains(row.is) && spoilt.open(QIODevice::WriteOnly));
            spoilt.write(QByteArray(whole).replace(row.is, row.becomes));
        }
        delegate_.reset();
        delegate_ = std::make_unique<AppDelegate>();
        delegate_->applicationDidFinishLaunching();
        EXPECT_EQ(delegate_->window != nullptr, row.window);
        EXPECT_EQ(!delegate_->mainViewController.isNull(), row.form);
        EXPECT_TRUE(delegate_->statusItem->isVisible());
        EXPECT_TRUE(delegate_->applicationShouldHandleReopen(false));
        delegate_->onConnectButtonClick();
        EXPECT_EQ(row.form ? nextAlert() : QString(), row.form ? u"Email should not be empty!"_s : QString());
    }
}

TEST_F(ShellTest, ASecondStartAsksTheFirstToComeBackAndEnds)
{
    SingleInstance first;
    ASSERT_TRUE(first.claim());
    QSignalSpy activated(&first, &SingleInstance::activated);
    qputenv("XDG_ACTIVATION_TOKEN", "t0ken");
    const Client second;
    qunsetenv("XDG_ACTIVATION_TOKEN");
    ASSERT_TRUE(waitFor([&] { return second.ended(); }));
    EXPECT_TRUE(second.endedCleanly());
    ASSERT_EQ(activated.count(), 1);
    EXPECT_EQ(activated.at(0).at(0), u"t0ken"_s);
    QDBusConnection::sessionBus().unregisterService(u"com.corvale.macos"_s);
}

TEST_F(ShellTest, TheClientStartsWhateverTheSessionBusDoesAndEndsWhenAsked)
{
    QLocalServer silent;
    ASSERT_TRUE(silent.listen(u"silent-bus"_s));
    for (const QByteArray &bus : {qgetenv("DBUS_SESSION_BUS_ADDRESS"), QByteArray("unix:path=/nonexistent"),
                                  "unix:path=" + QFile::encodeName(silent.fullServerName())}) {
        Client client(bus);
        ASSERT_TRUE(waitFor([&] { return client.running(); })) << bus.constData();
        client.terminate();
        ASSERT_TRUE(waitFor([&] { return client.ended(); }));
        EXPECT_TRUE(client.endedCleanly());
    }
}

TEST_F(ShellTest, AHelperThatCannotBeInstalledEndsTheClient)
{
    const Client client(qgetenv("DBUS_SESSION_BUS_ADDRESS"), "unix:path=/nonexistent");
    ASSERT_TRUE(waitFor([&] { return client.ended(); }));
    EXPECT_TRUE(client.endedCleanly());
}

TEST(QuitSignals, AProcessThatIsTooBusyEndsAllTheSame)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // a process of its own: a fork would lack the other threads
    EXPECT_EXIT(
        {
            const QuitSignals quitSignals;
            raise(SIGTERM);
            while (true)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
        },
        testing::ExitedWithCode(0), "");
}
