// SPDX-License-Identifier: MIT
// The version check and the installation, against a scripted helper, a scripted polkit and scripts in pkexec's place.

#include "bundle.h"
#include "captured_log.h"
#include "files.h"
#include "helper_client.h"
#include "helper_connection.h"
#include "private_bus.h"
#include "scripted_authority.h"
#include "spoilt_helper.h"
#include "wait_for.h"

#include <QThread>
#include <QTimer>

#include <gmock/gmock.h>
#include <thread>

using namespace Qt::StringLiterals;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

const QString name = u"com.corvale.macos.helper"_s;
const QByteArray own = CORVALE_VERSION;

QString bundleHelper()
{
    return Bundle::location() + u"/Contents/Library/LaunchServices/"_s + name;
}

class HelperInstallationTest : public testing::Test {
protected:
    HelperInstallationTest()
    {
        writeFile(bundleHelper(), spoiltHelper(), 0755);
        EXPECT_TRUE(bus.start());
    }
    ~HelperInstallationTest() override { QDBusConnection::disconnectFromBus(u"authority"_s); }
    static QString script(const QByteArray &commands)
    {
        QString path = PrivateBus::folder() + u"/pkexec"_s;
        writeFile(path, "#!/bin/sh\n" + commands + '\n', 0755);
        return path;
    }
    /// What the log holds after `installHelper` on another thread; whether the application then quit is in `quit`.
    QByteArray install(const QString &pkexec)
    {
        constexpr int goneOn = 7;
        const CapturedLog log;
        QObject later;
        // Two rounds of the event loop after whatever the installation has asked for.
        const auto goOn = [&later] {
            QTimer::singleShot(0, &later,
                               [&later] { QTimer::singleShot(0, &later, [] { QCoreApplication::exit(goneOn); }); });
        };
        HelperClient delegate({pkexec, u"/the/tool"_s});
        std::jthread thread([&] {
            delegate.installHelper();
            QMetaObject::invokeMethod(&later, goOn, Qt::QueuedConnection);
        });
        quit = QCoreApplication::exec() == 0;
        thread.join();
        return log.text();
    }

    PrivateBus bus;
    ScriptedAuthority authority;
    bool quit = false;
};

} // namespace

TEST_F(HelperInstallationTest, theTwoVersionsAreComparedAsTexts)
{
    struct Row {
        const char *installed; ///< null: nobody has the helper's name
        QByteArray bundle;     ///< with its element, in the property list
        QByteArray log;
        bool isCurrent;
    };
    const QByteArray element = " <string>" + own + "</string>";
    const QByteArray withBlank = "<string>" + own + " </string>";
    const QByteArray bundle = "Helper: Bundle Version => " + own;
    const Row rows[] = {
        {CORVALE_VERSION, element, bundle + "\nHelper: Installed Version => " + own + '\n', true},
        {CORVALE_VERSION, withBlank, bundle + " \nHelper: Installed Version => " + own + '\n', false},
        {CORVALE_VERSION "0", element, bundle + "\nHelper: Installed Version => " + own + "0\n", false},
        {"error", element, bundle + "\nIt is ill.\n", false},
        {nullptr, element, bundle + "\nThe name " + name.toUtf8() + " was not provided by any .service files\n", false},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.log.constData());
        writeFile(bundleHelper(), spoiltHelper(element, row.bundle), 0755);
        bus.activate(name, {QStringLiteral(SCRIPTED_HELPER), QLatin1String(row.installed)});
        if (!row.installed)
            bus.forgetActivation(name);
        const CapturedLog log;
        HelperClient delegate;
        std::atomic_int answers = 0;
        delegate.shouldInstallHelperWithCallback([&](bool isCurrent) {
            EXPECT_EQ(isCurrent, row.isCurrent);
            EXPECT_NE(QThread::currentThread(), QCoreApplication::instance()->thread());
            ++answers;
        });
        const auto connection = delegate.helperConnection();
        ASSERT_TRUE(waitFor([&] { return answers > 0; }));
        EXPECT_TRUE(log.reach("XPC Connection Invalidated\n", row.installed ? 0 : 1));
        EXPECT_EQ(delegate.helperConnection() == connection, row.installed != nullptr);
        EXPECT_THAT(log.text().toStdString(), StartsWith(row.log.toStdString()));
        EXPECT_EQ(answers, 1);
        // The scripted helper of this version makes room for the next one's.
        connection->remoteObjectProxyWithErrorHandler([&](const MessageError &) { ++answers; })
            ->runOpenVPNWithConfig(u"die"_s, {}, {}, [](qint32) {});
        ASSERT_TRUE(waitFor([&] { return answers == 2; }));
    }
}

TEST_F(HelperInstallationTest, aBundleWithoutAReadableVersionIsAnsweredAtOnceAndASilentHelperNever)
{
    const CapturedLog log;
    HelperClient delegate;
    std::atomic_int answers = 0;
    const auto callback = [&answers](bool isCurrent) { answers += isCurrent ? 100 : 1; };
    writeFile(bundleHelper(), spoiltHelper("CFBundleVersion", "CFBundleEdition"), 0755);
    delegate.shouldInstallHelperWithCallback(callback);
    EXPECT_EQ(answers, 1);
    EXPECT_EQ(log.text(), "");

    writeFile(bundleHelper(), spoiltHelper(), 0755);
    bus.activate(name, {QStringLiteral(SCRIPTED_HELPER), u"silence"_s});
    delegate.shouldInstallHelperWithCallback(callback);
    std::atomic_bool answered = false;
    delegate.helperConnection()->remoteObjectProxyWithErrorHandler(nullptr)->runOpenVPNWithConfig(
        u"reply"_s, u"0"_s, {}, [&](qint32) { answered = true; });
    ASSERT_TRUE(waitFor([&] { return answered.load(); })); // by the same helper, later
    EXPECT_EQ(answers, 1);
    EXPECT_EQ(log.text(), "Helper: Bundle Version => " + own + '\n');
    bus.kill(); // ends the silence
    ASSERT_TRUE(log.reach("XPC Connection Invalidated\n", 1));
    EXPECT_EQ(answers, 2);
}

TEST_F(HelperInstallationTest, theBlessingIsAChildOfThisProcessAndItsFailureSaysWhyAndEndsTheApplication)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "QProcess starts a program in a way that the sanitizer takes for its own process's fork";
#endif
    struct Row {
        QString pkexec;
        std::string log;
        bool fails;
    };
    const QString seen = PrivateBus::folder() + u"/seen"_s;
    const Row rows[] = {
        {u"echo $PPID \"$@\" >%1; env >>%1"_s.arg(seen), name.toStdString() + " installed successfully\n", false},
        {u"exit 126"_s, "Bless Error: pkexec: the person who was asked for a password cancelled.\n", true},
        {u"echo No. >&2; exit 127"_s, "run the tool that installs the helper. It said: No.\n", true},
        {u"echo The helper; echo 'has no\nversion.' >&2; exit 1"_s, "status 1. It said: has no version.\n", true},
        {u"head -c 300000 /dev/zero | tr '\\0' x >&2; kill -9 $$"_s, "ended by signal 9. It said: xxxxx", true},
    };
    ASSERT_TRUE(authority.offer(QDBusConnection::connectToBus(QDBusConnection::SystemBus, u"authority"_s)));
    for (const Row &row : rows) {
        SCOPED_TRACE(row.log);
        const std::string log = install(script(row.pkexec.toUtf8())).toStdString();
        EXPECT_THAT(log, HasSubstr(row.log));
        EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
        EXPECT_LT(log.size(), 3000U);
        EXPECT_EQ(quit, row.fails);
    }
    EXPECT_THAT(install(u"/nonexistent/pkexec"_s).toStdString(),
                testing::ContainsRegex("^Bless Error: /nonexistent/pkexec: .*No such file"));
    EXPECT_TRUE(quit);
    EXPECT_EQ(authority.asked.first(), u"com.apple.ServiceManagement.blesshelper"_s);
    EXPECT_EQ(authority.flags, 1U); // a person may be asked

    const std::string call = contentOf(seen).toStdString();
    EXPECT_THAT(call, StartsWith(std::to_string(QCoreApplication::applicationPid()) +
                                 " --disable-internal-agent /the/tool " + bundleHelper().toStdString() + '\n'));
    EXPECT_THAT(call, testing::Not(HasSubstr("DBUS_SYSTEM_BUS_ADDRESS")));
}
