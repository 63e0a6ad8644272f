// SPDX-License-Identifier: MIT
#include "process_record.h"

#include "descriptor.h"
#include "pidfd.h"
#include "placed_file.h"

#include <QFile>
#include <QList>

#include <csignal>
#include <poll.h>

using namespace Qt::StringLiterals;

namespace {

/// In clock ticks since the machine's start; together with the number it names one process and no other.
QByteArray startTime(pid_t pid)
{
    QFile file(u"/proc/%1/stat"_s.arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray all = file.readAll();
    // The program's name, in brackets, may hold blanks and brackets itself.
    constexpr qsizetype fieldsFromBracket = 20;
    return all.mid(all.lastIndexOf(')')).split(' ').value(fieldsFromBracket);
}

} // namespace

bool ProcessRecord::write(const QByteArray &path, pid_t pid)
{
    return PlacedFile::write(path, QByteArray::number(pid) + ' ' + startTime(pid), 0600).has_value();
}

void ProcessRecord::killLeftover(const QByteArray &path, std::chrono::milliseconds timeout)
{
    QFile file(QFile::decodeName(path));
    if (!file.open(QIODevice::ReadOnly))
        return;
    const QList<QByteArray> words = file.readAll().split(' ');
    const pid_t pid = words.value(0).toInt();
    if (pid <= 0 || words.size() != 2)
        return;
    // Opened before the comparison: from then on the handle means that one process, whatever happens to the number.
    const Descriptor process(::pidfd_open(pid, 0));
    if (!process || words[1].isEmpty() || startTime(pid) != words[1])
        return;
    // The kernel told it to end when its helper died. It may still be removing its routes.
    pollfd watched{process.get(), POLLIN, 0};
    constexpr int killTimeout = 1000; // ms
    ::pidfd_send_signal(process.get(), SIGTERM, nullptr, 0);
    if (::poll(&watched, 1, static_cast<int>(timeout.count())) > 0)
        return;
    // With its scripts, which are in its session: they must not run beside the script that cleans up.
    ::pidfd_send_signal(process.get(), SIGKILL, nullptr, 0);
    ::kill(-pid, SIGKILL);
    ::poll(&watched, 1, killTimeout);
}
