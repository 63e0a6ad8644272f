// SPDX-License-Identifier: MIT
#pragma once

#include "configuration_reader.h"

#include <QByteArrayView>

namespace ConfigWords {

constexpr qsizetype maxLine = 254; ///< bytes without the LF, a CR included
constexpr qsizetype maxWords = 16; ///< MAX_PARMS of OpenVPN's options.h, the directive's name included

/// Whether OpenVPN's line buffers would hold the line whole and unchanged; the reason when not. `line` is without LF.
std::variant<std::monostate, Reason> checkLine(QByteArrayView line);

/// The words of a checked line, as options.c, parse_line() cuts them; none for a comment or an empty line.
std::variant<QList<QByteArray>, Reason> cut(QByteArrayView line);

} // namespace ConfigWords
