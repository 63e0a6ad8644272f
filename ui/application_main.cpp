#include "application_main.h"

#include <QApplication>

int applicationMain(int &argc, char **argv)
{
    const QApplication application(argc, argv);
    return QApplication::exec();
}
