// SPDX-License-Identifier: MIT
#include "tcp_client.h"

#include "failures.h"
#include "tcp_peer.h"
#include "wait_for.h"

#include <future>
#include <gmock/gmock.h>

using namespace std::chrono_literals;

TEST(TCPClient, FailsWithTheSystemsReason)
{
    TCPClient unconnected("127.0.0.1", 1);
    EXPECT_EQ(failureOf(unconnected.send("x")), words(ENOTCONN));
    EXPECT_EQ(failureOf(unconnected.connect(1s)), words(ECONNREFUSED));
    EXPECT_TRUE(unconnected.read(10).bytes.isEmpty());
    EXPECT_EQ(failureOf(TCPClient("no address", 1).connect(1s)), words(EAFNOSUPPORT));

    QTcpServer full; // takes one client even so, and lets the next one wait without an answer
    full.setListenBacklogSize(0);
    ASSERT_TRUE(full.listen(QHostAddress::LocalHost));
    ASSERT_TRUE(TCPClient("127.0.0.1", full.serverPort()).connect(1s));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(failureOf(TCPClient("127.0.0.1", full.serverPort()).connect(200ms)), words(ETIMEDOUT));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 200ms);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
}

TEST(TCPClient, ReadsAtMostWhatIsAskedForAndNothingAfterTheEnd)
{
    TCPPeer peer;
    TCPClient client("127.0.0.1", peer.port());
    ASSERT_TRUE(client.connect(3s));
    EXPECT_TRUE(client.read(4).bytes.isEmpty()) << "nothing is pending yet, and it must not wait";
    ASSERT_TRUE(waitFor([&] { return peer.clients() == 1; }));
    peer.send("abcdef");
    QByteArray first;
    ASSERT_TRUE(waitFor([&] { return !(first = client.read(4).bytes).isEmpty(); }));
    EXPECT_EQ(first, "abcd");
    EXPECT_EQ(client.read(4).bytes, "ef");

    peer.closeClient();
    ASSERT_TRUE(waitFor([&] { return !client.send("x"); }));
    EXPECT_EQ(failureOf(client.send("x")), words(EPIPE));
    EXPECT_TRUE(client.read(4).bytes.isEmpty());
}

TEST(TCPClient, KeepsNothingOfAnEarlierConnectionWhetherTheNextOneSucceedsOrFails)
{
    auto peer = std::make_unique<TCPPeer>();
    TCPClient client("127.0.0.1", peer->port());
    ASSERT_TRUE(client.connect(3s));
    EXPECT_EQ(client.read(1).connection, 1U);
    // The peer serves one client at a time: it sees the second only once the first has left.
    ASSERT_TRUE(client.connect(3s));
    ASSERT_TRUE(waitFor([&] { return peer->clients() == 2; }));
    EXPECT_EQ(client.read(1).connection, 2U);
    peer.reset();
    EXPECT_EQ(failureOf(client.connect(3s)), words(ECONNREFUSED));
    EXPECT_EQ(failureOf(client.send("x")), words(ENOTCONN));
    EXPECT_EQ(client.read(1).connection, 0U);
}

TEST(TCPClient, SendsAnyAmountButGivesUpOnAPeerThatDoesNotRead)
{
    const QByteArray large(8 << 20, 'x');
    TCPPeer peer;
    TCPClient client("127.0.0.1", peer.port());
    ASSERT_TRUE(client.connect(3s));
    auto sent = std::async(std::launch::async, [&] { return failureOf(client.send(large)); });
    EXPECT_TRUE(waitFor([&] { return peer.received().size() == large.size(); }));
    EXPECT_EQ(sent.get(), "nothing");

    TCPClient unread("127.0.0.1", peer.port()); // nobody runs the peer's events now
    ASSERT_TRUE(unread.connect(3s));
    EXPECT_EQ(failureOf(unread.send(large)), words(ETIMEDOUT));
}
