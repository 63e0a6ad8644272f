// SPDX-License-Identifier: MIT
#include "tcp_client.h"

#include "tcp_peer.h"
#include "wait_for.h"

#include <atomic>
#include <cerrno>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

/// A listener that accepts nobody: its queue holds `places` clients more, which are connected and never read; without
/// a place the kernel lets a connect wait without an answer.
class DeafListener {
public:
    explicit DeafListener(int places)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        ::bind(listener_, reinterpret_cast<sockaddr *>(&address), size);
        ::listen(listener_, places);
        ::getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &size);
        port = ntohs(address.sin_port);
        // A queue of length 0 has one place all the same.
        if (places == 0)
            (void)::connect(waiting_, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    }
    ~DeafListener()
    {
        ::close(waiting_);
        ::close(listener_);
    }
    quint16 port = 0;

private:
    int listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    int waiting_ = ::socket(AF_INET, SOCK_STREAM, 0);
};

} // namespace

TEST(TCPClient, FailsWithTheSystemsReasonAndNeverRaises)
{
    TCPClient unconnected("127.0.0.1", 1);
    EXPECT_EQ(unconnected.send("x")->number, ENOTCONN);
    EXPECT_EQ(unconnected.connect(1s)->number, ECONNREFUSED);
    EXPECT_EQ(unconnected.connect(1s)->text(), QString::fromLatin1("Connection refused"));
    EXPECT_TRUE(unconnected.read(10).bytes.isEmpty());
    EXPECT_EQ(TCPClient("no address", 1).connect(1s)->number, EAFNOSUPPORT);
}

TEST(TCPClient, GivesUpAtItsTimeLimit)
{
    const DeafListener deaf(0);
    TCPClient client("127.0.0.1", deaf.port);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(client.connect(200ms)->number, ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 200ms);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
}

TEST(TCPClient, ReadsAtMostWhatIsAskedForAndNothingAfterTheEnd)
{
    TCPPeer peer;
    TCPClient client("127.0.0.1", peer.port());
    ASSERT_FALSE(client.connect(3s));
    EXPECT_TRUE(client.read(4).bytes.isEmpty()) << "nothing is pending yet, and it must not wait";
    ASSERT_TRUE(waitFor([&] { return peer.clients() == 1; }));
    peer.send("abcdef");
    QByteArray first;
    ASSERT_TRUE(waitFor([&] { return !(first = client.read(4).bytes).isEmpty(); }));
    EXPECT_EQ(first, "abcd");
    EXPECT_EQ(client.read(4).bytes, "ef");

    peer.closeClient();
    ASSERT_TRUE(waitFor([&] { return client.send("x").has_value(); }));
    EXPECT_EQ(client.send("x")->number, EPIPE);
    EXPECT_TRUE(client.read(4).bytes.isEmpty());
}

TEST(TCPClient, SendsAnyAmountButGivesUpOnAPeerThatDoesNotRead)
{
    const QByteArray large(8 << 20, 'x');
    TCPPeer peer;
    TCPClient client("127.0.0.1", peer.port());
    ASSERT_FALSE(client.connect(3s));
    EXPECT_FALSE(client.send(large));
    EXPECT_TRUE(waitFor([&] { return peer.received().size() == large.size(); }));

    const DeafListener deaf(4);
    TCPClient unread("127.0.0.1", deaf.port);
    ASSERT_FALSE(unread.connect(3s));
    EXPECT_EQ(unread.send(large)->number, ETIMEDOUT);
}

TEST(TCPClient, ClosesTheEarlierConnectionBeforeTheNext)
{
    TCPPeer peer;
    TCPClient client("127.0.0.1", peer.port());
    ASSERT_FALSE(client.connect(3s));
    ASSERT_TRUE(waitFor([&] { return peer.clients() == 1; }));
    ASSERT_FALSE(client.connect(3s));
    // The peer serves one client at a time: it sees the second only once the first has left.
    ASSERT_TRUE(waitFor([&] { return peer.clients() == 2; }));
    EXPECT_FALSE(client.send("again"));
    EXPECT_TRUE(waitFor([&] { return peer.received() == "again"; }));
}

TEST(TCPClient, ReadsOnlyItsOwnConnectionWhileAnotherThreadReconnects)
{
    TCPPeer peer;
    TCPPeer stranger; // its descriptors take the numbers that the client has just let go
    TCPClient client("127.0.0.1", peer.port());
    std::atomic<bool> stop = false;
    std::atomic<int> wrong = 0;
    std::atomic<int> chunks = 0;
    std::thread reader([&] {
        while (!stop) {
            const auto chunk = client.read(64);
            chunks += chunk.bytes.isEmpty() ? 0 : 1;
            for (const char byte : chunk.bytes)
                wrong += byte == static_cast<char>(chunk.connection) ? 0 : 1;
        }
    });
    for (int i = 1; i <= 100; ++i) {
        EXPECT_FALSE(client.connect(3s));
        TCPClient other("127.0.0.1", stranger.port());
        EXPECT_FALSE(other.connect(3s));
        ASSERT_TRUE(waitFor([&] { return peer.clients() == i && stranger.clients() == i; }));
        stranger.send("zzzz");
        peer.send(QByteArray(64, static_cast<char>(i)));
    }
    EXPECT_TRUE(waitFor([&] { return chunks > 0; }));
    stop = true;
    reader.join();
    EXPECT_EQ(wrong, 0);
}
