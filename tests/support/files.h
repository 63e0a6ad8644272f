// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

/// The whole content, or "(none)".
inline QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : "(none)";
}

/// A new file with this content and mode; its folder is made where it is missing.
inline void writeFile(const QString &path, const QByteArray &content, mode_t mode = 0644)
{
    QFileInfo(path).dir().mkpath(QStringLiteral("."));
    QFile::remove(path);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        throw std::runtime_error("cannot write " + path.toStdString());
    file.close();
    ::chmod(QFile::encodeName(path).constData(), mode);
}

/// In octal, such as "0600"; "(none)" where there is no file.
inline QByteArray modeOf(const QString &path)
{
    struct stat found {};
    if (::stat(QFile::encodeName(path).constData(), &found) != 0)
        return "(none)";
    return QByteArray::number(found.st_mode & 07777, 8).rightJustified(4, '0');
}

/// Whether this process may act for other users, and they get at files. Where the root folder is root's alone, as in
/// some containers, they do not even reach /proc.
inline bool canActForOthers()
{
    constexpr uid_t nobody = 65534;
    if (::geteuid() != 0 || ::seteuid(nobody) != 0)
        return false;
    const bool reached = ::faccessat(AT_FDCWD, "/proc/self/net/tcp", R_OK, AT_EACCESS) == 0;
    return ::seteuid(0) == 0 && reached;
}
