// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QDBusConnection>
#include <QVariant>

/// What the bless tool has to say on the system bus. Blocks, seconds for each question.
class BlessBus {
public:
    explicit BlessBus(const QByteArray &address);
    ~BlessBus();
    BlessBus(const BlessBus &) = delete;
    BlessBus &operator=(const BlessBus &) = delete;

    /// Has the bus, and systemd if it runs, read their configuration again. Nothing when done, or when no bus runs
    /// that could have read the old one; else why not. A bus that runs and cannot be reached is an error here and
    /// below.
    QByteArray reload(bool systemdRuns);

    /// Ends the helper that runs, if one does, and its tunnel with it, and returns once its name is free. It must be
    /// root's process of the file `program`, this one or one that was there before. Nothing when done, else why not.
    QByteArray stopHelper(const QByteArray &program);

    /// Has the bus start the helper, and returns once it has cleaned up after one that died. As above.
    QByteArray startHelper();

private:
    QVariant ask(const QString &member, const QString &argument);
    QByteArray command(const QString &service, const QString &path, const QString &interface, const QString &member);
    bool stop(int process, const QString &owner);
    [[nodiscard]] QByteArray obstacle() const;

    QDBusConnection bus_;
};
