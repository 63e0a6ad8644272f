// SPDX-License-Identifier: MIT
#include "helper_error.h"

#include "helper_protocol.h"

#include <QDBusMessage>

namespace {

const char *nameOf(HelperError::Kind kind)
{
    switch (kind) {
    case HelperError::Kind::NotAuthorized: return "NotAuthorized";
    case HelperError::Kind::Busy: return "Busy";
    case HelperError::Kind::ConfigUnsafe: return "ConfigUnsafe";
    case HelperError::Kind::ConfigRejected: return "ConfigRejected";
    case HelperError::Kind::ScriptRejected: return "ScriptRejected";
    case HelperError::Kind::PortBusy: return "PortBusy";
    case HelperError::Kind::Leaving: return "Leaving";
    case HelperError::Kind::Internal: break;
    }
    return "Internal";
}

} // namespace

QDBusMessage errorReply(const QDBusMessage &message, const HelperError &error)
{
    return message.createErrorReply(QLatin1String(HelperNames::errorPrefix) + QLatin1String(nameOf(error.kind)),
                                    QString::fromUtf8(error.sentence));
}
