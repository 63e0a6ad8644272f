// SPDX-License-Identifier: MIT
#pragma once

#include "result.h"

#include <QDBusConnection>
#include <QVariant>

/// What the bless tool asks of the system bus, of systemd and of the running helper. Each operation blocks, for at most
/// 30 s a question. Where no bus runs there is nothing to do, and each succeeds; a bus that runs and cannot be reached
/// is a failure.
class SystemServices {
public:
    explicit SystemServices(const QByteArray &busAddress);
    ~SystemServices();
    SystemServices(const SystemServices &) = delete;
    SystemServices &operator=(const SystemServices &) = delete;

    /// Has the bus read its configuration again, and systemd if it runs.
    Result<void> reload(bool systemdRuns);

    /// Ends the running helper and its tunnel, if there is one, and returns once its name is free: within about 50 s.
    /// Fails when the name's owner is not a process of root's that runs `program`, or a file that `program` replaced.
    Result<void> stopHelper(const QByteArray &program);

    /// Has the bus start the helper. Returns once it has restored what a helper that died has left.
    Result<void> startHelper();

private:
    [[nodiscard]] Result<void> withoutBus() const;
    QVariant askBus(const QString &member, const QString &argument);
    Result<void> call(const QString &service, const QString &path, const QString &interface, const QString &member);
    bool end(int process, const QString &owner);

    QDBusConnection bus_;
};
