// What a catalogue of many versions costs the launcher at its start, against parsing the same
// catalogue once and filling a combo box from it. Prints seconds.
//   bench_catalogue launcher       the main window's construction; the program's folder holds the
//                                  library's root (the cost of a window without versions is for
//                                  the caller to subtract)
//   bench_catalogue bare FILE      the floor
#include "ui/mainwindow/mainwindow.h"
#include "ui/widgets/resources.h"

#include <QApplication>
#include <QComboBox>
#include <QElapsedTimer>

#include <nlohmann/json.hpp>

#include <fstream>
#include <iostream>
#include <string>

namespace {

constexpr double nanosecondsPerSecond = 1e9;

void fillComboBox(const char* catalogueFile, QComboBox& comboBox)
{
    std::ifstream file(catalogueFile, std::ios::binary);
    const auto catalogue = nlohmann::json::parse(file);
    for (const auto& [key, version] : catalogue.at("versions").items()) {
        const QString text = QString::fromStdString(key);
        comboBox.addItem(QStringLiteral("v. ") + text, text);
    }
}

} // namespace

int main(int argc, char** argv)
{
    const std::string kind = argc > 1 ? argv[1] : "";
    if (kind != "launcher" && (kind != "bare" || argc != 3)) {
        std::cerr << "usage: bench_catalogue launcher | bare FILE\n";
        return 1;
    }
    // The launcher's log goes to a file; here it goes nowhere.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    const QApplication application(argc, argv);
    QApplication::setStyle(QStringLiteral("windows"));
    loadResources();

    QElapsedTimer timer;
    timer.start();
    if (kind == "launcher") {
        const MainWindow window;
        std::cout << double(timer.nsecsElapsed()) / nanosecondsPerSecond << '\n';
    } else {
        QComboBox comboBox;
        fillComboBox(argv[2], comboBox);
        std::cout << double(timer.nsecsElapsed()) / nanosecondsPerSecond << '\n';
    }
    return 0;
}
