// The floor of the start-up benchmark: a window with nothing of the launcher's in it, but with the
// same Qt modules, style and fonts, up to its first paint.
#include "bench/firstpaint.h"
#include "ui/widgets/resources.h"

#include <QApplication>
#include <QHostAddress>
#include <QLabel>
#include <QMainWindow>

int main(int argc, char** argv)
{
    // Without this the linker leaves the network module out.
    qRegisterMetaType<QHostAddress>();
    QApplication application(argc, argv);
    QApplication::setStyle(QStringLiteral("windows"));
    loadResources();
    QMainWindow window(nullptr, Qt::FramelessWindowHint);
    window.resize(1040, 640);
    window.setCentralWidget(new QLabel(QStringLiteral("Varnel Simulator")));
    const ExitAfterFirstPaint exitAfterFirstPaint;
    window.show();
    return QApplication::exec();
}
