#include "app/logging.h"
#include "app/platform.h"
#include "app/settingsstore.h"
#include "ui/mainwindow/mainwindow.h"
#include "ui/widgets/resources.h"

#include <QApplication>

int main(int argc, char* argv[])
{
    installLogging();
    choosePlatform();
    const QApplication application(argc, argv);
    forgetPlatform();
    QApplication::setStyle(QStringLiteral("windows"));
    loadResources();

    MainWindow window;
    window.show();
    const int result = QApplication::exec();
    // What was stored while the event loop ended is not on the disk yet.
    SettingsStore::instance().sync();
    if (window.isInstalling()) {
        // The installation cannot be cancelled and nothing may wait for it: the process ends under
        // it, and the library takes up the rest at the next start.
        flushLog();
        endProcess(result);
    }
    return result;
}
