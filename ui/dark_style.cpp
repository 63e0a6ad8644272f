#include "dark_style.h"

#include "styling.h"

#include <QPainter>
#include <QStyleOption>

using namespace Qt::StringLiterals;

namespace {

constexpr int boxSide = 18;

void drawCheckBox(const QStyleOption &option, QPainter &painter)
{
    const QRectF box = QRectF(option.rect).adjusted(1, 1, -1, -1);
    const bool enabled = option.state.testFlag(QStyle::State_Enabled);
    const bool checked = option.state.testFlag(QStyle::State_On);
    const bool focused = option.state.testFlag(QStyle::State_HasFocus);
    const bool hovered = enabled && option.state.testFlag(QStyle::State_MouseOver);

    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(QColor::fromRgb(focused || hovered ? Styling::white : Styling::grey), focused ? 2 : 1.5));
    if (checked)
        painter.setBrush(enabled ? option.palette.highlight() : option.palette.button());
    else if (focused)
        painter.setBrush(option.palette.mid());
    painter.drawRoundedRect(box, 3, 3);
    if (checked) {
        const QPointF tick[] = {{0.25, 0.52}, {0.43, 0.70}, {0.76, 0.32}};
        QPolygonF line;
        for (const QPointF &point : tick)
            line << QPointF(box.x() + point.x() * box.width(), box.y() + point.y() * box.height());
        painter.setPen(QPen(QColor::fromRgb(enabled ? Styling::white : Styling::grey), 2, Qt::SolidLine, Qt::RoundCap));
        painter.setBrush(Qt::NoBrush);
        painter.drawPolyline(line);
    }
    painter.restore();
}

} // namespace

DarkStyle::DarkStyle() : QProxyStyle(u"Fusion"_s) {}

void DarkStyle::drawPrimitive(PrimitiveElement element, const QStyleOption *option, QPainter *painter,
                              const QWidget *widget) const
{
    if (element == PE_IndicatorCheckBox)
        drawCheckBox(*option, *painter);
    else
        QProxyStyle::drawPrimitive(element, option, painter, widget);
}

int DarkStyle::pixelMetric(PixelMetric metric, const QStyleOption *option, const QWidget *widget) const
{
    switch (metric) {
    case PM_IndicatorWidth:
    case PM_IndicatorHeight: return boxSide;
    case PM_TextCursorWidth: return 0; // the fields draw their own caret
    default: return QProxyStyle::pixelMetric(metric, option, widget);
    }
}

int DarkStyle::styleHint(StyleHint hint, const QStyleOption *option, const QWidget *widget,
                         QStyleHintReturn *returnData) const
{
    // The icon themes' symbols are drawn for light buttons.
    return hint == SH_DialogButtonBox_ButtonsHaveIcons ? 0 : QProxyStyle::styleHint(hint, option, widget, returnData);
}
