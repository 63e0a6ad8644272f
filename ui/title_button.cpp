// SPDX-License-Identifier: MIT
#include "title_button.h"

#include "theme.h"

#include <QAccessible>
#include <QFocusEvent>
#include <QPainter>

namespace {

constexpr QSize linkPadding(0, 10);   // makes a link easy to hit and leaves room for the line under it
constexpr QSize imagePadding(64, 20); // keeps the title off the round ends

} // namespace

void TitleButton::setTitle(const QString &title, QColor color, Qt::Alignment horizontal, const QFont &font)
{
    horizontal_ = horizontal;
    setFont(font);
    QPalette palette = this->palette();
    palette.setColor(QPalette::ButtonText, color);
    setPalette(palette);
    if (title == text())
        return;
    setText(title);
    QAccessibleEvent announcement(this, QAccessible::Alert);
    QAccessible::updateAccessibility(&announcement);
}

QSize TitleButton::sizeHint() const
{
    const QSize title = fontMetrics().size(Qt::TextHideMnemonic | Qt::TextSingleLine, text());
    if (icon().isNull())
        return title + linkPadding;
    // The image is sharpest at its own height. Only a large title stretches it.
    return (title + imagePadding).expandedTo(QSize(0, imageSize().height()));
}

void TitleButton::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    if (isDown())
        painter.setOpacity(Theme::pressedOpacity);
    if (!icon().isNull())
        drawBackground(painter);
    painter.setPen(palette().color(QPalette::ButtonText));
    QRect title;
    painter.drawText(rect(), static_cast<int>(horizontal_ | Qt::AlignVCenter), text(), &title);
    drawAttention(painter, title);
}

void TitleButton::focusInEvent(QFocusEvent *event)
{
    // A person who clicked knows where the focus is. A window that becomes active again looks as it did before.
    if (event->reason() != Qt::ActiveWindowFocusReason && event->reason() != Qt::PopupFocusReason)
        focusShows_ = event->reason() != Qt::MouseFocusReason;
    QPushButton::focusInEvent(event);
}

void TitleButton::drawAttention(QPainter &painter, const QRect &title) const
{
    const bool focused = hasFocus() && focusShows_;
    if (!focused && !underMouse())
        return;
    const qreal width = focused ? 2 : 1;
    const QColor color = focused ? Theme::white : palette().color(QPalette::ButtonText);
    if (icon().isNull()) {
        painter.fillRect(QRectF(title.left(), title.bottom() + 2, title.width(), width), color);
        return;
    }
    painter.setPen(QPen(color, width));
    const QRectF edge = QRectF(rect()).adjusted(width / 2, width / 2, -width / 2, -width / 2);
    painter.drawRoundedRect(edge, edge.height() / 2, edge.height() / 2);
}

QSize TitleButton::imageSize() const
{
    return icon().availableSizes().value(0, QSize(0, 0));
}

void TitleButton::drawBackground(QPainter &painter) const
{
    // Only the middle of the image is stretched: its ends stay round at every width.
    const QSize wanted = imageSize().scaled(QWIDGETSIZE_MAX, height(), Qt::KeepAspectRatio);
    const QPixmap pixmap = icon().pixmap(wanted, devicePixelRatio());
    const int end = pixmap.height() / 2;
    const int half = height() / 2;
    const QRect middle(end, 0, pixmap.width() - 2 * end, pixmap.height());
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    painter.drawPixmap(QRect(0, 0, half, height()), pixmap, QRect(0, 0, end, pixmap.height()));
    painter.drawPixmap(QRect(half, 0, width() - 2 * half, height()), pixmap, middle);
    painter.drawPixmap(QRect(width() - half, 0, half, height()), pixmap,
                       QRect(pixmap.width() - end, 0, end, pixmap.height()));
}
