// SPDX-License-Identifier: MIT
#pragma once

#include <QColor>
#include <QFont>
#include <QIcon>
#include <QString>

/// The dark theme's colours, fonts and images. Main thread.
namespace Theme {

inline constexpr QColor background(0x28, 0x2C, 0x35);
inline constexpr QColor raised(0x32, 0x37, 0x42); ///< menus and alerts, a little lighter than the background
inline constexpr QColor grey(0x9D, 0x9E, 0xA2);
inline constexpr QColor white(0xFF, 0xFF, 0xFF);

inline constexpr int titlePoints = 14;
inline constexpr int smallPoints = 13;

inline constexpr qreal pressedOpacity = 0.75; ///< of a button that is held down

/// The system's font in this size, in points.
QFont systemFont(int points);

/// The bundle's image of that name, in all its resolutions; null when the bundle has none.
QIcon imageNamed(const QString &name);

} // namespace Theme
