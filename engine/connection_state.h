// SPDX-License-Identifier: MIT
#pragma once

#include <QLatin1String>
#include <QStringView>

/// The vocabulary of connection-state names: OpenVPN's own, and the client's. Compared exactly, case included.
namespace ConnectionState {

inline constexpr QLatin1String disconnected("DISCONNECTED");
inline constexpr QLatin1String exiting("EXITING");
inline constexpr QLatin1String noProcess("NOPROCESS");
inline constexpr QLatin1String connected("CONNECTED");
inline constexpr QLatin1String assignIp("ASSIGN_IP");
inline constexpr QLatin1String addRoutes("ADD_ROUTES");

enum class Class {
    Connecting,
    Connected,
    Stopped, ///< the only names from which a connection is started
    Unknown, ///< a name that is not in the vocabulary: no look of its own, and not stopped
};

/// The class of a name. Any thread.
Class classOf(QStringView name);

} // namespace ConnectionState
