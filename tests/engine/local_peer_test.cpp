// SPDX-License-Identifier: MIT
#include "local_peer.h"

#include "files.h"
#include "openvpn_management.h"

#include <QTcpServer>

#include <csignal>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

constexpr quint16 managementPort = 1337;
constexpr char head[] =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n";

/// A line of the kernel's table: local and remote end, state, user, inode.
std::string row(const char *local, const char *remote, const char *state, int user, int inode)
{
    return std::string("   0: ") + local + ' ' + remote + ' ' + state + " 00000000:00000000 00:00000000 00000000  " +
           std::to_string(user) + "        0 " + std::to_string(inode) + " 1 00000000014eaa9d 100 0 0 10 0\n";
}

/// Runs `work` in a child process of this user.
template <typename Work>
pid_t inChild(uid_t user, Work work)
{
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(::setuid(user) == 0 ? work() : EXIT_FAILURE);
    return child;
}

/// Listens on the management port, accepts whoever comes or nobody, and says when it listens.
int listenOnPort(bool accepts, int ready)
{
    QTcpServer listener;
    if (!listener.listen(QHostAddress::LocalHost, managementPort) || ::write(ready, "", 1) != 1)
        return EXIT_FAILURE;
    while (accepts && listener.waitForNewConnection(-1)) {
    }
    return ::pause();
}

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

TEST(LocalPeer, aListenerIsTrustedWhenItIsRootsOrTheClientsOwnUsers)
{
    if (!canActForOthers())
        GTEST_SKIP() << "no other user gets at files here";
    for (const uid_t user : {0U, 33U}) {
        for (const bool accepts : {true, false}) {
            SCOPED_TRACE(testing::Message() << "listener " << user << (accepts ? ", accepting" : ""));
            int ready[2];
            ASSERT_EQ(::pipe(ready), 0);
            const pid_t listener = inChild(user, [=] { return listenOnPort(accepts, ready[1]); });
            ::close(ready[1]);
            char byte = 0;
            EXPECT_EQ(::read(ready[0], &byte, 1), 1);
            for (const uid_t client : {0U, 33U, 34U}) {
                // With the connection that the tunnel service uses.
                const pid_t asking = inChild(client, [] { return OpenVPNManagement().socket.connect(3s) ? 0 : 1; });
                int status = -1;
                EXPECT_EQ(::waitpid(asking, &status, 0), asking);
                EXPECT_EQ(status == 0, user == 0 || user == client) << "client " << client;
            }
            ::kill(listener, SIGKILL);
            ::waitpid(listener, nullptr, 0);
            ::close(ready[0]);
        }
    }
}
