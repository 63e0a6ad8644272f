// SPDX-License-Identifier: MIT
#include "standard_output.h"

#include "system_log.h"
#include "write_all.h"

#include <QByteArray>

#include <fcntl.h>
#include <unistd.h>

void StandardOutput::writeLine(QByteArrayView text)
{
    QByteArray line = text.toByteArray();
    line += '\n';
    writeAll(STDOUT_FILENO, line);
}

void StandardOutput::keepOutOfSystemLog()
{
    if (!SystemLog::isAt(STDOUT_FILENO))
        return;
    // Not just closed: the next socket would take its number.
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ::dup2(nowhere, STDOUT_FILENO);
    ::close(nowhere);
}
