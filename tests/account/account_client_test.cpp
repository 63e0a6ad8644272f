// SPDX-License-Identifier: MIT
#include "account_client.h"

#include "background_queue.h"
#include "https_server.h"
#include "openvpn_service.h"
#include "wait_for.h"

#include <QDir>
#include <QFile>
#include <QTcpServer>
#include <QTcpSocket>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

using namespace testing;
using namespace Qt::StringLiterals;
using Kind = AccountAnswer::Kind;

namespace {

constexpr quint16 https = 443;
const QString configuration = u"/tmp/corvale.ovpn"_s;

template <typename Request>
AccountAnswer answerTo(Request request)
{
    std::optional<AccountAnswer> got;
    request([&got](const AccountAnswer &answer) {
        EXPECT_FALSE(got) << "completed twice";
        got = answer;
    });
    EXPECT_FALSE(got) << "completed inside the call";
    EXPECT_TRUE(waitFor([&got] { return got.has_value(); }));
    QCoreApplication::processEvents(); // connections are let go of after the completion
    return got.value_or(AccountAnswer(Kind::success));
}

AccountAnswer signIn(const QString &email, const QString &password)
{
    return answerTo([&](auto completion) { AccountClient::signIn(email, password, completion); });
}

AccountAnswer fetchProfile(const QString &token)
{
    return answerTo([&](auto completion) { AccountClient::fetchProfile(token, completion); });
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(none)");
}

QByteArrayList fields(const QByteArray &request)
{
    QByteArrayList lines = request.left(request.indexOf("\r\n\r\n")).split('\n');
    for (QByteArray &line : lines)
        line = line.trimmed();
    lines.removeIf([](const QByteArray &line) {
        return line.startsWith("accept") || line.startsWith("user-agent: ") || line.startsWith("connection: ");
    });
    return lines;
}

TEST(AccountClient, SignInPostsExactlyTheTwoTextsAsTyped)
{
    const HttpsServer server(
        [](const QByteArray &) {
            return HttpsServer::Reply{response("200 OK", "{}"), true};
        },
        "good", https);
    for (const QString &typed :
         {u"plain"_s, u" Blanks Kept "_s, u"\"quoted\" \\back\\slash"_s, u"contraseña 密码 🔑"_s, u"\u0001\t\n"_s}) {
        SCOPED_TRACE(typed.toStdString());
        EXPECT_EQ(signIn(typed, typed + u"!"_s).kind(), Kind::success);
        const QByteArray request = server.requests().last();
        const QByteArray body = request.mid(request.indexOf("\r\n\r\n") + 4);
        EXPECT_EQ(nlohmann::json::parse(body.toStdString()),
                  nlohmann::json({{"email", typed.toStdString()}, {"password", typed.toStdString() + "!"}}));
        EXPECT_THAT(fields(request), UnorderedElementsAre("POST /api/login HTTP/1.1", "host: api.corvale.example",
                                                          "content-type: application/json",
                                                          "content-length: " + QByteArray::number(body.size())));
    }
    fetchProfile(u"t"_s); // lets go of the connection, which the next test's request would meet as it ends
    EXPECT_TRUE(server.requests().first().endsWith(R"({"email":"plain","password":"plain!"})"));
}

TEST(AccountClient, TheProfileIsAskedForWithTheTokenAndNothingKeptFromBefore)
{
    const HttpsServer server(
        [](const QByteArray &request) {
            return HttpsServer::Reply{response("200 OK", R"({"config":"client\n"})", "Set-Cookie: a=b; Path=/\r\n"),
                                      !request.contains("connection: close\r\n")};
        },
        "good", https);
    EXPECT_EQ(signIn(u"a"_s, u"b"_s).kind(), Kind::success);
    const AccountAnswer answer = fetchProfile(u"to.ke-n="_s);
    EXPECT_EQ(AccountClient::configuration(answer.document()), u"client\n"_s);
    EXPECT_THAT(fields(server.requests().value(1)),
                UnorderedElementsAre("GET /api/profile?country_code=CO HTTP/1.1", "host: api.corvale.example",
                                     "authorization: Bearer to.ke-n="));
    EXPECT_EQ(server.connections(), 1);
    EXPECT_EQ(signIn(u"a"_s, u"b"_s).kind(), Kind::success);
    EXPECT_EQ(server.connections(), 2) << "the tunnel has changed the way to the server meanwhile";
    fetchProfile(u"t"_s);
}

TEST(AccountClient, RequestsUnderWayTogetherCompleteEachOnItsOwn)
{
    const HttpsServer server(
        [](const QByteArray &request) {
            const bool profile = request.startsWith("GET");
            return HttpsServer::Reply{profile ? response("401 No", "") : response("200 OK", "1"), true};
        },
        "good", https);
    std::vector<Kind> kinds;
    for (int i = 0; i < 8; ++i) {
        const auto keep = [&kinds](const AccountAnswer &answer) { kinds.push_back(answer.kind()); };
        AccountClient::signIn(u"a"_s, u"b"_s, keep);
        AccountClient::fetchProfile(u"t"_s, keep);
    }
    ASSERT_TRUE(waitFor([&kinds] { return kinds.size() == 16; }));
    EXPECT_EQ(std::count(kinds.begin(), kinds.end(), Kind::unreadable), 8);
    EXPECT_EQ(std::count(kinds.begin(), kinds.end(), Kind::rejected), 8);
    EXPECT_EQ(server.requests().size(), 16);
}

TEST(AccountClient, WithoutAServerBothRequestsAreNetworkFailures)
{
    EXPECT_EQ(signIn(u"a"_s, u"b"_s).kind(), Kind::networkFailure);
    EXPECT_EQ(fetchProfile(u"t"_s).kind(), Kind::networkFailure);
}

TEST(AccountClient, AConfigurationReplacesTheWholeFileOrIsOneLineInTheLog)
{
    AccountClient::writeConfiguration(u"# contraseña\nand more\n"_s);
    EXPECT_EQ(contentOf(configuration), "# contraseña\nand more\n");
    AccountClient::writeConfiguration(u"short"_s);
    EXPECT_EQ(contentOf(configuration), "short");

    QFile::remove(configuration);
    QDir().mkdir(configuration);
    internal::CaptureStderr();
    AccountClient::writeConfiguration(u"lost"_s);
    EXPECT_EQ(internal::GetCapturedStderr(), "Is a directory\n");
    QDir().rmdir(configuration);
}

TEST(AccountClient, StartingTheTunnelHandsOverThePathAndTheCredentials)
{
    QTcpServer openvpn;
    ASSERT_TRUE(openvpn.listen(QHostAddress::LocalHost, 1337));
    AccountClient::startTunnel(u"me@x"_s, u"contraseña"_s);
    EXPECT_EQ(OpenVPNService::shared().config, configuration);

    ASSERT_TRUE(waitFor([&openvpn] { return openvpn.hasPendingConnections(); }));
    auto *const client = openvpn.nextPendingConnection();
    QByteArray commands;
    EXPECT_TRUE(waitFor([&] { return (commands += client->readAll()).contains("password 'Auth' contraseña\n"); }));
    EXPECT_THAT(commands.toStdString(), HasSubstr("username 'Auth' me@x\n"));
    BackgroundQueue::finish();
}

} // namespace
