#include "app/logging.h"
#include "app/settingsstore.h"
#include "ui/mainwindow/mainwindow.h"
#include "ui/widgets/resources.h"

#include <QApplication>

#include <cstdlib>

#ifdef Q_OS_WIN
#include <windows.h>
#endif

int main(int argc, char* argv[])
{
    installLogging();
    const QApplication application(argc, argv);
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
#ifdef Q_OS_WIN
        // An exit would let every library tidy up, under locks of threads that are gone by then.
        TerminateProcess(GetCurrentProcess(), static_cast<UINT>(result));
#endif
        std::_Exit(result);
    }
    return result;
}
