// SPDX-License-Identifier: MIT
#include "tcp_client.h"

#include "failures.h"
#include "tcp_peer.h"
#include "wait_for.h"

#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

/// A listener that accepts nobody. Its queue takes `length` clients, which are connected and never read; when it is
/// full the kernel lets a connect wait without an answer.
class DeafListener {
public:
    explicit DeafListener(int length)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr *>(&address), size), 0);
        ::listen(listener_, length);
        ::getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &size);
        port = ntohs(address.sin_port);
        // A queue of length 0 takes one client all the same.
        if (length == 0)
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

TEST(TCPClient, FailsWithTheSystemsReason)
{
    TCPClient unconnected("127.0.0.1", 1);
    EXPECT_EQ(failureOf(unconnected.send("x")), words(ENOTCONN));
    EXPECT_EQ(failureOf(unconnected.connect(1s)), words(ECONNREFUSED));
    EXPECT_TRUE(unconnected.read(10).bytes.isEmpty());
    EXPECT_EQ(failureOf(TCPClient("no address", 1).connect(1s)), words(EAFNOSUPPORT));

    const DeafListener full(0);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(failureOf(TCPClient("127.0.0.1", full.port).connect(200ms)), words(ETIMEDOUT));
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
    EXPECT_TRUE(client.send(large));
    EXPECT_TRUE(waitFor([&] { return peer.received().size() == large.size(); }));

    const DeafListener deaf(4);
    TCPClient unread("127.0.0.1", deaf.port);
    ASSERT_TRUE(unread.connect(3s));
    EXPECT_EQ(failureOf(unread.send(large)), words(ETIMEDOUT));
}
