// SPDX-License-Identifier: MIT
// When a tunnel is told to come back: a script that says what it is told to in client.up's place, and a network and a
// system bus of the test's own.

#include "files.h"
#include "private_bus.h"
#include "recovery.h"
#include "wait_for.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QProcess>

#include <gtest/gtest.h>
#include <sched.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

const QString folder = PrivateBus::folder();
const QString script = folder + u"/client.up"_s;

/// A recovery, and how often it has asked for what.
struct Watched {
    explicit Watched(bool looksUpNames) : recovery(script.toUtf8(), looksUpNames, 1s)
    {
        QObject::connect(&recovery, &Recovery::restartNeeded, [this] { ++restarts; });
        QObject::connect(&recovery, &Recovery::reloadNeeded, [this] { ++reloads; });
    }
    Recovery recovery;
    int restarts = 0;
    int reloads = 0;
};

class RecoveryTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (::unshare(CLONE_NEWNET) != 0)
            GTEST_SKIP() << "only root has a network for itself";
        ASSERT_TRUE(bus.start());
        writeFile(script,
                  "#!/bin/sh\ncd " + folder.toUtf8() +
                      "\necho \"$@\" >>looks\nread -r verdict <verdict\nexit $verdict\n",
                  0755);
        says(unchanged);
        tunnel = std::make_unique<Watched>(false);
    }
    static void says(int verdict) { writeFile(folder + u"/verdict"_s, QByteArray::number(verdict) + '\n'); }
    /// Runs `what` and waits until the script has been asked because of it.
    static void look(const std::function<void()> &what)
    {
        const qsizetype before = looks();
        what();
        EXPECT_TRUE(waitFor([&] { return looks() > before; }));
    }
    static qsizetype looks() { return contentOf(folder + u"/looks"_s).count('\n'); }
    /// The next look begins when the verdict of the one before has been heard.
    void settle() const
    {
        says(unchanged);
        look([this] { tunnel->recovery.stateChanged("CONNECTED"); });
        look([this] { tunnel->recovery.stateChanged("CONNECTED"); });
    }
    /// Another address on the loopback, and the next time without it.
    void changeNetwork()
    {
        const QString what = std::exchange(hasAddress, !hasAddress) ? u"del"_s : u"add"_s;
        EXPECT_EQ(QProcess::execute(u"ip"_s, {u"address"_s, what, u"127.0.0.9/8"_s, u"dev"_s, u"lo"_s}), 0);
    }

    static constexpr int unchanged = 0;
    static constexpr int changed = 3;
    static constexpr int noWay = 4;
    PrivateBus bus;
    std::unique_ptr<Watched> tunnel;
    bool hasAddress = false;
};

} // namespace

TEST_F(RecoveryTest, aChangeOfNetworkIsLookedIntoOnlyWhileThereIsAConnectionToKeep)
{
    says(changed);
    changeNetwork();
    tunnel->recovery.stateChanged("WAIT");
    tunnel->recovery.remoteChanged("203.0.113.20");
    // The first look is that at the connection.
    Watched other(false);
    look([&] { other.recovery.stateChanged("CONNECTED"); });
    look([&] { changeNetwork(); });
    EXPECT_TRUE(waitFor([&] { return other.restarts > 0; }));
    EXPECT_EQ(contentOf(folder + u"/looks"_s).left(12), "again \nagain");
    EXPECT_EQ(tunnel->restarts, 0);

    look([this] { tunnel->recovery.stateChanged("CONNECTED"); });
    EXPECT_TRUE(contentOf(folder + u"/looks"_s).contains("again 203.0.113.20\n"));
    tunnel->recovery.stateChanged("EXITING");
    look([&] { changeNetwork(); });
    settle();
    EXPECT_EQ(tunnel->restarts, 0);
}

TEST_F(RecoveryTest, openvpnConnectsAgainWhenTheWayHasChangedAndReadsItsFileAgainWhenThatDidNotHelp)
{
    settle();
    look([this] { changeNetwork(); });
    settle();
    EXPECT_EQ(tunnel->restarts, 0) << "nothing that concerns the server has changed";

    says(changed);
    changeNetwork();
    EXPECT_TRUE(waitFor([&] { return tunnel->restarts == 1; }));
    settle();
    Watched late(false), names(true), otherNames(true);
    for (Watched *each : {&late, &names, &otherNames})
        each->recovery.stateChanged("CONNECTED");
    otherNames.recovery.stateChanged("RECONNECTING");
    says(changed);
    changeNetwork();
    EXPECT_TRUE(waitFor([&] { return tunnel->restarts == 2 && late.restarts == 1 && names.reloads == 1; }));
    settle();
    EXPECT_TRUE(waitFor([&] { return late.reloads == 1; }));
    EXPECT_EQ(tunnel->reloads, 0) << "it has connected in time";
    EXPECT_EQ(names.restarts + otherNames.restarts, 0) << "they can look up no name";
    EXPECT_EQ(names.reloads + otherNames.reloads, 2) << "and start over once";

    // A TCP connection that has the tunnel's address does not help.
    const int before = tunnel->restarts;
    says(changed);
    for (const char *state : {"RECONNECTING", "TCP_CONNECT"})
        tunnel->recovery.stateChanged(state);
    tunnel->recovery.remoteChanged("2001:db8::20");
    EXPECT_TRUE(waitFor([&] { return tunnel->restarts == before + 1; }));
}

TEST_F(RecoveryTest, afterASleepOpenvpnConnectsAgainAsSoonAsThereIsAWay)
{
    auto manager = QDBusConnection::connectToBus(QDBusConnection::SystemBus, u"manager"_s);
    auto stranger = QDBusConnection::connectToBus(QDBusConnection::SystemBus, u"stranger"_s);
    ASSERT_TRUE(manager.registerService(u"org.freedesktop.login1"_s));
    const auto wakeUp = [](const QDBusConnection &sender) {
        for (const bool begins : {true, false}) {
            auto signal = QDBusMessage::createSignal(u"/org/freedesktop/login1"_s, u"org.freedesktop.login1.Manager"_s,
                                                     u"PrepareForSleep"_s);
            signal.setArguments({begins});
            sender.send(signal);
        }
    };
    tunnel = std::make_unique<Watched>(false);
    settle();
    wakeUp(stranger);
    settle();
    EXPECT_EQ(tunnel->restarts, 0);

    says(noWay);
    look([&] { wakeUp(manager); });
    says(unchanged);
    changeNetwork();
    EXPECT_TRUE(waitFor([&] { return tunnel->restarts == 1; })) << "there is a way now";
    look([this] { changeNetwork(); });
    settle();
    EXPECT_EQ(tunnel->restarts, 1);
}
