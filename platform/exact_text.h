// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArrayView>
#include <QStringDecoder>

/// The text of these UTF-8 bytes, all of it: QString::fromUtf8 would drop a U+FEFF at the beginning. Any thread.
inline QString exactText(QByteArrayView utf8)
{
    using Flag = QStringDecoder::Flag;
    return QStringDecoder(QStringDecoder::Utf8, Flag::Stateless | Flag::ConvertInitialBom)(utf8);
}
