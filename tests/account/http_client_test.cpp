// SPDX-License-Identifier: MIT
#include "http_client.h"

#include "https_server.h"
#include "wait_for.h"

#include <QThread>

#include <gmock/gmock.h>

using namespace testing;
using namespace std::chrono_literals;
using Method = HttpRequest::Method;

namespace {

HttpResult ask(const HttpRequest &request)
{
    int completions = 0;
    HttpResult got;
    HttpClient::send(request, [&](const HttpResult &result) {
        EXPECT_EQ(QThread::currentThread(), qApp->thread());
        ++completions;
        got = result;
    });
    EXPECT_EQ(completions, 0) << "completed inside the call";
    EXPECT_TRUE(waitFor([&] { return completions > 0; }));
    EXPECT_EQ(completions, 1);
    return got;
}

HttpRequest get(const QByteArray &address)
{
    return {.url = QUrl(QString::fromLatin1(address))};
}

HttpRequest post(const QByteArray &address)
{
    return {.method = Method::post, .url = QUrl(QString::fromLatin1(address)), .contentType = "text/x", .body = "body"};
}

auto always(const HttpsServer::Reply &reply)
{
    return [reply](const QByteArray &) { return reply; };
}

TEST(HttpClient, SaysWhatCameAndSendsEachRequestOnce)
{
    const QByteArray large(HttpClient::maxBody, 'x');
    const QByteArray nine = "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{}";
    const QByteArray chunk = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n";
    const struct {
        const char *name;
        HttpsServer::Reply reply;
        HttpResult result;
    } rows[] = {
        {"a response", {response("200 OK", "{}")}, {200, false, "{}"}},
        {"a response on an open connection", {response("200 OK", "{}"), true}, {200, false, "{}"}},
        {"a body that ends with the connection", {"HTTP/1.1 200 OK\r\n\r\n{}"}, {200, false, "{}"}},
        {"chunks", {chunk + "0\r\n\r\n", true}, {200, false, "{}"}},
        {"no content", {"HTTP/1.1 204 No Content\r\n\r\n", true}, {204, false}},
        {"a bare refusal", {response("401 Unauthorized", "")}, {401, false}},
        {"a challenge",
         {response("401 No", "{}", "WWW-Authenticate: Basic realm=\"x\"\r\n"), true},
         {401, false, "{}"}},
        {"a Kerberos challenge", {response("401 No", "", "WWW-Authenticate: Negotiate\r\n"), true}, {401, false}},
        {"an error page", {response("500 Oh", "<html>")}, {500, false, "<html>"}},
        {"a redirect to nowhere", {response("302 Found", "")}, {302, false}},
        {"the largest body", {response("200 OK", large)}, {200, false, large}},
        {"too large a body", {response("200 OK", large + 'x')}, {200, true}},
        {"a body cut off", {nine}, {200, true}},
        {"chunks cut off", {chunk}, {200, true}},
        {"a body that stalls", {nine, true}, {200, true}},
        {"a header cut off", {"HTTP/1.1 200 OK\r\nContent-"}, {std::nullopt, true}},
        {"nothing, and no end", {"", true}, {std::nullopt, true}},
        {"nothing", {""}, {std::nullopt, true}},
    };
    for (const auto &row : rows)
        for (const auto &make : {get, post}) {
            SCOPED_TRACE(row.name);
            const HttpsServer server(always(row.reply));
            HttpRequest request = make(server.address("/"));
            if (row.reply.open && row.result.failed)
                request.idleTimeout = 500ms;
            const HttpResult result = ask(request);
            EXPECT_EQ(result.status, row.result.status);
            EXPECT_EQ(result.failed, row.result.failed);
            EXPECT_TRUE(result.body == row.result.body) << result.body.left(80).toStdString();
            EXPECT_EQ(server.requests().size(), 1);
        }
}

TEST(HttpClient, ARequestOnAConnectionThatTheServerGivesUpIsNotSentAgain)
{
    for (const auto &make : {get, post}) {
        const HttpsServer server([first = true](const QByteArray &) mutable -> HttpsServer::Reply {
            return std::exchange(first, false) ? HttpsServer::Reply{response("200 OK", "{}"), true}
                                               : HttpsServer::Reply{""};
        });
        EXPECT_EQ(ask(make(server.address("/"))).status, 200);
        EXPECT_EQ(ask(make(server.address("/"))).status, std::nullopt);
        EXPECT_EQ(server.requests().size(), 2);
    }
}

TEST(HttpClient, WithoutAServerToTrustNothingIsSent)
{
    for (const char *certificate : {"wrong-host", "expired", "untrusted"}) {
        SCOPED_TRACE(certificate);
        const HttpsServer server(always({response("200 OK", "{}")}), certificate);
        const HttpResult result = ask(get(server.address("/")));
        EXPECT_EQ(result.status, std::nullopt);
        EXPECT_TRUE(result.failed);
        EXPECT_THAT(server.requests(), IsEmpty());
    }
    // Nobody listens on the second; the network has no name server for the third.
    for (const char *address :
         {"http://localhost/", "https://localhost:1/", "https://nowhere.example/", "https://", "x"}) {
        SCOPED_TRACE(address);
        EXPECT_EQ(ask(get(address)).status, std::nullopt);
    }
}

TEST(HttpClient, ALineEndInAHeaderIsNeverSent)
{
    const HttpsServer server(always({response("200 OK", "{}")}));
    HttpRequest request = get(server.address("/"));
    request.authorization = "Bearer x\r\nX-Own: y";
    EXPECT_EQ(ask(request).status, std::nullopt);
    EXPECT_THAT(server.requests(), IsEmpty());
}

TEST(HttpClient, ARedirectKeepsTheTokenAtItsOriginAndTheMethodWhereItsStatusSays)
{
    const std::pair<const char *, bool> rows[] = {
        {"301 Moved", false}, {"302 Found", false}, {"303 Other", false}, {"307 There", true}, {"308 There", true}};
    for (const auto &[status, keepsBody] : rows)
        for (const bool elsewhere : {false, true}) {
            SCOPED_TRACE(status);
            const HttpsServer other(always({response("200 OK", "there")}));
            const QByteArray location = elsewhere ? other.address("/to?x=1") : QByteArray("to?x=1");
            const QByteArray moved = response(status, "moved", "Location: " + location + "\r\n");
            const HttpsServer server([&](const QByteArray &request) {
                return HttpsServer::Reply{request.contains(" /from ") ? moved : response("200 OK", "here"), true};
            });
            HttpRequest request = post(server.address("/from"));
            request.authorization = "Bearer x";
            const HttpResult result = ask(request);
            if (elsewhere && keepsBody) {
                EXPECT_EQ(result.body, "moved");
                EXPECT_THAT(other.requests(), IsEmpty()) << "a body stays at its origin, as a token does";
                continue;
            }
            EXPECT_EQ(result.body, elsewhere ? "there" : "here");
            const QByteArray last = elsewhere ? other.requests().value(0) : server.requests().value(1);
            EXPECT_TRUE(last.startsWith(keepsBody ? "POST /to?x=1 HTTP/1.1\r\n" : "GET /to?x=1 HTTP/1.1\r\n"));
            EXPECT_EQ(last.endsWith("\r\n\r\nbody"), keepsBody);
            EXPECT_EQ(last.contains("content-type: text/x\r\n"), keepsBody);
            EXPECT_EQ(last.contains("authorization: Bearer x\r\n"), !elsewhere);
        }
}

TEST(HttpClient, ARedirectThatIsNotFollowedIsTheResponse)
{
    const HttpsServer plain(always({response("302 Found", "", "Location: http://localhost:443/\r\n")}));
    EXPECT_EQ(ask(get(plain.address("/"))).status, 302);

    const HttpsServer loop(always({response("302 Found", "", "Location: /\r\n"), true}));
    EXPECT_EQ(ask(get(loop.address("/"))).status, 302);
    EXPECT_EQ(loop.requests().size(), 21);
    EXPECT_EQ(loop.connections(), 1);
}

} // namespace
