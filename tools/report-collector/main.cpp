#include "tools/report-collector/collectorserver.h"
#include "tools/utf8terminal.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QTextStream>

#include <CLI/CLI.hpp>

namespace {

void print(const QString& line)
{
    static QTextStream output(stdout);
    output << QDateTime::currentDateTimeUtc().toString(Qt::ISODate) << ' ' << line << Qt::endl;
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App options("Receives bug reports on the loopback address and stores each in a folder.");
    options.allow_windows_style_options(false); // a path may begin with a slash
    std::uint16_t port = CollectorServer::defaultPort;
    std::string folder = "reports";
    int idleSeconds = 60;
    options.add_option("--port", port, "TCP port to listen on; 0 picks a free one")
        ->capture_default_str();
    options.add_option("--folder", folder, "Folder that receives the reports")
        ->capture_default_str();
    options.add_option("--idle-timeout", idleSeconds, "Seconds until a silent sender is dropped")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
    const QCoreApplication application(argc, argv);
    try {
        options.parse(utf8Arguments(argc, argv));
    } catch (const CLI::ParseError& error) {
        return options.exit(error);
    }

    const QDir reports(QString::fromStdString(folder));
    if (!reports.mkpath(QStringLiteral("."))) {
        print(QStringLiteral("Cannot create the folder ") + reports.absolutePath());
        return 1;
    }
    CollectorServer server(reports, std::chrono::seconds(idleSeconds));
    QObject::connect(
        &server, &CollectorServer::reportStored, &application,
        [](const QString& path, const QString& subject, qsizetype attachments, qint64 bytes) {
            print(QStringLiteral("Stored %1: \"%2\", %3 attachments, %4 bytes")
                      .arg(path, subject)
                      .arg(attachments)
                      .arg(bytes));
        });
    QObject::connect(&server, &CollectorServer::reportRefused, &application,
                     [](const QString& sender, const QString& reason) {
                         print(QStringLiteral("Refused a message from %1: %2").arg(sender, reason));
                     });
    if (!server.listen(port)) {
        print(QStringLiteral("Cannot listen on port %1: %2").arg(port).arg(server.errorString()));
        return 1;
    }
    print(QStringLiteral("Listening on 127.0.0.1:%1, reports go to %2")
              .arg(server.port())
              .arg(reports.absolutePath()));
    return QCoreApplication::exec();
}
