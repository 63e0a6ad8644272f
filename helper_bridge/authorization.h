// SPDX-License-Identifier: MIT
#pragma once

#include <QtGlobal>

#include <initializer_list>

/// The platform's rights, as polkit grants them: a right's name is the id of the polkit action.
namespace Authorization {

using Status = qint32;
inline constexpr Status success = 0;
inline constexpr Status denied = -60005;
inline constexpr Status cancelled = -60006;
inline constexpr Status interactionNotAllowed = -60007; ///< somebody would have to be asked, and nobody can be
inline constexpr Status internal = -60008;              ///< no bus, no polkit, or an answer that cannot be read

struct Item {
    const char *name;
};

enum Flag : quint32 {
    InteractionAllowed = 1, ///< a person may be asked for a password; without it the answer comes at once
    ExtendRights = 2,       ///< grant what is asked for, and do not merely look; polkit always does
    PreAuthorize = 16,      ///< grant it for later use: polkit keeps it for this process where the action says so
};

/// Obtains the rights for this process, one after another until one is refused; the status is then that one's. A
/// refusal's reason goes to the system log as well. Any thread, which it blocks, without a limit, while a person is
/// asked. What was granted belongs to the process, so there is nothing to hold and nothing to give back.
Status AuthorizationCreate(std::initializer_list<Item> rights, quint32 flags);

} // namespace Authorization
