// SPDX-License-Identifier: MIT
#pragma once

#include "helper_error.h"

#include <QDBusConnection>
#include <QObject>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <sys/types.h>
#include <variant>

/// Who may do what: asks polkit about the sender of a message. Main thread; never blocks.
class Authority : public QObject {
    Q_OBJECT
public:
    /// The sender of a message that has been let in. A user has sixteen places for messages under way, and this holds
    /// one of them until its last copy is gone.
    struct Caller {
        uid_t uid;
        std::shared_ptr<const void> place;
    };
    using Verdict = std::function<void(const std::variant<Caller, HelperError> &)>;

    explicit Authority(QDBusConnection bus) : bus_(std::move(bus)) {}

    /// Asks about the sender with this unique bus name. A person may be asked for a password meanwhile, so there is no
    /// time limit. `verdict` is called once, later: with `Busy` when the user has no place left, with `NotAuthorized`
    /// when it may not do `action`, has left meanwhile, and in every doubt.
    void check(const QString &sender, const QString &action, const Verdict &verdict);

private:
    using Found = std::function<void(std::optional<uid_t>)>;

    void findUser(const QString &sender, Found found);
    std::shared_ptr<const void> takePlace(uid_t uid);
    void askPolkit(const QString &sender, const QString &action, const Caller &caller, const Verdict &verdict);

    QDBusConnection bus_;
    std::map<uid_t, std::shared_ptr<int>> taken_; ///< how many places each user has taken
};
