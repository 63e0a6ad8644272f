// SPDX-License-Identifier: MIT
#include "bus_errors.h"

#include "helper_protocol.h"

#include <QDBusMessage>

namespace {

const char *nameOf(ErrorCode code)
{
    switch (code) {
    case ErrorCode::NotAuthorized: return "NotAuthorized";
    case ErrorCode::Busy: return "Busy";
    case ErrorCode::ConfigUnsafe: return "ConfigUnsafe";
    case ErrorCode::ConfigRejected: return "ConfigRejected";
    case ErrorCode::ScriptRejected: return "ScriptRejected";
    case ErrorCode::PortBusy: return "PortBusy";
    case ErrorCode::Leaving: return "Leaving";
    case ErrorCode::Failed:
    case ErrorCode::Internal: break;
    }
    return "Internal";
}

} // namespace

QDBusMessage errorReply(const QDBusMessage &message, const Error &error)
{
    return message.createErrorReply(QLatin1String(HelperNames::errorPrefix) + QLatin1String(nameOf(error.code)),
                                    QString::fromUtf8(error.detail));
}
