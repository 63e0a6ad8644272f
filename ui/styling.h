// SPDX-License-Identifier: MIT
#pragma once

#include <QColor>
#include <QFont>
#include <QIcon>
#include <QString>

class QApplication;
class QLineEdit;
class TitleButton;

/// The dark theme: its colours, fonts and images, and what is drawn with them. Main thread.
namespace Styling {

inline constexpr QRgb background = 0xFF282C35;
inline constexpr QRgb grey = 0xFF9D9EA2;
inline constexpr QRgb white = 0xFFFFFFFF;
inline constexpr QRgb raised = 0xFF323742; ///< menus, alerts: a little above the background

inline constexpr int titlePoints = 14;
inline constexpr int smallPoints = 13;

inline constexpr qreal pressedOpacity = 0.75; ///< of a button that is held down

/// The system's font at a size in points.
QFont systemFont(int points);

/// The image of that name in the bundle, in every resolution that it has; null when there is none.
QIcon imageNamed(const QString &name);

/// Gives the button a centred title in the system font at 14 points.
void setColoredTitle(TitleButton &button, const QString &title, QColor color);

/// Gives the field a left-aligned placeholder in the system font at 13 points.
void setColoredPlaceholder(QLineEdit &field, const QString &text, QColor color);

/// Makes every window, menu and alert of the application dark, and the pointer a hand over every button that there is
/// and will be. Call once, before the first window.
void apply(QApplication &application);

} // namespace Styling
