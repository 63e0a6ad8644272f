// SPDX-License-Identifier: MIT
#pragma once

#include "descriptor.h"
#include "result.h"

#include <QByteArray>
#include <QList>
#include <QObject>

#include <memory>
#include <sys/types.h>
#include <vector>

/// A program of the system's own, run as root with nothing inherited: the environment is PATH and LC_ALL, the standard
/// descriptors are /dev/null, there are no others but those it is given, signals are as the kernel's defaults, files
/// are made for root alone, the session is its own. It dies with the helper. Main thread: the kernel ties its death to
/// the thread that forks.
class ChildProcess : public QObject {
    Q_OBJECT
public:
    /// Runs `command`, whose first word is a path. Fails, with the system's reason, when it cannot be executed.
    /// The program gets the descriptors `given` as 3, 4, …; they stay the caller's.
    static Result<std::unique_ptr<ChildProcess>> start(const QList<QByteArray> &command, std::vector<int> given = {});
    ~ChildProcess() override;

    [[nodiscard]] pid_t pid() const { return pid_; }
    void signal(int number) const; ///< to the process itself
    void killAll() const;          ///< SIGKILL to it and to whatever it started in its own session

signals:
    /// Once. `status` is the exit status, 128 + n when signal n ended the process.
    void ended(int status);

private:
    ChildProcess(pid_t pid, Descriptor handle);
    void reap();

    const pid_t pid_;
    const Descriptor handle_;
    bool reaped_ = false;
};
