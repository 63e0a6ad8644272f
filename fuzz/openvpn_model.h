// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QList>

#include <optional>

/// How OpenVPN 2.6 cuts a configuration file, buffer sizes and all: a second opinion on the helper's reader, written
/// after OpenVPN's own functions and sharing nothing with it.
namespace OpenVPNModel {

struct Seen {
    QByteArray name;
    QList<QByteArray> values;
    QList<Seen> inner; ///< of a connection block

    bool operator==(const Seen &other) const
    {
        return name == other.name && values == other.values && inner == other.inner;
    }
};

/// Every option that reaches add_option(), bodies left out; nothing where OpenVPN would give the file up.
std::optional<QList<Seen>> read(const QByteArray &file);

} // namespace OpenVPNModel
