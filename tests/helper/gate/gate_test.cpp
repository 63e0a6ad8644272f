// SPDX-License-Identifier: MIT
#include "child_process.h"
#include "credentials.h"
#include "files.h"
#include "management_text.h"
#include "wait_for.h"

#include <QTemporaryDir>

#include <gmock/gmock.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

using namespace std::chrono_literals;
using testing::HasSubstr;
using Kind = ManagementText::Meaning::Kind;

namespace {

constexpr char login[] = "username 'Auth' ana\npassword 'Auth' x y\n";
constexpr char asks[] = ">PASSWORD:Need 'Auth' username/password\r\n";
constexpr char took[] = "SUCCESS: 'Auth' username entered, but not yet verified\r\n"
                        "SUCCESS: 'Auth' password entered, but not yet verified\r\n";
constexpr char connected[] = ">STATE:1,CONNECTED,SUCCESS,10.8.0.2,203.0.113.20,1194,,\r\n";
constexpr char own[] = "state on\nlog on\n";

/// One end of a connection.
class End : public Descriptor {
public:
    explicit End(int descriptor = -1) : Descriptor(descriptor)
    {
        const timeval timeout{10, 0};
        ::setsockopt(get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        ::setsockopt(get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    }
    bool say(const std::string &text) const
    {
        return ::send(get(), text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
    }
    /// What comes next, up to that many bytes or the other end's close.
    std::string hear(size_t most = SIZE_MAX) const
    {
        std::string heard;
        char bytes[65536];
        for (ssize_t got = 1; got > 0 && heard.size() < most;
             heard.append(bytes, static_cast<size_t>(std::max<ssize_t>(got, 0))))
            got = ::recv(get(), bytes, std::min(sizeof bytes, most - heard.size()), 0);
        return heard;
    }
    std::string message() const
    {
        char bytes[2000];
        return {bytes, static_cast<size_t>(std::max<ssize_t>(::recv(get(), bytes, sizeof bytes, 0), 0))};
    }
    bool isSilent(int milliseconds = 200) const
    {
        pollfd watched{get(), POLLIN, 0};
        return ::poll(&watched, 1, milliseconds) == 0;
    }
};

/// The gate as a process of its own, between this test's clients and an OpenVPN that this test plays.
class GateTest : public testing::Test {
protected:
    void SetUp() override
    {
        port_.sin_family = AF_INET;
        port_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof port_;
        ASSERT_EQ(::bind(listener_.get(), reinterpret_cast<sockaddr *>(&port_), size), 0);
        ::getsockname(listener_.get(), reinterpret_cast<sockaddr *>(&port_), &size);
        ::listen(listener_.get(), SOMAXCONN);
        int ends[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        ::fcntl(ends[1], F_SETFL, O_NONBLOCK);
        control = End(ends[0]);
        const Descriptor gates(ends[1]);
        auto started = ChildProcess::start({GATE, "gate", QByteArray::number(::getuid()), socketPath()},
                                           {listener_.get(), gates.get()});
        ASSERT_TRUE(started);
        listener_.close();
        gate = std::move(*started);
        QObject::connect(gate.get(), &ChildProcess::ended, [this](int status) { ended = status; });
    }
    void TearDown() override
    {
        control.close();
        EXPECT_TRUE(ends());
        EXPECT_EQ(ended, 0);
    }
    /// Only now does OpenVPN listen.
    void openvpn()
    {
        sockaddr_un address{AF_UNIX, {}};
        ::memcpy(address.sun_path, socketPath().constData(), static_cast<size_t>(socketPath().size()));
        ASSERT_EQ(::bind(openvpn_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        ASSERT_EQ(::listen(openvpn_.get(), 1), 0);
    }
    End client() const
    {
        End made(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(::connect(made.get(), reinterpret_cast<const sockaddr *>(&port_), sizeof port_), 0);
        return made;
    }
    /// The next connection that the gate opens.
    End upstream() const
    {
        pollfd watched{openvpn_.get(), POLLIN, 0};
        return End(::poll(&watched, 1, 10'000) == 1 ? ::accept4(openvpn_.get(), nullptr, nullptr, SOCK_CLOEXEC) : -1);
    }
    QByteArray socketPath() const { return QFile::encodeName(folder_.filePath(QStringLiteral("management"))); }
    bool ends() const
    {
        return waitFor([this] { return ended >= 0; });
    }

    End control;
    std::unique_ptr<ChildProcess> gate;
    int ended = -1;

private:
    QTemporaryDir folder_;
    sockaddr_in port_{};
    Descriptor listener_{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    End openvpn_{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

} // namespace

TEST_F(GateTest, passesWhatAClientSaysAndEveryByteOfOpenvpnsAndTellsTheHelper)
{
    const End early = client();
    const std::string opening = std::string("state on\nbytecount 1\r\nlog on\n") + login;
    for (const char each : opening)
        early.say({each});
    openvpn();
    const End first = upstream();
    EXPECT_EQ(first.hear(opening.size()), opening) << "it was there before OpenVPN";
    const std::string said = std::string(connected) + ">LOG:1,I,UDPv4 link remote: [AF_INET]203.0.113.20:1194\r\n" +
                             ">LOG:1,I,Peer says: UDPv4 link remote: [AF_INET]203.0.113.21:1194\r\nhalf a line";
    first.say(said);
    EXPECT_EQ(early.hear(said.size()), said);
    EXPECT_EQ(control.message(), "state CONNECTED");
    EXPECT_EQ(control.message(), "remote 203.0.113.20");
    EXPECT_TRUE(control.isSilent());

    const QByteArray status = contentOf(QStringLiteral("/proc/%1/status").arg(gate->pid()));
    for (const char *const set : {"CapInh", "CapPrm", "CapEff", "CapAmb"})
        EXPECT_TRUE(status.contains(QByteArray(set) + ":\t0000000000000000")) << set;
    EXPECT_TRUE(status.contains("NoNewPrivs:\t1"));
}

TEST_F(GateTest, oneClientIsServedAtATimeEachOverAFreshConnectionAndBetweenThemTheGateListens)
{
    openvpn();
    End first = client();
    End connection = upstream();
    const End second = client();
    second.say("log on\n");
    first.say("signal SIGTERM\nhalf");
    first.close();
    EXPECT_EQ(connection.hear(), "signal SIGTERM\n");
    connection = upstream();
    EXPECT_EQ(connection.hear(7), "log on\n");
    ::shutdown(second.get(), SHUT_WR);
    connection = upstream();
    EXPECT_EQ(connection.hear(sizeof own - 1), own);
    for (int i = 0; i < 300; ++i)
        client();
    const End last = client();
    EXPECT_EQ(connection.hear(), "") << "it is closed before the next one";
    for (bool served = false; !served;) { // those that have left take their turns, too
        connection = upstream();
        ASSERT_TRUE(connection);
        connection.say(">INFO:hello\r\n");
        served = !last.isSilent(10);
    }
    EXPECT_EQ(last.hear(13), ">INFO:hello\r\n");
}

TEST_F(GateTest, whatNoClientSaysClosesTheConnectionBeforeItReachesOpenvpn)
{
    openvpn();
    const std::string word(300 << 10, 'x');
    for (const std::string &bad :
         {std::string("POST / HTTP/1.1\r\nHost: localhost\r\n\r\nsignal SIGTERM\n"), std::string("verb 7\nstate on\n"),
          std::string("bytecount 2147483648\n"), std::string("signal SIGKILL\n"), "password 'Auth' " + word}) {
        const End bold = client();
        const End connection = upstream();
        bold.say("state on\n");
        EXPECT_EQ(connection.hear(9), "state on\n");
        bold.say(bad);
        EXPECT_EQ(connection.hear(), "") << bad.substr(0, 30);
        EXPECT_EQ(bold.hear(), "");
        EXPECT_EQ(upstream().hear(sizeof own - 1), own);
    }
    // OpenVPN would take the end of this one for a command, and does not get it; the client may go on.
    const End wordy = client();
    wordy.say("password 'Auth' " + word.substr(0, 200 << 10) + "verb 7\nlog on\n");
    EXPECT_EQ(upstream().hear(7), "log on\n");
}

TEST_F(GateTest, anotherUsersClientsAreToldSoAndHeardNoFurther)
{
    if (!canActForOthers())
        GTEST_SKIP() << "no other user gets at files here";
    openvpn();
    std::vector<End> others;
    ASSERT_EQ(::seteuid(65534), 0);
    for (int i = 0; i < 40; ++i)
        others.push_back(client());
    ASSERT_EQ(::seteuid(0), 0);
    for (const End &each : others)
        each.say("signal SIGTERM\n");
    const End mine = client();
    mine.say("log on\n");
    EXPECT_EQ(upstream().hear(7), "log on\n");
    EXPECT_THAT(others.back().hear(), testing::MatchesRegex(">STATE:[0-9]+,EXITING,another-user,,,,,\r\n"));
}

TEST_F(GateTest, aClientThatDoesNotReadMissesLogLinesAndNobodyElseAnything)
{
    openvpn();
    const End idle = client();
    const End connection = upstream();
    const std::string line = ">LOG:1,I," + std::string(1000, 'x') + "\r\n";
    for (int i = 0; i < 16'000; ++i)
        ASSERT_TRUE(connection.say(line));
    connection.say(connected);
    EXPECT_EQ(control.message(), "state CONNECTED");
    std::string heard;
    while (!heard.ends_with(connected))
        heard += idle.hear(1);
    EXPECT_LT(heard.size(), 12U << 20);
    EXPECT_EQ((heard.size() - sizeof connected + 1) % line.size(), 0U) << "lines were cut";
    // States are kept for it, but not for ever.
    for (int i = 0; i < 16; ++i)
        connection.say(">STATE:1,WAIT" + std::string(1 << 20, 'x') + "\r\n");
    EXPECT_LT(idle.hear().size(), 16U << 20) << "it is not closed";
}

TEST_F(GateTest, credentialsThatMadeAConnectionAreGivenAgainUntilTheyAreRefused)
{
    openvpn();
    End first = client();
    End connection = upstream();
    connection.say(asks);
    first.say(login);
    EXPECT_EQ(connection.hear(sizeof login - 1), login);
    connection.say(std::string(took) + asks);
    EXPECT_TRUE(connection.isSilent()) << "they have made no connection yet";
    first.say(login);
    EXPECT_EQ(connection.hear(sizeof login - 1), login);
    connection.say(std::string(took) + connected + asks);
    EXPECT_EQ(connection.hear(sizeof login - 1), login);
    connection.say(took);
    first.close();
    EXPECT_EQ(connection.hear(), "");

    connection = upstream();
    EXPECT_EQ(connection.hear(sizeof own - 1), own);
    connection.say(asks);
    EXPECT_EQ(connection.hear(sizeof login - 1), login);
    connection.say(std::string(took) + ">PASSWORD:Verification Failed: 'Auth'\r\n" + asks);
    EXPECT_TRUE(connection.isSilent());
}

TEST_F(GateTest, endsWithTheHelperOnceTheClientHasOpenvpnsLastWords)
{
    openvpn();
    const End served = client();
    End connection = upstream();
    const End next = client();
    control.close();
    EXPECT_THAT(next.hear(), HasSubstr(",EXITING,ended,"));
    connection.say(connected);
    EXPECT_EQ(served.hear(sizeof connected - 1), connected);
    EXPECT_EQ(ended, -1);
    connection.close();
    EXPECT_EQ(served.hear(), "");
    EXPECT_TRUE(ends());
}

TEST_F(GateTest, aClientOfAnOpenvpnThatEndsBeforeItsFirstStateIsToldOfAnEnd)
{
    const End served = client();
    served.say("state on\n");
    control.close();
    EXPECT_THAT(served.hear(), HasSubstr(",EXITING,ended,"));
}

TEST(Credentials, areGivenThreeTimesAMinuteAndNotInTheMiddleOfAClientsOwn)
{
    Credentials credentials;
    Credentials::Clock::time_point now{};
    const auto hear = [&](std::initializer_list<ManagementText::Meaning> said) {
        for (const auto &each : said)
            credentials.heard(each, now);
    };
    const auto give = [&](const char *user, const char *password) {
        credentials.sent(user);
        credentials.sent(password);
    };
    hear({{Kind::Needed, {}}});
    EXPECT_EQ(credentials.due(false), Credentials::never) << "the first client answers itself";
    give("username 'Auth' a\n", "password 'Auth' b\n");
    hear({{Kind::UsernameTaken, {}}, {Kind::PasswordTaken, {}}, {Kind::State, "CONNECTED"}});
    // What OpenVPN refuses changes nothing.
    give("username 'Auth' c\n", "password 'Auth' d\n");
    hear({{Kind::Needed, {}}});
    EXPECT_EQ(credentials.due(false), Credentials::never) << "a client's answer is on its way";
    hear({{Kind::UsernameNotTaken, {}}, {Kind::PasswordNotTaken, {}}});
    EXPECT_EQ(credentials.due(true), now + Credentials::clientsTurn);
    for (int i = 0; i < 3; ++i, now += 1s) {
        ASSERT_EQ(credentials.due(false), now);
        std::string given;
        credentials.giveAgain(now, [&](QByteArrayView line) { given += line.toByteArray().toStdString(); });
        EXPECT_EQ(given, "username 'Auth' a\npassword 'Auth' b\n");
        EXPECT_EQ(credentials.due(false), Credentials::never);
        hear({{Kind::UsernameTaken, {}}, {Kind::PasswordTaken, {}}});
        now += 1s;
        hear({{Kind::Needed, {}}});
        now -= 1s;
    }
    EXPECT_EQ(credentials.due(false), Credentials::Clock::time_point{} + 1min);
}

TEST(ManagementText, knowsAddressesAndStates)
{
    constexpr char tcp[] = ">LOG:1,I,Attempting to establish TCP connection with [AF_INET]203.0.113.20:443";
    const struct {
        const char *line;
        ManagementText::Meaning meaning;
    } rows[] = {
        {">STATE:1,WAIT,,,,,,\r", {Kind::State, "WAIT"}},
        {">STATE:1,WAIT", {}},
        {tcp, {Kind::Remote, "203.0.113.20"}},
        {">LOG:1,I,UDPv6 link remote: [AF_INET6]2001:db8::1:1194", {Kind::Remote, "2001:db8::1"}},
        {">LOG:1,I,UDPv4 link remote: [AF_UNSPEC]", {}},
        {">LOG:1,I,UDPv4 link remote: [AF_INET]203.0.113.20:", {}},
        {">PASSWORD:Need 'Auth' username/password SC:1,PIN", {}},
        {">PASSWORD:Verification Failed: 'Private Key'", {}},
        {">PASSWORD:Verification Failed: 'Auth' ['expired']", {Kind::Failed, {}}},
    };
    for (const auto &[line, meaning] : rows)
        EXPECT_EQ(ManagementText::meaningOf(line), meaning) << line;
}
