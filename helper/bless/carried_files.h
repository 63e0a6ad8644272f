// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArrayView>

/// What is installed with the helper, byte for byte as `cmake --install` does it. Carried inside the tool: it reads
/// nothing but the one file that it is told of.
namespace BlessContents {

QByteArrayView clientUp();
QByteArrayView clientDown();
QByteArrayView busPolicy();
QByteArrayView busService();
QByteArrayView unit();
QByteArrayView restoringUnit();
QByteArrayView restoringAtBoot();

} // namespace BlessContents
