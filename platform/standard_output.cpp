#include "standard_output.h"

#include "write_all.h"

#include <QByteArray>

#include <cstddef>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

/// Whether it is connected to the journal.
bool isSystemLog()
{
    sockaddr_un peer{};
    socklen_t size = sizeof peer;
    if (::getpeername(STDOUT_FILENO, reinterpret_cast<sockaddr *>(&peer), &size) != 0 || peer.sun_family != AF_UNIX ||
        size < offsetof(sockaddr_un, sun_path))
        return false;
    const QByteArrayView path(peer.sun_path, size - static_cast<socklen_t>(offsetof(sockaddr_un, sun_path)));
    // A journal namespace has a folder of its own beside the usual one.
    return path.startsWith("/run/systemd/journal");
}

} // namespace

void StandardOutput::writeLine(QByteArrayView text)
{
    QByteArray line = text.toByteArray();
    line += '\n';
    writeAll(STDOUT_FILENO, line);
}

void StandardOutput::keepOutOfSystemLog()
{
    if (!isSystemLog())
        return;
    // Not just closed: the next socket would take its number.
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ::dup2(nowhere, STDOUT_FILENO);
    ::close(nowhere);
}
