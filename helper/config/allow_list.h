// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QList>

/// The directives that OpenVPN may be given, each with a grammar for its values.
namespace ConfigRules {

enum class Place { Top, Connection };
enum class Verdict { Allowed, Dropped, NotAllowed, BadValue, NotInConnection };

/// Judges a directive that has no inline body. Every value of an allowed one is printable ASCII without double quotes
/// and backslashes.
Verdict judge(const QByteArray &name, const QList<QByteArray> &values, Place place);

} // namespace ConfigRules
