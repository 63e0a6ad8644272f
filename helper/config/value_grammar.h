// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QList>

/// What a directive's values may look like.
namespace ConfigValues {

/// Whether the values are those of `usage`, which reads like a manual's: one item for each value, "[item]" where it may
/// be missing, "[item]..." where it may also repeat. An item lists alternatives between bars: a literal, a range of
/// numbers ("0..4"), or a class ("$host", "$port", …). No class holds a double quote, a backslash or a control byte.
bool follow(const QList<QByteArray> &values, const QByteArray &usage);

/// Whether this is a SHA-256 fingerprint: 32 pairs of hexadecimal digits with colons between.
bool isFingerprint(const QByteArray &value);

} // namespace ConfigValues
