// The launcher's own main on a scripted update library, with a user who closes the window in the
// state that the command line names. The process has to end by itself.
#include "tests/support/scriptedvl.h"
#include "ui/mainwindow/mainwindow.h"

#include <QApplication>
#include <QPushButton>
#include <QTimer>

namespace {

void act()
{
    const QString state = QCoreApplication::arguments().value(1);
    QWidget* window = nullptr;
    for (QWidget* widget : QApplication::topLevelWidgets()) {
        if (qobject_cast<MainWindow*>(widget))
            window = widget;
    }
    const auto press = [window](QLatin1String name) {
        window->findChild<QPushButton*>(name)->click();
    };
    if (state.contains(u"menu"))
        press(QLatin1String("settingsButton"));
    if (state.contains(u"installing")) {
        press(QLatin1String("runSimulatorButton"));
        scripted::waitAtGate();
    }
    press(QLatin1String("closeButton"));
}

void prepare()
{
    scripted::Script script;
    script.catalogue = nlohmann::json::parse(R"({"1.0.0": {}})");
    script.installation.emplace_back(scripted::Log{"[installVersion] the library's line"});
    script.installation.emplace_back(scripted::Gate{});
    scripted::setScript(script);
    QTimer::singleShot(0, act); // once the event loop runs
}

Q_COREAPP_STARTUP_FUNCTION(prepare)

} // namespace
