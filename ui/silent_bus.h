// SPDX-License-Identifier: MIT
#pragma once

/// The desktop session's bus, which Qt and its plugins ask about trays, themes and accessibility.
namespace SessionBus {

/// Has this process do without the session's bus when that one takes connections and says nothing: everybody who asks
/// it would wait for 25 seconds, several times. Before the application is made; blocks for half a second at most.
void leaveWhenSilent();

} // namespace SessionBus
