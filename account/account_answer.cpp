// SPDX-License-Identifier: MIT
#include "account_answer.h"

#include "http_client.h"

#include <nlohmann/json.hpp>
#include <utility>

using namespace Qt::StringLiterals;

AccountAnswer::AccountAnswer(Kind kind, Document document) : kind_(kind), document_(std::move(document)) {}

QString AccountAnswer::message() const
{
    switch (kind_) {
    case Kind::success: return {};
    case Kind::rejected: return u"Email o Contraseña inválidos"_s;
    case Kind::networkFailure: return u"Network connection failed"_s;
    case Kind::unreadable: return u"Unknown error"_s;
    }
    return {};
}

AccountAnswer sortAnswer(const HttpResult &result)
{
    using Kind = AccountAnswer::Kind;
    constexpr int noContent = 204;
    constexpr int resetContent = 205;

    if (!result.status)
        return Kind::networkFailure;
    if (result.failed || *result.status < 200 || *result.status > 299)
        return Kind::rejected;
    const bool bodyIsFree = *result.status == noContent || *result.status == resetContent;
    // Checked before it is read, since the check alone takes hardly any memory for a body of nothing but brackets. The
    // library takes a zero byte for the end.
    const bool isJson = !result.body.contains('\0') && nlohmann::json::accept(result.body.cbegin(), result.body.cend());
    if (!isJson)
        return bodyIsFree ? Kind::unreadable : Kind::rejected;
    nlohmann::json document = nlohmann::json::parse(result.body.cbegin(), result.body.cend(), nullptr, false);
    if (!document.is_structured())
        return Kind::unreadable;
    return {Kind::success, std::make_shared<const nlohmann::json>(std::move(document))};
}
