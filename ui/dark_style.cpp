// SPDX-License-Identifier: MIT
#include "dark_style.h"

#include "theme.h"

#include <QApplication>
#include <QIcon>
#include <QPainter>
#include <QStyleOption>

using namespace Qt::StringLiterals;

namespace {

constexpr int boxSide = 18;
constexpr int alertSide = 40;
constexpr QSize buttonPadding(56, 14);
constexpr int usualDpi = 96; // a screen with more that is not scaled has larger fonts

constexpr QColor highlight(0x1C, 0x84, 0x55); // the connected button's green, dark enough for white text
constexpr QColor disabledText(0x92, 0x95, 0x9B);

/// Shows a hand as the pointer over every button. Qt makes buttons of its own, such as those of alerts, so it watches
/// the events of the whole application.
class PointingHand final : public QObject {
public:
    using QObject::QObject;

    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (event->type() == QEvent::Polish)
            if (auto *const widget = qobject_cast<QWidget *>(watched); widget && isButton(*widget))
                widget->setCursor(Qt::PointingHandCursor);
        return false;
    }

private:
    static bool isButton(const QWidget &widget)
    {
        // The second is the status item in the status bar of an X screen.
        return widget.inherits("QAbstractButton") || widget.inherits("QSystemTrayIconSys");
    }
};

QPalette darkPalette()
{
    QPalette palette(Theme::raised, Theme::background);
    palette.setColor(QPalette::Base, Theme::background);
    palette.setColor(QPalette::Highlight, highlight);
    palette.setColor(QPalette::HighlightedText, Theme::white);
    palette.setColor(QPalette::PlaceholderText, Theme::grey);
    for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText}) {
        palette.setColor(role, Theme::white);
        palette.setColor(QPalette::Disabled, role, disabledText);
    }
    return palette;
}

void drawCheckBox(const QStyleOption &option, QPainter &painter)
{
    const QRectF box = QRectF(option.rect).adjusted(1, 1, -1, -1);
    const bool enabled = option.state.testFlag(QStyle::State_Enabled);
    const bool checked = option.state.testFlag(QStyle::State_On);
    const bool focused = option.state.testFlag(QStyle::State_HasFocus);
    const bool hovered = enabled && option.state.testFlag(QStyle::State_MouseOver);

    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(focused || hovered ? Theme::white : Theme::grey, focused ? 2 : 1.5));
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
        painter.setPen(QPen(enabled ? Theme::white : Theme::grey, 2, Qt::SolidLine, Qt::RoundCap));
        painter.setBrush(Qt::NoBrush);
        painter.drawPolyline(line);
    }
    painter.restore();
}

/// An alert's button. Those of the form draw themselves.
void drawButton(const QStyleOption &option, QPainter &painter)
{
    const bool pressed = option.state.testFlag(QStyle::State_Sunken);
    const bool hovered = option.state.testFlag(QStyle::State_MouseOver);
    const bool focused = option.state.testFlag(QStyle::State_HasFocus);
    const QRectF edge = QRectF(option.rect).adjusted(1, 1, -1, -1);

    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    if (pressed)
        painter.setOpacity(Theme::pressedOpacity);
    painter.setBrush(option.palette.highlight());
    painter.setPen(hovered || focused ? QPen(Theme::white, focused ? 2 : 1) : QPen(Qt::NoPen));
    painter.drawRoundedRect(edge, edge.height() / 2, edge.height() / 2);
    painter.restore();
}

} // namespace

DarkStyle::DarkStyle() : QProxyStyle(u"Fusion"_s) {}

void DarkStyle::apply(QApplication &application)
{
    QApplication::setStyle(new DarkStyle);
    QApplication::setPalette(darkPalette());
    application.installEventFilter(new PointingHand(&application));
}

void DarkStyle::drawPrimitive(PrimitiveElement element, const QStyleOption *option, QPainter *painter,
                              const QWidget *widget) const
{
    if (element == PE_IndicatorCheckBox)
        drawCheckBox(*option, *painter);
    else
        QProxyStyle::drawPrimitive(element, option, painter, widget);
}

void DarkStyle::drawControl(ControlElement element, const QStyleOption *option, QPainter *painter,
                            const QWidget *widget) const
{
    if (element == CE_PushButtonBevel)
        drawButton(*option, *painter);
    else
        QProxyStyle::drawControl(element, option, painter, widget);
}

QSize DarkStyle::sizeFromContents(ContentsType type, const QStyleOption *option, const QSize &size,
                                  const QWidget *widget) const
{
    const QSize usual = QProxyStyle::sizeFromContents(type, option, size, widget);
    return type == CT_PushButton ? usual.expandedTo(size + buttonPadding) : usual;
}

QIcon DarkStyle::standardIcon(StandardPixmap standard, const QStyleOption *option, const QWidget *widget) const
{
    return standard == SP_MessageBoxCritical ? Theme::imageNamed(u"ic_alert"_s)
                                             : QProxyStyle::standardIcon(standard, option, widget);
}

int DarkStyle::pixelMetric(PixelMetric metric, const QStyleOption *option, const QWidget *widget) const
{
    switch (metric) {
    case PM_IndicatorWidth:
    case PM_IndicatorHeight: return widget ? boxSide * widget->logicalDpiY() / usualDpi : boxSide;
    case PM_MessageBoxIconSize: return alertSide;
    case PM_TextCursorWidth: return 0; // `TextField` draws its own
    default: return QProxyStyle::pixelMetric(metric, option, widget);
    }
}

int DarkStyle::styleHint(StyleHint hint, const QStyleOption *option, const QWidget *widget,
                         QStyleHintReturn *returnData) const
{
    // Icon themes draw their symbols for light buttons.
    return hint == SH_DialogButtonBox_ButtonsHaveIcons ? 0 : QProxyStyle::styleHint(hint, option, widget, returnData);
}
