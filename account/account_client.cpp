// SPDX-License-Identifier: MIT
#include "account_client.h"

#include "constant.h"
#include "exact_text.h"
#include "http_client.h"
#include "openvpn_service.h"
#include "private_file.h"
#include "system_log.h"

#include <nlohmann/json.hpp>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr const char *configurationPath = "/tmp/corvale.ovpn";

void ask(const HttpRequest &request, AccountClient::Completion completion)
{
    HttpClient::send(
        request, [completion = std::move(completion)](const HttpResult &result) { completion(sortAnswer(result)); });
}

std::optional<QString> stringMember(const AccountAnswer::Document &document, const char *name)
{
    if (!document || !document->is_object())
        return std::nullopt;
    const auto member = document->find(name);
    if (member == document->end() || !member->is_string())
        return std::nullopt;
    return exactText(member->get_ref<const std::string &>());
}

} // namespace

void AccountClient::signIn(const QString &email, const QString &password, Completion completion)
{
    const nlohmann::json body{{"email", email.toStdString()}, {"password", password.toStdString()}};
    ask({.method = HttpRequest::Method::post,
         .url = QUrl(Constant::loginURL()),
         .contentType = "application/json",
         .body = QByteArray::fromStdString(body.dump())},
        std::move(completion));
}

void AccountClient::fetchProfile(const QString &accessToken, Completion completion)
{
    // The tunnel comes next, and with it another way to the service: a kept connection would lead through a network
    // that is gone by the next sign-in, where nothing ever answers.
    ask({.url = QUrl(Constant::profileURL() + u"?country_code=CO"_s),
         .authorization = "Bearer " + accessToken.toUtf8(),
         .last = true},
        std::move(completion));
}

void AccountClient::writeConfiguration(const QString &configuration)
{
    const auto written = PrivateFile::write(configurationPath, configuration.toUtf8());
    if (!written)
        SystemLog::write(QString::fromLocal8Bit(written.error().detail));
}

void AccountClient::startTunnel(const QString &username, const QString &password)
{
    OpenVPNService &service = OpenVPNService::shared();
    service.config = QString::fromLatin1(configurationPath);
    service.username = username;
    service.password = password;
    service.startOpenVPN();
}

std::optional<QString> AccountClient::accessToken(const AccountAnswer::Document &document)
{
    return stringMember(document, "access_token");
}

std::optional<QString> AccountClient::configuration(const AccountAnswer::Document &document)
{
    return stringMember(document, "config");
}
