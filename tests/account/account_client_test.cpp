// SPDX-License-Identifier: MIT
#include "account_client.h"

#include "files.h"
#include "https_server.h"
#include "wait_for.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

using namespace testing;
using namespace Qt::StringLiterals;
using Kind = AccountAnswer::Kind;

namespace {

/// The account service. Leaves a connection open unless the request says that it is the last one.
class Service : public HttpsServer {
public:
    explicit Service(const QByteArray &signIn, const QByteArray &profile)
        : HttpsServer(
              [=](const QByteArray &request) -> Reply {
                  return {request.startsWith("GET") ? profile : signIn, !request.contains("connection: close\r\n")};
              },
              "good", 443)
    {
    }
};

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
    QCoreApplication::processEvents(); // lets go of the connection when the request is the last one
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
    const Service server(response("200 OK", "{}"), response("200 OK", "{}"));
    for (const QString &typed :
         {u"plain"_s, u" Blanks Kept "_s, u"\"quoted\" \\back\\slash"_s, u"contraseña 密码 🔑"_s, u"\u0001\t\n"_s}) {
        EXPECT_EQ(signIn(typed, typed + u"!"_s).kind(), Kind::success);
        const QByteArray request = server.requests().last();
        const QByteArray body = request.mid(request.indexOf("\r\n\r\n") + 4);
        EXPECT_EQ(nlohmann::json::parse(body.toStdString()),
                  nlohmann::json({{"email", typed.toStdString()}, {"password", typed.toStdString() + "!"}}));
        EXPECT_THAT(fields(request), UnorderedElementsAre("POST /api/login HTTP/1.1", "host: api.corvale.example",
                                                          "content-type: application/json",
                                                          "content-length: " + QByteArray::number(body.size())));
    }
    EXPECT_TRUE(server.requests().first().endsWith(R"({"email":"plain","password":"plain!"})"));
    fetchProfile(u"t"_s); // closes the connection, which the next test's request would meet as it ends
}

TEST(AccountClient, TheProfileIsAskedForWithTheTokenAndNothingKeptFromBefore)
{
    const QByteArray reply = response("200 OK", R"({"config":"client\n"})", "Set-Cookie: a=b; Path=/\r\n");
    const Service server(reply, reply);
    EXPECT_EQ(signIn(u"a"_s, u"b"_s).kind(), Kind::success);
    EXPECT_EQ(AccountClient::configuration(fetchProfile(u"to.ke-n="_s).document()), u"client\n"_s);
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
    const Service server(response("200 OK", "1"), response("401 No", ""));
    QList<Kind> kinds;
    for (int i = 0; i < 8; ++i) {
        const auto keep = [&kinds](const AccountAnswer &answer) { kinds += answer.kind(); };
        AccountClient::signIn(u"a"_s, u"b"_s, keep);
        AccountClient::fetchProfile(u"t"_s, keep);
    }
    ASSERT_TRUE(waitFor([&kinds] { return kinds.size() == 16; }));
    EXPECT_EQ(kinds.count(Kind::unreadable), 8);
    EXPECT_EQ(kinds.count(Kind::rejected), 8);
    EXPECT_EQ(server.requests().size(), 16);
}

TEST(AccountClient, AConfigurationReplacesTheWholeFileOrIsOneLineInTheLog)
{
    const QString path = u"/tmp/corvale.ovpn"_s;
    for (const auto &text : {u"# contraseña\nand more\n"_s, u"short"_s}) {
        AccountClient::writeConfiguration(text);
        EXPECT_EQ(contentOf(path), text.toUtf8());
    }
    QFile::remove(path);
    QDir().mkdir(path);
    internal::CaptureStderr();
    AccountClient::writeConfiguration(u"lost"_s);
    EXPECT_EQ(internal::GetCapturedStderr(), "Is a directory\n");
    QDir().rmdir(path);
}

} // namespace
