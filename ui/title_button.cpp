#include "title_button.h"

#include <QAccessible>
#include <QPainter>

namespace {

constexpr QSize linkPadding(0, 10);   // enough to hit and to draw the focus under
constexpr QSize imagePadding(64, 26); // room for the round ends
constexpr qreal pressedOpacity = 0.75;

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
    return fontMetrics().size(Qt::TextHideMnemonic | Qt::TextSingleLine, text()) +
           (icon().isNull() ? linkPadding : imagePadding);
}

void TitleButton::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    if (isDown())
        painter.setOpacity(pressedOpacity);
    if (!icon().isNull())
        drawBackground(painter);
    painter.setPen(palette().color(QPalette::ButtonText));
    QRect title;
    painter.drawText(rect(), static_cast<int>(horizontal_ | Qt::AlignVCenter), text(), &title);
    if (hasFocus())
        painter.drawLine(title.bottomLeft() + QPoint(0, 2), title.bottomRight() + QPoint(0, 2));
}

void TitleButton::drawBackground(QPainter &painter) const
{
    // Only the middle of the image is stretched, so that its ends stay round at every width.
    const QPixmap pixmap = icon().pixmap(icon().availableSizes().value(0, size()), devicePixelRatio());
    const int end = pixmap.height() / 2;
    const int half = height() / 2;
    const QRect middle(end, 0, pixmap.width() - 2 * end, pixmap.height());
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    painter.drawPixmap(QRect(0, 0, half, height()), pixmap, QRect(0, 0, end, pixmap.height()));
    painter.drawPixmap(QRect(half, 0, width() - 2 * half, height()), pixmap, middle);
    painter.drawPixmap(QRect(width() - half, 0, half, height()), pixmap,
                       QRect(pixmap.width() - end, 0, end, pixmap.height()));
}
