// SPDX-License-Identifier: MIT
#include "openvpn_service.h"

#include "bundle.h"
#include "captured_log.h"
#include "helper_client.h"
#include "helper_connection.h"
#include "private_bus.h"
#include "silent_helper.h"
#include "tcp_peer.h"
#include "wait_for.h"

#include <QSignalSpy>

#include <algorithm>
#include <atomic>
#include <gmock/gmock.h>
#include <thread>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr quint16 managementPort = 1337;
const QByteArray openingCommands = "state on\nbytecount 1\nlog on\nusername 'Auth' ana\npassword 'Auth' x y's\\\n";

OpenVPNService &preparedService()
{
    auto &service = OpenVPNService::shared();
    service.config = u"/tmp/corvale.ovpn"_s;
    service.username = u"ana"_s;
    service.password = u"x y's\\"_s;
    return service;
}

/// Everything that the process has written to standard output since CaptureStdout.
QByteArray output()
{
    return QByteArray::fromStdString(testing::internal::GetCapturedStdout());
}

/// Starts the service against the peer and waits until the peer has heard all five commands.
void startAgainst(const TCPPeer &peer, int clients)
{
    preparedService().startOpenVPN();
    ASSERT_TRUE(waitFor([&] { return peer.clients() == clients && peer.received() == openingCommands; }))
        << peer.received().constData();
}

bool stateBecomes(const char *name)
{
    return waitFor([name] { return OpenVPNService::shared().state() == QLatin1String(name); });
}

} // namespace

TEST(OpenVPNService, StoresAndAnnouncesWhatTheRulesAccept)
{
    struct Row {
        const char *before;
        const char *update;
        const char *after;
        int announcements;
    };
    const Row rows[] = {
        {"CONNECTED", "ASSIGN_IP", "CONNECTED", 0},    {"CONNECTED", "ADD_ROUTES", "CONNECTED", 0},
        {"CONNECTED", "CONNECTED", "CONNECTED", 1},    {"CONNECTED", "WAIT", "WAIT", 1},
        {"RECONNECTING", "ASSIGN_IP", "ASSIGN_IP", 1}, {"NOPROCESS", "NOPROCESS", "NOPROCESS", 1},
        {"WAIT", "assign_ip", "assign_ip", 1},         {"WAIT", "", "", 1},
    };
    auto &service = OpenVPNService::shared();
    for (const Row &row : rows) {
        service.setState(QLatin1String(row.before));
        QSignalSpy announced(&service, &OpenVPNService::OpenVPNStateDidChange);
        service.updateState(QLatin1String(row.update));
        EXPECT_EQ(announced.count(), 0) << "announced inside the call";
        QCoreApplication::processEvents();
        EXPECT_EQ(service.state(), QLatin1String(row.after)) << row.before << row.update;
        EXPECT_EQ(announced.count(), row.announcements) << row.before << row.update;
    }
}

TEST(OpenVPNService, NeverLosesConnectedToASetUpStepOfAnotherThread)
{
    auto &service = OpenVPNService::shared();
    std::atomic<bool> stop = false;
    std::vector<std::jthread> steps;
    for (int i = 0; i < 3; ++i)
        steps.emplace_back([&] {
            while (!stop)
                service.updateState(u"ASSIGN_IP"_s);
        });
    int lost = 0;
    for (int i = 0; i < 20'000; ++i) {
        service.updateState(u"CONNECTED"_s);
        lost += service.state() == u"CONNECTED"_s ? 0 : 1;
        service.setState(u"WAIT"_s);
    }
    stop = true;
    steps.clear();
    QCoreApplication::removePostedEvents(&service);
    EXPECT_EQ(lost, 0);
}

TEST(OpenVPNService, GivesUpAfterEightAttemptsWithAPauseAfterEach)
{
    auto &service = preparedService();
    service.setState(u"NOPROCESS"_s);
    QSignalSpy announced(&service, &OpenVPNService::OpenVPNStateDidChange);
    testing::internal::CaptureStdout();
    const auto begin = std::chrono::steady_clock::now();
    service.startOpenVPN();
    const auto span = std::chrono::steady_clock::now() - begin;
    EXPECT_EQ(output(), "error while starting mgmt interface\n");
    EXPECT_GE(span, 8 * 300ms);
    EXPECT_LT(span, 8 * 300ms + 2s);
    EXPECT_TRUE(waitFor([&] { return announced.count() == 1; }));
    EXPECT_EQ(service.state(), u"NOPROCESS"_s);
}

TEST(OpenVPNService, ShowsWhatOpenVPNReportsAndStopsByACommandAlone)
{
    const TCPPeer peer(managementPort);
    startAgainst(peer, 1);
    auto &service = OpenVPNService::shared();
    QSignalSpy announced(&service, &OpenVPNService::OpenVPNStateDidChange);
    testing::internal::CaptureStdout();
    peer.send(
        ">INFO:OpenVPN\r\n>STATE:1,WAIT,,,\r\n>LOG:1,I,a:b\r\nSUCCESS: x\r\n>BYTECOUNT:1,2\r\n>NEW:1\r\nERROR: e\r\n"
        ">STATE:2,CONNECTED,SUCCESS,10.8.0.6\r\n>STATE:3,ASSIGN_IP,\r\n>ST");
    ASSERT_TRUE(stateBecomes("CONNECTED"));
    service.stopOpenVPN();
    EXPECT_TRUE(waitFor([&] { return peer.received() == openingCommands + "signal SIGINT\n"; }));
    EXPECT_EQ(service.state(), u"CONNECTED"_s);
    peer.send("ATE:4,EXITING,SIGINT,\r\n");
    EXPECT_TRUE(stateBecomes("EXITING"));
    EXPECT_TRUE(waitFor([&] { return announced.count() == 3; })) << "what the reader's thread has updated";
    EXPECT_EQ(output(), "1,I,a:b\nMGMT: Got unrecognized command>NEW:1\n"
                        "MGMT: Got unrecognized line from managmentERROR: e\nsignal SIGINT\n\n");
}

TEST(OpenVPNService, ReadsLaterConnectionsWithTheOneReaderAndAnEmptyBuffer)
{
    const TCPPeer peer(managementPort);
    startAgainst(peer, 1);
    peer.send(">STATE:1,FIRST,x\r\n>STATE:2,HALF");
    ASSERT_TRUE(stateBecomes("FIRST"));
    startAgainst(peer, 2);
    testing::internal::CaptureStdout();
    // Two readers would cut these lines to pieces between them.
    QByteArray many;
    for (int i = 0; i < 1500; ++i)
        many += ">LOG:" + QByteArray::number(i) + "\r\n";
    peer.send("\r\n" + many + ">STATE:3,SECOND,x\r\n");
    ASSERT_TRUE(stateBecomes("SECOND"));
    QByteArray expected = "MGMT: Got unrecognized line from managment\n" + many.replace(">LOG:", "").replace('\r', "");
    EXPECT_EQ(output(), expected);
}

TEST(OpenVPNService, DropsAnUnreadableChunkAndJoinsWhatStandsAroundIt)
{
    const TCPPeer peer(managementPort);
    startAgainst(peer, 1);
    testing::internal::CaptureStdout();
    const QByteArray head = ">LOG:before" + QByteArray(2048 - 11, '.');
    const QByteArray invalid = QByteArray(2047, '!') + "\xc3"; // one letter cut in two by the end of a read:
    const QByteArray other = "\xb1" + QByteArray(2047, '?');   // neither half is text
    peer.send(head + invalid + other + "after\r\n>STATE:1,DONE,\r\n");
    ASSERT_TRUE(stateBecomes("DONE"));
    EXPECT_EQ(output(), head.sliced(5) + "after\n");
}

TEST(OpenVPNService, KeepsAMegabyteWithoutALineEndAndNoMore)
{
    const QByteArray chunk(2048, 'x');
    QByteArray buffer;
    qsizetype largest = 0;
    for (int i = 0; i < 2500; ++i, largest = std::max(largest, buffer.size()))
        buffer = OpenVPNManagement::addChunk(buffer, chunk);
    EXPECT_EQ(largest, 1 << 20);
    testing::internal::CaptureStdout();
    const QByteArray left = OpenVPNManagement::addChunk(buffer, "\r\n>STATE:1,AFTER,\r\n>ST");
    output();
    EXPECT_EQ(left, ">ST");
    EXPECT_EQ(OpenVPNService::shared().state(), u"AFTER"_s);
}

TEST(OpenVPNService, EchoesACommandThatCannotBeSentWithTheReason)
{
    auto peer = std::make_unique<TCPPeer>(managementPort);
    startAgainst(*peer, 1);
    peer.reset();
    testing::internal::CaptureStdout();
    OpenVPNService::shared().stopOpenVPN();
    EXPECT_EQ(output(), "signal SIGINT\n Broken pipe\n");
}

TEST(OpenVPNService, StartsNothingWithoutAConfiguration)
{
    const TCPPeer peer(managementPort);
    auto &service = preparedService();
    service.config.reset();
    testing::internal::CaptureStdout();
    service.startOpenVPN();
    EXPECT_EQ(output(), "error while starting mgmt interface\n");
    EXPECT_FALSE(waitFor([&] { return peer.clients() > 0; }, 50ms));
}

TEST(OpenVPNService, AsksTheHelperAtEveryStartAndKnowsByItsReplyThatOpenVPNHasEnded)
{
    PrivateBus bus;
    ASSERT_TRUE(bus.start());
    const CapturedLog log;
    const HelperClient delegate;
    SilentHelper helper;
    auto peer = std::make_unique<TCPPeer>(managementPort);
    startAgainst(*peer, 1);
    ASSERT_TRUE(waitFor([&] { return helper.messages.size() == 1; }));
    const QString resources = Bundle::location() + u"/Contents/Resources/"_s;
    EXPECT_EQ(helper.messages.first().member(), u"runOpenVPN"_s);
    EXPECT_EQ(helper.messages.first().arguments(),
              QVariantList({u"/tmp/corvale.ovpn"_s, resources + u"client.up"_s, resources + u"client.down"_s}));

    // What OpenVPN said last is read before its end is told, or it would stay the state.
    peer->send(">LOG:" + QByteArray(26'000, '.') + "\r\n>STATE:1,LAST,\r\n");
    OpenVPNService::shared().setState(u"WAIT"_s);
    auto machine = QDBusConnection::systemBus();
    machine.send(helper.messages.takeFirst().createReply(137));
    ASSERT_TRUE(log.reach("OpenVPN exited: termiationStatus=137\n", 1));
    ASSERT_TRUE(stateBecomes("NOPROCESS"));
    OpenVPNService::shared().management.catchUp();
    EXPECT_EQ(OpenVPNService::shared().state(), u"NOPROCESS"_s);

    startAgainst(*peer, 2);
    ASSERT_TRUE(waitFor([&] { return helper.messages.size() == 1; }));
    OpenVPNService::shared().setState(u"WAIT"_s);
    const QString why = u"Another user's tunnel is running."_s;
    machine.send(helper.messages.takeFirst().createErrorReply(u"com.corvale.macos.helper.Error.Busy"_s, why));
    ASSERT_TRUE(log.reach("XPCService error: Another user's tunnel is running.\n", 1));
    EXPECT_EQ(OpenVPNService::shared().state(), u"WAIT"_s);
    HelperConnection::finish();
}
