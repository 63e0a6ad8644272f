// SPDX-License-Identifier: MIT
#pragma once

#include "configuration.h"

/// The text from which OpenVPN reads exactly these directives, which must come from readConfiguration(): nothing is
/// checked again. One directive a line; bodies between their tags; lines end in LF and have at most 254 bytes. A value
/// stands in double quotes when it has spaces or would begin a comment or a quote (options.c, parse_line()). Reading
/// the text gives the same directives.
QByteArray canonicalConfiguration(const QList<Directive> &directives);
