// SPDX-License-Identifier: MIT
#include "bundle.h"

#include <QFileInfo>

using namespace Qt::StringLiterals;

QString Bundle::location()
{
    // The kernel's own link: it is right before any application object exists and names the file behind /usr/bin.
    const QString executable = QFileInfo(u"/proc/self/exe"_s).symLinkTarget();
    const qsizetype end = executable.lastIndexOf(u"/Contents/MacOS/"_s);
    return end < 0 ? QString() : executable.left(end);
}

QString Bundle::pathForResource(const QString &name)
{
    const QString bundle = location();
    if (bundle.isEmpty())
        return {};
    const QString path = bundle + u"/Contents/Resources/"_s + name;
    return QFileInfo(path).isFile() ? path : QString();
}
