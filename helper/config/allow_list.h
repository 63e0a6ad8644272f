// SPDX-License-Identifier: MIT
#pragma once

#include "result.h"

#include <QByteArray>
#include <QList>

/// The directives that OpenVPN may be given, each with a grammar for its values.
namespace ConfigRules {

enum class Scope { File, Connection };

/// Whether the directive is left out silently: it has no use on this system, or the helper decides it.
bool isDropped(const QByteArray &name);

/// Whether OpenVPN may be given this directive, which has no inline body, in this scope. A failure's detail is the end
/// of a sentence about the line.
Result<void> check(const QByteArray &name, const QList<QByteArray> &values, Scope scope);

} // namespace ConfigRules
