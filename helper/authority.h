#pragma once

#include <QDBusConnection>
#include <QObject>

#include <functional>
#include <optional>
#include <sys/types.h>

/// Who may do what: asks polkit about the sender of a message. Main thread; never blocks.
class Authority : public QObject {
    Q_OBJECT
public:
    /// The sender's user id when it may do `action`; nothing when it may not, and in every doubt.
    using Verdict = std::function<void(std::optional<uid_t>)>;

    explicit Authority(QDBusConnection bus) : bus_(std::move(bus)) {}

    /// Asks about the sender with this unique bus name. A person may be asked for a password meanwhile, so there is no
    /// time limit. `verdict` is called once, later.
    void check(const QString &sender, const QString &action, Verdict verdict);

private:
    void findUser(const QString &sender, Verdict verdict);

    QDBusConnection bus_;
};
