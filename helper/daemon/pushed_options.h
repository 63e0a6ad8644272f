// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QList>

/// The end of OpenVPN's command line, by which it accepts an option that the server pushes only when it is listed here.
QList<QByteArray> pushedOptionFilters();
