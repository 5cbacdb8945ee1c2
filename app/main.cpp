#include "app/logging.h"
#include "app/settingsstore.h"
#include "ui/mainwindow/mainwindow.h"
#include "ui/widgets/resources.h"

#include <QApplication>

#include <cstdlib>

int main(int argc, char* argv[])
{
    QApplication application(argc, argv);
    QApplication::setStyle(QStringLiteral("windows"));
    loadResources();
    MainWindow window;
    window.show();
    return QApplication::exec();
}
