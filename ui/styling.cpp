// SPDX-License-Identifier: MIT
#include "styling.h"

#include "theme.h"
#include "title_button.h"

#include <QLineEdit>

void Styling::setColoredTitle(TitleButton &button, const QString &title, QColor color)
{
    button.setTitle(title, color, Qt::AlignHCenter, Theme::systemFont(Theme::titlePoints));
}

void Styling::setColoredPlaceholder(QLineEdit &field, const QString &text, QColor color)
{
    QPalette palette = field.palette();
    palette.setColor(QPalette::PlaceholderText, color);
    field.setPalette(palette);
    field.setFont(Theme::systemFont(Theme::smallPoints)); // a field has one font for its text and its placeholder
    field.setAlignment(Qt::AlignLeft);
    field.setPlaceholderText(text);
}
