// SPDX-License-Identifier: MIT
#include "theme.h"

#include "bundle.h"

#include <QFontDatabase>
#include <QGuiApplication>
#include <QHash>
#include <QPixmap>

using namespace Qt::StringLiterals;

namespace {

/// The image at `path`, with the files beside it that hold it in other sizes and densities.
QIcon readImage(const QString &path)
{
    QIcon icon;
    // The format is named because Qt would otherwise load the plugin of every format to ask it.
    const auto add = [&](const QString &file) {
        if (const QPixmap pixmap(file, "PNG"); !pixmap.isNull())
            icon.addPixmap(pixmap);
    };
    const QString stem = path.chopped(4);
    add(path);
    for (const int side : {16, 22, 24, 32, 48, 64})
        add(stem + u"-%1.png"_s.arg(side));
    // Images for a denser screen than this one would only take memory.
    for (int density = 2; density < qGuiApp->devicePixelRatio() + 1; ++density)
        add(stem + u"@%1x.png"_s.arg(density));
    return icon;
}

} // namespace

QFont Theme::systemFont(int points)
{
    QFont font = QFontDatabase::systemFont(QFontDatabase::GeneralFont);
    font.setPointSize(points);
    return font;
}

QIcon Theme::imageNamed(const QString &name)
{
    // Qt caches up to ten megabytes of drawn icons, and a file that is read again counts as another icon.
    // Leaked on purpose: images must not be destroyed after the application.
    static auto *const icons = new QHash<QString, QIcon>;
    if (const auto known = icons->constFind(name); known != icons->cend())
        return *known;
    const QString path = Bundle::pathForResource(name + u".png"_s);
    return path.isEmpty() ? QIcon() : *icons->insert(name, readImage(path));
}
