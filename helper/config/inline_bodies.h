// SPDX-License-Identifier: MIT
#pragma once

#include "result.h"

#include <QByteArrayView>
#include <QList>

/// The inline bodies that OpenVPN may be given.
namespace ConfigBodies {

constexpr char wrongContents[] = "ends a block whose contents do not belong there";

bool isKnown(const QByteArray &block);

/// The body of `block` in its one normal form: the armour that belongs there, re-wrapped, every line ended by LF. Text
/// outside the armour, which OpenVPN and OpenSSL skip, is left out. Fails when armour is missing, broken, or of another
/// kind, or needs a passphrase, which nobody would be there to enter. The failure's detail is `wrongContents`.
Result<QByteArray> normalised(const QByteArray &block, const QList<QByteArrayView> &lines);

} // namespace ConfigBodies
