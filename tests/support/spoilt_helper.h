// SPDX-License-Identifier: MIT
#pragma once

#include "files.h"

#include <stdexcept>

/// The real helper's file with one text in it replaced by another of the same length, so that nothing moves.
inline QByteArray spoiltHelper(const QByteArray &is = {}, const QByteArray &becomes = {})
{
    QByteArray bytes = contentOf(QStringLiteral(HELPER_TOOL));
    if (!bytes.contains(is) || is.size() != becomes.size())
        throw std::invalid_argument(is.toStdString());
    return bytes.replace(is, becomes);
}
