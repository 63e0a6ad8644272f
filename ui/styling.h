// SPDX-License-Identifier: MIT
#pragma once

class QColor;
class QLineEdit;
class QString;
class TitleButton;

/// Texts of the form in the system font and a colour of their own. Main thread.
namespace Styling {

/// Gives the button a centred title at 14 points.
void setColoredTitle(TitleButton &button, const QString &title, QColor color);

/// Gives the field a left-aligned placeholder at 13 points.
void setColoredPlaceholder(QLineEdit &field, const QString &text, QColor color);

} // namespace Styling
