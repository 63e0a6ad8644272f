// SPDX-License-Identifier: MIT
#include "files.h"
#include "quit_signals.h"
#include "single_instance.h"
#include "text_field.h"
#include "title_button.h"
#include "ui_fixture.h"
#include "user_defaults.h"
#include "wait_for.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QDBusVirtualObject>
#include <QLocalServer>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>
#include <QWindow>

#include <csignal>
#include <thread>
#include <xcb/xcb.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

xcb_connection_t *screen()
{
    return qGuiApp->nativeInterface<QNativeInterface::QX11Application>()->connection();
}

xcb_window_t root()
{
    return xcb_setup_roots_iterator(xcb_get_setup(screen())).data->root;
}

/// The answer to a request, in a pointer that frees it.
template <auto answerTo, typename Request>
auto answer(Request request)
{
    auto *const reply = answerTo(screen(), request, nullptr);
    return std::unique_ptr<std::remove_pointer_t<decltype(reply)>, decltype(&std::free)>(reply, &std::free);
}

xcb_atom_t atom(const std::string &name)
{
    const auto size = static_cast<uint16_t>(name.size());
    return answer<xcb_intern_atom_reply>(xcb_intern_atom(screen(), 0, size, name.data()))->atom;
}

void sendMessage(xcb_window_t window, const char *type, const char *content, int index)
{
    xcb_client_message_event_t event{XCB_CLIENT_MESSAGE, 32, 0, window, atom(type), {}};
    event.data.data32[index] = atom(content);
    xcb_send_event(screen(), 0, window, window == root() ? XCB_EVENT_MASK_STRUCTURE_NOTIFY : XCB_EVENT_MASK_NO_EVENT,
                   reinterpret_cast<char *>(&event));
    xcb_flush(screen());
}

/// The window, of any process, that has the keyboard, or 0 when no window is on the screen.
xcb_window_t activeWindow()
{
    const auto focus = answer<xcb_get_input_focus_reply>(xcb_get_input_focus(screen()))->focus;
    return focus == root() || focus == XCB_INPUT_FOCUS_POINTER_ROOT ? 0 : focus;
}

/// A status bar on the X screen, which announces itself and takes every item.
class ScreenBar {
public:
    ScreenBar()
    {
        window_.create();
        own(static_cast<xcb_window_t>(window_.winId()));
        sendMessage(root(), "MANAGER", "_NET_SYSTEM_TRAY_S0", 1);
    }
    ~ScreenBar() { own(XCB_WINDOW_NONE); }
    ScreenBar(const ScreenBar &) = delete;
    ScreenBar &operator=(const ScreenBar &) = delete;

private:
    static void own(xcb_window_t owner)
    {
        xcb_set_selection_owner(screen(), owner, atom("_NET_SYSTEM_TRAY_S0"), XCB_CURRENT_TIME);
        xcb_flush(screen());
    }

    QWindow window_;
};

/// The keeper of the status items on the session bus, with or without a status bar that shows them.
class ItemWatcher : public QDBusVirtualObject {
public:
    ItemWatcher() { bus_.registerVirtualObject(path_, this); }
    ~ItemWatcher() override { bus_.unregisterService(name_); }

    void arrive() { bus_.registerService(name_); }
    void setBar(bool there)
    {
        hasBar_ = there;
        bus_.send(QDBusMessage::createSignal(path_, name_, u"StatusNotifierHostRegistered"_s));
    }
    bool hasItem() const { return hasItem_; }

    QString introspect(const QString & /*path*/) const override
    {
        return u"<interface name='org.kde.StatusNotifierWatcher'>"
               "<property name='IsStatusNotifierHostRegistered' type='b' access='read'/></interface>"_s;
    }
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &bus) override
    {
        if (message.member() == u"Introspect"_s)
            return false; // Qt answers it
        hasItem_ = hasItem_ || message.member() == u"RegisterStatusNotifierItem"_s;
        return bus.send(message.createReply(QVariant::fromValue(QDBusVariant(hasBar_))));
    }

private:
    const QString name_ = u"org.kde.StatusNotifierWatcher"_s;
    const QString path_ = u"/StatusNotifierWatcher"_s;
    QDBusConnection bus_ = QDBusConnection::sessionBus();
    bool hasBar_ = false;
    bool hasItem_ = false;
};

/// The real program, on the test's screen and session bus.
class Client {
public:
    explicit Client(const QString &variable = u"DISPLAY"_s, const QByteArray &value = qgetenv("DISPLAY"))
    {
        auto environment = QProcessEnvironment::systemEnvironment();
        environment.insert(variable, QString::fromLatin1(value));
        process_.setProcessEnvironment(environment);
        process_.setProcessChannelMode(QProcess::ForwardedChannels);
        process_.start(QStringLiteral(CORVALE_BUNDLE "/Contents/MacOS/Corvale"), {});
    }
    bool endsCleanly() const
    {
        return waitFor([this] { return process_.state() == QProcess::NotRunning; }) &&
               process_.exitStatus() == QProcess::NormalExit && process_.exitCode() == 0;
    }
    void signal(int number) const
    {
        if (process_.processId() > 0) // 0 would be this process's own group
            ::kill(static_cast<pid_t>(process_.processId()), number);
    }

private:
    QProcess process_;
};

class ShellTest : public UiTest {};

} // namespace

TEST_F(ShellTest, TheRememberedCredentialsFillTheForm)
{
    UserDefaults::setStrings({{u"email"_s, u"ana@b.example"_s}, {u"password"_s, u"s3cret ñ"_s}});
    launch();
    EXPECT_EQ(form().emailEdit->text(), u"ana@b.example"_s);
    EXPECT_EQ(form().passwordEdit->text(), u"s3cret ñ"_s);
    EXPECT_EQ(QApplication::focusWidget(), form().connectButton);
}

TEST_F(ShellTest, AStatusBarThatComesLaterGetsTheItemWhoseMenuOutlivesTheWindow)
{
    launch();
    EXPECT_EQ(delegate_->statusItem, nullptr); // Qt would make one that no later bar shows
    const ScreenBar bar;
    ASSERT_TRUE(waitFor([this] { return delegate_->statusItem != nullptr; }));
    QSystemTrayIcon &item = *delegate_->statusItem;
    EXPECT_FALSE(item.icon().isMask());
    EXPECT_FALSE(item.icon().pixmap(22).isNull());
    EXPECT_EQ(item.toolTip(), u"Corvale"_s);
    ASSERT_EQ(item.contextMenu(), delegate_->statusMemu);
    emit item.activated(QSystemTrayIcon::Trigger);
    EXPECT_TRUE(delegate_->statusMemu->isVisible());
    delegate_->statusMemu->close();

    QStringList titles;
    for (const QAction *const action : delegate_->statusMemu->actions())
        titles += action->text();
    EXPECT_EQ(titles, (QStringList{u"Conectar"_s, u"Mostrar ventana"_s, u""_s, u"Salir"_s}));
    const QWidget *const window = delegate_->window.get();
    delegate_->window->close();
    EXPECT_TRUE(item.isVisible());
    delegate_->statusMemu->actions()[1]->trigger();
    EXPECT_EQ(delegate_->window.get(), window);
    EXPECT_TRUE(QTest::qWaitForWindowActive(delegate_->window.get()));
    EXPECT_TRUE(form().isVisible());

    QTimer::singleShot(0, delegate_->statusMemu->actions()[3], &QAction::trigger);
    QTimer::singleShot(5s, delegate_.get(), [] { QCoreApplication::exit(1); });
    EXPECT_EQ(QApplication::exec(), 0);
}

TEST_F(ShellTest, AStatusBarOnTheSessionBusGetsTheItemWheneverItComes)
{
    for (const bool watcherFirst : {true, false})
        for (const bool barFirst : {true, false}) {
            ItemWatcher watcher;
            watcher.setBar(barFirst);
            if (watcherFirst)
                watcher.arrive();
            const Client client;
            ASSERT_TRUE(waitFor(activeWindow));
            watcher.arrive();
            EXPECT_TRUE(barFirst || !watcher.hasItem());
            watcher.setBar(true);
            EXPECT_TRUE(waitFor([&] { return watcher.hasItem(); })) << watcherFirst << barFirst;
            client.signal(SIGTERM);
            EXPECT_TRUE(client.endsCleanly());
        }
}

TEST_F(ShellTest, WhateverIsWrongWithTheInterfaceFileTheLaunchGoesOn)
{
    const ScreenBar bar;
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
    EXPECT_TRUE(Client(u"XDG_ACTIVATION_TOKEN"_s, "t0ken").endsCleanly());
    EXPECT_EQ(activated.value(0).value(0), u"t0ken"_s);
    QDBusConnection::sessionBus().unregisterService(u"com.corvale.macos"_s);
}

TEST_F(ShellTest, AClosedWindowLeavesTheClientRunningAndASecondStartBringsItBack)
{
    const Client first;
    ASSERT_TRUE(waitFor(activeWindow));
    sendMessage(activeWindow(), "WM_PROTOCOLS", "WM_DELETE_WINDOW", 0);
    ASSERT_TRUE(waitFor(std::not_fn(activeWindow)));
    first.signal(SIGSTOP); // busy
    EXPECT_TRUE(Client().endsCleanly());
    first.signal(SIGCONT);
    EXPECT_TRUE(waitFor(activeWindow));
    first.signal(SIGTERM);
    EXPECT_TRUE(first.endsCleanly());
}

TEST_F(ShellTest, TheClientStartsWhateverTheSessionBusDoesAndEndsWhenAsked)
{
    QLocalServer silent;
    ASSERT_TRUE(silent.listen(u"silent-bus"_s));
    for (const QByteArray &bus :
         {QByteArray("unix:path=/nonexistent"), "unix:path=" + QFile::encodeName(silent.fullServerName())}) {
        const Client client(u"DBUS_SESSION_BUS_ADDRESS"_s, bus);
        EXPECT_TRUE(waitFor(activeWindow)) << bus.constData();
        client.signal(SIGTERM);
        EXPECT_TRUE(client.endsCleanly());
    }
}

TEST_F(ShellTest, AHelperThatCannotBeInstalledEndsTheClient)
{
    EXPECT_TRUE(Client(u"DBUS_SYSTEM_BUS_ADDRESS"_s, "unix:path=/nonexistent").endsCleanly());
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
