// SPDX-License-Identifier: MIT
#pragma once

#include <QProxyStyle>

class QApplication;

/// The application's style: the desktop's own could paint over the dark form or be unreadable on it. Main thread.
class DarkStyle final : public QProxyStyle {
    Q_OBJECT

public:
    /// Makes every window, menu and alert of the application dark, and shows a hand as the pointer over every button,
    /// later ones included. Call once, before the first window.
    static void apply(QApplication &application);

    void drawPrimitive(PrimitiveElement element, const QStyleOption *option, QPainter *painter,
                       const QWidget *widget) const override;
    void drawControl(ControlElement element, const QStyleOption *option, QPainter *painter,
                     const QWidget *widget) const override;
    QSize sizeFromContents(ContentsType type, const QStyleOption *option, const QSize &size,
                           const QWidget *widget) const override;
    QIcon standardIcon(StandardPixmap standard, const QStyleOption *option, const QWidget *widget) const override;
    int pixelMetric(PixelMetric metric, const QStyleOption *option, const QWidget *widget) const override;
    int styleHint(StyleHint hint, const QStyleOption *option, const QWidget *widget,
                  QStyleHintReturn *returnData) const override;

private:
    DarkStyle();
};
