#pragma once

#include <QProxyStyle>

/// Draws what the desktop's own style would draw unreadably on the dark form. Main thread.
class DarkStyle final : public QProxyStyle {
    Q_OBJECT

public:
    DarkStyle();

    void drawPrimitive(PrimitiveElement element, const QStyleOption *option, QPainter *painter,
                       const QWidget *widget) const override;
    int pixelMetric(PixelMetric metric, const QStyleOption *option, const QWidget *widget) const override;
    int styleHint(StyleHint hint, const QStyleOption *option, const QWidget *widget,
                  QStyleHintReturn *returnData) const override;
};
