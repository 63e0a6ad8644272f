#include "standard_output.h"

#include "write_all.h"

#include <QByteArray>

#include <unistd.h>

void StandardOutput::writeLine(QByteArrayView text)
{
    QByteArray line = text.toByteArray();
    line += '\n';
    writeAll(STDOUT_FILENO, line);
}
