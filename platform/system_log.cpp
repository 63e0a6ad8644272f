// SPDX-License-Identifier: MIT
#include "system_log.h"

#include "write_all.h"

#include <QByteArray>
#include <QDateTime>
#include <QLocale>

#include <cerrno>
#include <cstddef>
#include <mutex>
#include <sys/socket.h>
#include <sys/syslog.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

int connectToLog()
{
    const int descriptor = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const sockaddr_un log{AF_UNIX, _PATH_LOG};
    if (descriptor < 0 || ::connect(descriptor, reinterpret_cast<const sockaddr *>(&log), sizeof log) == 0)
        return descriptor;
    ::close(descriptor);
    return -1;
}

/// syslog(3) would wait for a daemon that does not read, and with it the window, and the helper. False without a
/// daemon.
bool tellLog(const QByteArray &line)
{
    static std::mutex guard; // of `log`
    static int log = -1;
    const QDateTime now = QDateTime::currentDateTime();
    // As syslog(3) writes it, RFC 3164 without the host's name; months and days in English whatever the locale is.
    const QByteArray message = '<' + QByteArray::number(LOG_USER | LOG_NOTICE) + '>' +
                               QLocale::c().toString(now, u"MMM"_s).toLatin1() +
                               QByteArray::number(now.date().day()).rightJustified(3, ' ') +
                               now.toString(u" HH:mm:ss "_s).toLatin1() + program_invocation_short_name + ": " + line;
    const std::scoped_lock lock(guard);
    // A daemon that was started anew listens on a new socket.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (log < 0)
            log = connectToLog();
        if (log < 0)
            break;
        if (::send(log, message.constData(), static_cast<size_t>(message.size()), 0) >= 0 || errno == EAGAIN)
            return true;
        ::close(std::exchange(log, -1));
    }
    return false;
}

} // namespace

bool SystemLog::isAt(int descriptor)
{
    sockaddr_un peer{};
    socklen_t size = sizeof peer;
    if (::getpeername(descriptor, reinterpret_cast<sockaddr *>(&peer), &size) != 0 || peer.sun_family != AF_UNIX ||
        size < offsetof(sockaddr_un, sun_path))
        return false;
    const QByteArrayView path(peer.sun_path, size - static_cast<socklen_t>(offsetof(sockaddr_un, sun_path)));
    // A journal namespace has a folder of its own beside the usual one.
    return path.startsWith("/run/systemd/journal");
}

void SystemLog::write(QStringView text)
{
    QByteArray line = text.toUtf8();
    while (line.endsWith('\n'))
        line.chop(1);
    line.replace('\n', "\\n").replace('\0', "\\0");
    const bool isTold = tellLog(line);
    if (!isTold || !isAt(STDERR_FILENO))
        writeAll(STDERR_FILENO, line + '\n');
}
