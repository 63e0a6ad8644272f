// SPDX-License-Identifier: MIT
#include "styling.h"

#include "bundle.h"
#include "dark_style.h"
#include "title_button.h"

#include <QApplication>
#include <QFontDatabase>
#include <QHash>
#include <QLineEdit>
#include <QPalette>

using namespace Qt::StringLiterals;

namespace {

constexpr QRgb highlight = 0xFF1C8455; // the green of the connected button, dark enough for white text
constexpr QRgb faint = 0xFF92959B;     // what cannot be used now

/// Alerts and whatever else Qt makes itself have buttons too, so they are caught where all of them pass.
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
        // The second is what the status bar of an X screen holds.
        return widget.inherits("QAbstractButton") || widget.inherits("QSystemTrayIconSys");
    }
};

QPalette darkPalette()
{
    QPalette palette(QColor::fromRgb(Styling::raised), QColor::fromRgb(Styling::background));
    palette.setColor(QPalette::Base, QColor::fromRgb(Styling::background));
    palette.setColor(QPalette::Highlight, QColor::fromRgb(highlight));
    palette.setColor(QPalette::HighlightedText, QColor::fromRgb(Styling::white));
    palette.setColor(QPalette::PlaceholderText, QColor::fromRgb(Styling::grey));
    for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText}) {
        palette.setColor(role, QColor::fromRgb(Styling::white));
        palette.setColor(QPalette::Disabled, role, QColor::fromRgb(faint));
    }
    return palette;
}

/// The image at `path` with its drawings for other sizes and densities, which lie beside it.
QIcon readImage(const QString &path)
{
    QIcon icon;
    // The format is named, or every format's plugin would be loaded to be asked.
    const auto add = [&](const QString &file) {
        if (const QPixmap pixmap(file, "PNG"); !pixmap.isNull())
            icon.addPixmap(pixmap);
    };
    const QString stem = path.chopped(4);
    add(path);
    for (const int side : {16, 22, 24, 32, 48, 64})
        add(stem + u"-%1.png"_s.arg(side));
    // What is drawn for a denser screen than there is would only lie in memory.
    for (int density = 2; density < qGuiApp->devicePixelRatio() + 1; ++density)
        add(stem + u"@%1x.png"_s.arg(density));
    return icon;
}

} // namespace

QFont Styling::systemFont(int points)
{
    QFont font = QFontDatabase::systemFont(QFontDatabase::GeneralFont);
    font.setPointSize(points);
    return font;
}

QIcon Styling::imageNamed(const QString &name)
{
    // Qt keeps what it draws of each icon, ten megabytes of them, and takes the same file read again for another icon.
    // Leaked on purpose: images must not end after the application.
    static auto *const icons = new QHash<QString, QIcon>;
    if (const auto known = icons->constFind(name); known != icons->cend())
        return *known;
    const QString path = Bundle::pathForResource(name + u".png"_s);
    return path.isEmpty() ? QIcon() : *icons->insert(name, readImage(path));
}

void Styling::setColoredTitle(TitleButton &button, const QString &title, QColor color)
{
    button.setTitle(title, color, Qt::AlignHCenter, systemFont(titlePoints));
}

void Styling::setColoredPlaceholder(QLineEdit &field, const QString &text, QColor color)
{
    QPalette palette = field.palette();
    palette.setColor(QPalette::PlaceholderText, color);
    field.setPalette(palette);
    field.setFont(systemFont(smallPoints)); // a field has one font for its text and its placeholder
    field.setAlignment(Qt::AlignLeft);
    field.setPlaceholderText(text);
}

void Styling::apply(QApplication &application)
{
    // The desktop's own style may paint over the palette, and the form fixes its colours.
    QApplication::setStyle(new DarkStyle);
    QApplication::setPalette(darkPalette());
    application.installEventFilter(new PointingHand(&application));
}
