// SPDX-License-Identifier: MIT
#pragma once

#include "configuration_reader.h"

/// The text from which OpenVPN reads exactly these directives, which must come from readConfiguration(): no directive
/// and no value is checked again. One directive a line, LF alone; a value with spaces, or that would begin as a
/// comment or a quote, in double quotes (options.c, parse_line(); no value holds a double quote or a backslash, so
/// nothing needs escaping); bodies between their tags; no line longer than 254 bytes. Reading the text gives the same
/// directives.
QByteArray canonicalConfiguration(const QList<Directive> &directives);
