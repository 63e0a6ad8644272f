// SPDX-License-Identifier: MIT
#pragma once

#include "result.h"

#include <QByteArrayView>
#include <QList>

/// The lines of a configuration and their words. A failure's detail is the end of a sentence about the line, such as
/// "holds a backslash".
namespace ConfigWords {

constexpr qsizetype maxLine = 254; ///< bytes without the LF, but with a CR
constexpr qsizetype maxWords = 16; ///< MAX_PARMS of OpenVPN's options.h; includes the directive's name

/// Whether OpenVPN's line buffers hold the line whole and unchanged. `line` has no LF.
Result<void> checkLine(QByteArrayView line);

/// The words of a checked line, as options.c, parse_line() cuts them; none for a comment or an empty line.
Result<QList<QByteArray>> cut(QByteArrayView line);

} // namespace ConfigWords
