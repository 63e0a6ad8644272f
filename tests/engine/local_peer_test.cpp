// SPDX-License-Identifier: MIT
#include "local_peer.h"
#include "tcp_client.h"
#include "tcp_peer.h"
#include "wait_for.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

constexpr uid_t stranger = 65534;
constexpr char head[] =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n";

/// A line of the kernel's table: local and remote end, state, user, inode.
std::string row(const char *local, const char *remote, const char *state, int user, int inode)
{
    return std::string("   0: ") + local + ' ' + remote + ' ' + state + " 00000000:00000000 00:00000000 00000000  " +
           std::to_string(user) + "        0 " + std::to_string(inode) + " 1 00000000014eaa9d 100 0 0 10 0\n";
}

/// A listener of another user that accepts at once, or never; and what it has read.
class Stranger {
public:
    explicit Stranger(bool accepts)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        int ends[2];
        if (::pipe(ends) != 0)
            return;
        child_ = ::fork();
        if (child_ == 0) {
            const int listener = ::setuid(stranger) == 0 ? ::socket(AF_INET, SOCK_STREAM, 0) : -1;
            ::bind(listener, reinterpret_cast<sockaddr *>(&address), size);
            ::listen(listener, 5);
            ::getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size);
            const ssize_t told = ::write(ends[1], &address.sin_port, sizeof address.sin_port);
            char byte = 0;
            while (told > 0 && accepts)
                if (::read(::accept(listener, nullptr, nullptr), &byte, 1) > 0)
                    ::_exit(1);
            ::pause();
        }
        if (::read(ends[0], &address.sin_port, sizeof address.sin_port) > 0)
            port = ntohs(address.sin_port);
        ::close(ends[0]);
        ::close(ends[1]);
    }
    ~Stranger()
    {
        ::kill(child_, SIGKILL);
        ::waitpid(child_, nullptr, 0);
    }
    Stranger(const Stranger &) = delete;
    Stranger &operator=(const Stranger &) = delete;

    [[nodiscard]] bool readNothing() const { return ::waitpid(child_, nullptr, WNOHANG) == 0; } ///< ask once
    quint16 port = 0;

private:
    pid_t child_ = -1;
};

} // namespace

TEST(LocalPeer, belongsToWhoeverHasAcceptedTheConnectionAndBeforeThatToTheListener)
{
    constexpr char peer[] = "0100007F:0539";
    constexpr char us[] = "0100007F:9C40";
    constexpr char nobody[] = "00000000:0000";
    struct Row {
        const char *what;
        std::string lines;
        std::optional<uid_t> owner;
    };
    const Row rows[] = {
        {"accepted", row(peer, nobody, "0A", 0, 7) + row(peer, us, "01", 0, 8), 0},
        {"accepted by one that is gone, and another listens",
         row(peer, nobody, "0A", 0, 7) + row(peer, us, "01", 33, 8), 33},
        {"in the queue of another user", row(peer, nobody, "0A", 33, 7) + row(peer, us, "01", 0, 0), 33},
        {"in the queue of one that listens everywhere",
         row("00000000:0539", nobody, "0A", 33, 7) + row(peer, us, "01", 0, 0), 33},
        {"in nobody's queue", row(peer, us, "01", 0, 0), std::nullopt},
        {"our own end alone", row(peer, nobody, "0A", 0, 7) + row(us, peer, "01", 0, 8), std::nullopt},
        {"another connection", row(peer, "0100007F:9C41", "01", 0, 8), std::nullopt},
        {"cut short", row(peer, us, "01", 0, 8).substr(0, 60), std::nullopt},
    };
    for (const Row &one : rows)
        EXPECT_EQ(LocalPeer::ownerIn(QByteArray::fromStdString(head + one.lines), {40000, 1337}), one.owner)
            << one.what;
}

TEST(LocalPeer, aStrangersListenerGetsNoByteAndOnesOwnIsReached)
{
    const TCPPeer own;
    EXPECT_FALSE(TCPClient("127.0.0.1", own.port(), LocalPeer::isTrusted).connect(3s));
    if (::geteuid() != 0)
        GTEST_SKIP() << "another user's listener needs root";
    for (const bool accepts : {true, false}) {
        const Stranger other(accepts);
        ASSERT_NE(other.port, 0);
        TCPClient client("127.0.0.1", other.port, LocalPeer::isTrusted);
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(client.connect(3s)->number, EPERM);
            EXPECT_EQ(client.send("password")->number, ENOTCONN);
        }
        EXPECT_TRUE(other.readNothing());
    }
}
