// SPDX-License-Identifier: MIT
// The yardstick of the start and of memory: a window of the form's size and colour, with nothing in it.

#include <QApplication>
#include <QWidget>

int main(int argc, char *argv[])
{
    const QApplication application(argc, argv);
    QWidget window;
    window.setPalette(QColor(0x28, 0x2C, 0x35));
    window.setFixedSize(360, 493);
    window.show();
    return QApplication::exec();
}
