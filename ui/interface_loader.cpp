// SPDX-License-Identifier: MIT
#include "interface_loader.h"

#include "bundle.h"
#include "main_view_controller.h"
#include "main_window_controller.h"
#include "system_log.h"
#include "text_field.h"
#include "title_button.h"

#include <QCoreApplication>
#include <QFile>

using namespace Qt::StringLiterals;

std::unique_ptr<QWidget> InterfaceLoader::load(const QString &name)
{
    const QString path = Bundle::pathForResource(name);
    QFile file(path);
    if (path.isEmpty() || !file.open(QIODevice::ReadOnly)) {
        SystemLog::write(name + u": not in the bundle"_s);
        return nullptr;
    }
    // The loader would load every plugin of Qt's form designer on this machine, and Qt Quick with them.
    const QStringList plugins = QCoreApplication::libraryPaths();
    QCoreApplication::setLibraryPaths({});
    InterfaceLoader loader;
    QCoreApplication::setLibraryPaths(plugins);
    std::unique_ptr<QWidget> root(static_cast<QUiLoader &>(loader).load(&file));
    if (!root)
        SystemLog::write(name + u": "_s + loader.errorString());
    return root;
}

QWidget *InterfaceLoader::createWidget(const QString &className, QWidget *parent, const QString &name)
{
    QWidget *made = nullptr;
    if (className == u"MainWindowController"_s)
        made = new MainWindowController(parent);
    else if (className == u"MainViewController"_s)
        made = new MainViewController(parent);
    else if (className == u"TextField"_s)
        made = new TextField(parent);
    else if (className == u"TitleButton"_s)
        made = new TitleButton(parent);
    else
        return QUiLoader::createWidget(className, parent, name);
    made->setObjectName(name);
    return made;
}
