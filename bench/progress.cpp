// A flood of progress reports, each of which changes both texts while the bar fills: through the
// installation's signal and the main window's slot, against bare updates of the same three widgets
// with the same texts and values. One million reports each way, in rounds that alternate.
// Prints a line "ours SECONDS" or "rival SECONDS" for each round.
#include "ui/mainwindow/mainwindow.h"
#include "ui/widgets/resources.h"
#include "updates/installationhelper.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QLabel>
#include <QProgressBar>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <iostream>
#include <vector>

namespace {

constexpr int rounds = 10;
constexpr std::size_t reportsPerRound = 100'000;
constexpr double nanosecondsPerSecond = 1e9;

struct Report
{
    std::uint64_t bytesPerSecond = 0;
    std::uint64_t bytesDownloaded = 0;
};

struct Shown
{
    QString size;
    QString time;
    int percent = 0;
};

constexpr std::uint64_t totalBytes = 900U << 20U;

/// A download from its beginning to its end, of which no two neighbouring reports show the same
/// size or the same time.
std::vector<Report> differentReports()
{
    std::vector<Report> reports;
    for (std::uint64_t i = 0; i < reportsPerRound; ++i) {
        const bool odd = i % 2 == 1;
        const std::uint64_t downloaded = i * (totalBytes / reportsPerRound) + (odd ? 1U << 15U : 0);
        const std::uint64_t left = totalBytes - std::min(downloaded, totalBytes);
        reports.push_back({left / (odd ? 30 : 45) + 1, downloaded});
    }
    return reports;
}

template <class Function> void timeRound(const char* side, Function&& function)
{
    QElapsedTimer timer;
    timer.start();
    for (std::size_t i = 0; i < reportsPerRound; ++i)
        function(i);
    std::cout << side << ' ' << double(timer.nsecsElapsed()) / nanosecondsPerSecond << std::endl;
}

} // namespace

int main(int argc, char** argv)
{
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    const QApplication application(argc, argv);
    QApplication::setStyle(QStringLiteral("windows"));
    loadResources();

    MainWindow window;
    auto* size = window.findChild<QLabel*>(QStringLiteral("progressSizeText"));
    auto* time = window.findChild<QLabel*>(QStringLiteral("progressTimeText"));
    auto* bar = window.findChild<QProgressBar*>(QStringLiteral("progressBar"));
    InstallationHelper helper(nullptr);
    if (size == nullptr || time == nullptr || bar == nullptr ||
        !QObject::connect(&helper, SIGNAL(setDownloadProgressText(uint64_t, uint64_t, uint64_t)),
                          &window, SLOT(onProgressUnitPassed(uint64_t, uint64_t, uint64_t)),
                          Qt::DirectConnection)) {
        std::cerr << "the main window has changed: no widget or slot of the name\n";
        return 1;
    }
    // As during an installation.
    bar->setRange(0, 100);
    for (QWidget* part : std::initializer_list<QWidget*>{size, time, bar}) {
        for (QWidget* widget = part; widget != &window; widget = widget->parentWidget())
            widget->setVisible(true);
    }
    window.show();
    QApplication::processEvents();

    const std::vector<Report> reports = differentReports();
    std::vector<Shown> shown;
    for (const Report& report : reports) {
        Q_EMIT helper.setDownloadProgressText(report.bytesPerSecond, report.bytesDownloaded,
                                              totalBytes);
        shown.push_back({size->text(), time->text(), bar->value()});
    }
    for (int round = 0; round < rounds; ++round) {
        timeRound("ours", [&](std::size_t i) {
            Q_EMIT helper.setDownloadProgressText(reports[i].bytesPerSecond,
                                                  reports[i].bytesDownloaded, totalBytes);
        });
        timeRound("rival", [&](std::size_t i) {
            size->setText(shown[i].size);
            time->setText(shown[i].time);
            bar->setValue(shown[i].percent);
        });
    }
    return 0;
}
