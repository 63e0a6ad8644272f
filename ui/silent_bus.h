// SPDX-License-Identifier: MIT
#pragma once

/// A session bus that takes connections and answers nothing. Qt and its plugins ask the session's bus about trays,
/// themes and accessibility, and would wait 25 seconds for each of several answers.
namespace SilentBus {

/// Has this process do without the session's bus when that one is silent. Before the application is made; blocks for
/// half a second at most.
void leaveWhenSilent();

} // namespace SilentBus
