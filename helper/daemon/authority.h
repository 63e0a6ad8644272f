// SPDX-License-Identifier: MIT
#pragma once

#include "result.h"

#include <QDBusConnection>
#include <QObject>

#include <functional>
#include <map>
#include <memory>
#include <sys/types.h>

/// Who may do what: asks polkit about the sender of a message. Main thread; never blocks.
class Authority : public QObject {
    Q_OBJECT
public:
    /// The sender of a message that has been let in. A user has a quota of sixteen messages under way; this one counts
    /// until the last copy of `quota` is gone.
    struct Caller {
        uid_t uid;
        std::shared_ptr<const void> quota;
    };
    using Handler = std::function<void(const Result<Caller> &)>;

    explicit Authority(QDBusConnection bus) : bus_(std::move(bus)) {}

    /// Asks about the sender with this unique bus name. A person may be asked for a password meanwhile, so there is no
    /// timeout. `handler` is called once, later: with `Busy` when the user's quota is used up, with `NotAuthorized`
    /// when the user may not do `action`, when the sender has left meanwhile, and whenever polkit gives no clear yes.
    void check(const QString &sender, const QString &action, const Handler &handler);

private:
    using UserHandler = std::function<void(const Result<uid_t> &)>;

    /// `handler` gets the user of this bus name, or that a nameless sender may do nothing.
    void findUser(const QString &sender, UserHandler handler);
    std::shared_ptr<const void> takeQuota(uid_t uid);
    void askPolkit(const QString &sender, const QString &action, const Caller &caller, const Handler &handler);

    QDBusConnection bus_;
    std::map<uid_t, std::shared_ptr<int>> underWay_; ///< how many messages of each user
};
