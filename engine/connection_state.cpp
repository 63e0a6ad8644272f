// SPDX-License-Identifier: MIT
#include "connection_state.h"

namespace {

struct Row {
    QLatin1String name;
    ConnectionState::Class itsClass;
};

using ConnectionState::Class;

constexpr Row vocabulary[] = {
    {QLatin1String("USER_VPN_PERMISSION"), Class::Connecting},
    {QLatin1String("VPN_GENERATE_CONFIG"), Class::Connecting},
    {QLatin1String("NONETWORK"), Class::Connecting},
    {QLatin1String("CONNECTING"), Class::Connecting},
    {QLatin1String("WAIT"), Class::Connecting},
    {QLatin1String("RECONNECTING"), Class::Connecting},
    {QLatin1String("RESOLVE"), Class::Connecting},
    {QLatin1String("TCP_CONNECT"), Class::Connecting},
    {QLatin1String("AUTH"), Class::Connecting},
    {QLatin1String("GET_CONFIG"), Class::Connecting},
    {ConnectionState::assignIp, Class::Connecting},
    {ConnectionState::addRoutes, Class::Connecting},
    {ConnectionState::connected, Class::Connected},
    {ConnectionState::disconnected, Class::Stopped},
    {ConnectionState::exiting, Class::Stopped},
    {ConnectionState::noProcess, Class::Stopped},
};

} // namespace

ConnectionState::Class ConnectionState::classOf(QStringView name)
{
    for (const Row &row : vocabulary)
        if (name == row.name)
            return row.itsClass;
    return Class::Unknown;
}
