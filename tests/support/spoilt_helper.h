// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QFile>

#include <stdexcept>

/// The real helper's file with one text in it replaced by another of the same length, so that nothing moves.
inline QByteArray spoiltHelper(const QByteArray &is = {}, const QByteArray &becomes = {})
{
    QFile tool(QStringLiteral(HELPER_TOOL));
    QByteArray bytes = tool.open(QIODevice::ReadOnly) ? tool.readAll() : QByteArray();
    if (bytes.isEmpty() || !bytes.contains(is) || is.size() != becomes.size())
        throw std::invalid_argument(is.toStdString());
    return bytes.replace(is, becomes);
}
