#include "system_log.h"

#include "write_all.h"

#include <QByteArray>

#include <syslog.h>
#include <unistd.h>

void SystemLog::write(QStringView text)
{
    QByteArray line = text.toUtf8();
    while (line.endsWith('\n'))
        line.chop(1);
    line.replace('\n', "\\n").replace('\0', "\\0");

    // The facility is given with each call: openlog() would keep a pointer and is not needed for a line's own sake.
    ::syslog(LOG_USER | LOG_NOTICE, "%s", line.constData());
    writeAll(STDERR_FILENO, line + '\n');
}
