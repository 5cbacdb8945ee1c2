// The launcher's start-up, step by step as in its entry point, up to the first paint of its window.
// The program's folder is the application directory and holds the library's root.
//   bench_startup_launcher            ends with the first paint
//   bench_startup_launcher settle     a first start that ends as a user's does, settings written
#include "app/logging.h"
#include "bench/firstpaint.h"
#include "ui/mainwindow/mainwindow.h"
#include "ui/widgets/resources.h"

#include <QApplication>

#include <optional>

int main(int argc, char** argv)
{
    installLogging();
    QApplication application(argc, argv);
    QApplication::setStyle(QStringLiteral("windows"));
    loadResources();
    std::optional<ExitAfterFirstPaint> exitAfterFirstPaint;
    MainWindow window;
    if (argc == 1)
        exitAfterFirstPaint.emplace();
    else
        QMetaObject::invokeMethod(&application, &QApplication::quit, Qt::QueuedConnection);
    window.show();
    return QApplication::exec();
}
