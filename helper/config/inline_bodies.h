// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QList>

#include <optional>

/// The inline bodies that OpenVPN may be given.
namespace ConfigBodies {

bool isKnown(const QByteArray &block);

/// The body of `block` in its one normal form: the armour that belongs there, re-wrapped, every line ended by LF. Text
/// outside the armour, which OpenVPN and OpenSSL skip, is left out. Nothing when armour is missing, is another's, is
/// broken or asks for a passphrase (no one would be there to answer).
std::optional<QByteArray> normalised(const QByteArray &block, const QList<QByteArrayView> &lines);

} // namespace ConfigBodies
