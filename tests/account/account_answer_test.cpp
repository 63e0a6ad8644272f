// SPDX-License-Identifier: MIT
#include "account_answer.h"

#include "account_client.h"
#include "http_client.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

using namespace testing;
using namespace Qt::StringLiterals;
using Kind = AccountAnswer::Kind;

namespace {

TEST(AccountAnswer, EveryOutcomeOfARequestHasItsKind)
{
    const std::pair<HttpResult, Kind> rows[] = {
        {{std::nullopt, true, ""}, Kind::networkFailure},
        {{200, false, "{}"}, Kind::success},
        {{299, false, " [1] "}, Kind::success},
        {{200, true, "{}"}, Kind::rejected},
        {{199, false, "{}"}, Kind::rejected},
        {{300, false, "{}"}, Kind::rejected},
        {{401, false, "{}"}, Kind::rejected},
        {{200, false, ""}, Kind::rejected},
        {{200, false, "<html>"}, Kind::rejected},
        {{200, false, "{\"a\":1"}, Kind::rejected},
        {{200, false, "{} {}"}, Kind::rejected},
        {{200, false, "[NaN]"}, Kind::rejected},
        {{200, false, "[\"\xff\"]"}, Kind::rejected},
        {{200, false, QByteArray("{}\0", 3)}, Kind::rejected},
        {{200, false, "null"}, Kind::unreadable},
        {{200, false, "\"text\""}, Kind::unreadable},
        {{204, false, ""}, Kind::unreadable},
        {{205, false, "<html>"}, Kind::unreadable},
        {{205, false, "{}"}, Kind::success},
        {{204, true, ""}, Kind::rejected},
    };
    for (const auto &[result, kind] : rows) {
        SCOPED_TRACE(result.body.toStdString() + " with " + std::to_string(result.status.value_or(0)));
        const AccountAnswer answer = sortAnswer(result);
        EXPECT_EQ(answer.kind(), kind);
        EXPECT_EQ(answer.document() != nullptr, kind == Kind::success);
    }
}

TEST(AccountAnswer, ADocumentDeeperThanAnyStackIsReadCopiedAndLetGo)
{
    const qsizetype half = HttpClient::maxBody / 8;
    const AccountAnswer answer = sortAnswer({200, false, QByteArray(half, '[') + QByteArray(half, ']')});
    const AccountAnswer copy = answer;
    EXPECT_EQ(copy.kind(), Kind::success);
    EXPECT_EQ(AccountClient::accessToken(copy.document()), std::nullopt);
    EXPECT_EQ(sortAnswer({200, false, QByteArray(2 * half, '[')}).kind(), Kind::rejected);
}

TEST(AccountAnswer, AMemberIsReadOnlyWhereItIsAText)
{
    const std::pair<QByteArray, std::optional<QString>> rows[] = {
        {R"({"access_token":"t","config":"t","more":[]})", u"t"_s},
        {R"({"access_token":"","config":""})", u""_s},
        {R"({"access_token":"\u00f1\u0000\"","config":"ñ\u0000\""})", u"ñ\0\""_s},
        {R"({"access_token":null,"config":1})", std::nullopt},
        {R"({"access_token":["t"],"config":{"config":"t"}})", std::nullopt},
        {R"({"Access_Token":"t","Config":"t"})", std::nullopt},
        {R"(["access_token","config"])", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto &[body, text] : rows) {
        SCOPED_TRACE(body.toStdString());
        const auto document = sortAnswer({200, false, body}).document();
        EXPECT_EQ(AccountClient::accessToken(document), text);
        EXPECT_EQ(AccountClient::configuration(document), text);
    }
}

} // namespace
