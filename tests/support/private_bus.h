// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <cstdio>

/// A bus of this process's own in the place of the system bus: a real dbus-daemon with a permissive policy, which ends
/// with the test. The bus library reads the address once for each process, so every bus of a process listens at the
/// same one; make the first before anything else uses the system bus.
class PrivateBus {
public:
    PrivateBus();
    ~PrivateBus();

    /// Listens; false when the daemon does not come up. Until then the bus is one that cannot be reached.
    bool start();
    void kill(); ///< at once, as if it had crashed

    /// Has the bus start `command` as soon as somebody sends to `name`.
    void activate(const QString &name, const QStringList &command);
    void forgetActivation(const QString &name);

    /// Further XML for the bus's configuration, such as a policy; before `start`.
    void configure(const QByteArray &xml) { extra_ += xml; }

    static QString folder(); ///< where the bus keeps its files; empty for tests to use, and gone with the process

private:
    void reload() const;

    QByteArray extra_;
    std::FILE *daemon_ = nullptr; ///< what it prints
    int process_ = 0;
};
