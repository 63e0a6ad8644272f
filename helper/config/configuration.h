// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QList>

/// One option of a configuration. Its name is known, and no value is empty: each is printable ASCII without double
/// quotes and backslashes.
struct Directive {
    QByteArray name;
    QList<QByteArray> values;
    int line = 0;           ///< in the file, from 1; not compared
    QByteArray body;        ///< of an inline block: only armour, re-wrapped, every line ends in LF; empty otherwise
    QList<Directive> inner; ///< of a `connection` block

    bool operator==(const Directive &other) const
    {
        return name == other.name && values == other.values && body == other.body && inner == other.inner;
    }
};

struct Configuration {
    QList<Directive> directives; ///< in the file's order, which carries meaning
    QList<Directive> dropped;    ///< what the helper leaves out of `directives`: name and line only
};
