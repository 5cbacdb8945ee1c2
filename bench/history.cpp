// Opening the version history, from the click to the page on the screen, against building the same
// labels bare: a page per version in a stack, without buttons and scroll areas. Prints seconds.
//   bench_history launcher | bare
// The program's folder holds the library's root and the launcher's own files.
#include "ui/menu/descriptionsfile.h"
#include "ui/menu/menudialog.h"
#include "ui/widgets/resources.h"
#include "ui/widgets/styles.h"
#include "updates/catalogue.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonObject>
#include <QLabel>
#include <QStackedWidget>
#include <QVBoxLayout>

#include <iostream>
#include <string>

namespace {

constexpr double nanosecondsPerSecond = 1e9;

void addLabel(QLayout* layout, const QString& text, const QString& style)
{
    auto* label = new QLabel(text, layout->parentWidget());
    label->setWordWrap(true);
    label->setStyleSheet(style);
    layout->addWidget(label);
}

void buildLabels(QStackedWidget& stack)
{
    DescriptionsFile& file = DescriptionsFile::instance();
    for (const QString& version : file.versionKeys().value_or(QStringList())) {
        auto* page = new QWidget(&stack);
        auto* layout = new QVBoxLayout(page);
        const QJsonObject description = file.versionDescription(version)->toObject();
        for (auto section = description.begin(); section != description.end(); ++section) {
            addLabel(layout, section.key(), styles::sectionTitle);
            const QJsonArray entries = section.value().toArray();
            for (const QJsonValue& entry : entries)
                addLabel(layout, entry.toString(), styles::text);
        }
        stack.addWidget(page);
    }
}

} // namespace

int main(int argc, char** argv)
{
    const std::string kind = argc == 2 ? argv[1] : "";
    if (kind != "launcher" && kind != "bare") {
        std::cerr << "usage: bench_history launcher | bare\n";
        return 1;
    }
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    const QApplication application(argc, argv);
    QApplication::setStyle(QStringLiteral("windows"));
    loadResources();
    if (!availableVersionsJson(true, true)) { // as it is when the window has been shown
        std::cerr << "no catalogue\n";
        return 1;
    }

    MenuDialog dialog;
    QStackedWidget stack;
    QElapsedTimer timer;
    timer.start();
    if (kind == "launcher") {
        dialog.show();
        if (!dialog.switchToPage(2))
            return 1;
    } else {
        buildLabels(stack);
        stack.show();
    }
    QApplication::processEvents();
    std::cout << double(timer.nsecsElapsed()) / nanosecondsPerSecond << '\n';
    return 0;
}
