#include "tests/support/scriptedvl.h"
#include "updates/installationhelper.h"

#include <QCoreApplication>
#include <QTest>

class TestInstallationHelper : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void run_data();
    void run();
};

void TestInstallationHelper::run_data()
{
    QTest::addColumn<QString>("version");
    QTest::addColumn<int>("result");
    QTest::addColumn<int>("busy"); // permits taken before
    QTest::addColumn<int>("left"); // permits free afterwards
    QTest::addColumn<QByteArray>("logged");
    const QString version = QStringLiteral("1.0.0-тест");
    const QByteArray fromLibrary("[installVersion] from the library");
    QTest::newRow("success") << version << int{vlupd::OK} << 0 << 3 << fromLibrary;
    QTest::newRow("failure") << version << int{vlupd::CONTENT_LEN_ERROR} << 0 << 3 << fromLibrary;
    QTest::newRow("busy") << version << 0 << 3 << 0 << QByteArray();
    QTest::newRow("no version: the permit stays taken")
        << QString() << 0 << 0 << 2 << QByteArray("Version to install is empty! Aborting...");
}

/// The signals reach this thread whole and in the order of the library's reports.
void TestInstallationHelper::run()
{
    QFETCH(QString, version);
    QFETCH(int, result);
    QFETCH(int, busy);
    QFETCH(int, left);
    QFETCH(QByteArray, logged);
    scripted::Script script;
    script.installResult = static_cast<vlupd::UPD_RESULT>(result);
    script.installation = {scripted::Stage{vlupd::STAGE_DOWNLOADING}};
    QStringList expected{QStringLiteral("stage 0")};
    for (std::uint64_t i = 0; i < 1000; ++i) {
        script.installation.emplace_back(scripted::Progress{i, i * i, ~i});
        expected << QStringLiteral("%1/%2/%3").arg(i).arg(i * i).arg(~i);
    }
    script.installation.emplace_back(scripted::Log{logged.toStdString()});
    scripted::setScript(script);
    expected << QStringLiteral("finished %1 %2").arg(version).arg(result);

    InstallationHelper helper(nullptr);
    helper.setVersion(version);
    helper.setProgressCallback([&helper](auto speed, auto done, auto total) {
        Q_EMIT helper.setDownloadProgressText(speed, done, total);
        return updaterAccess.available() == 2; // held to the end
    });
    helper.setStageCallback([&helper](auto stage) { Q_EMIT helper.setInstallationStage(stage); });
    QStringList received;
    connect(&helper, &InstallationHelper::setDownloadProgressText, this,
            [&](auto speed, auto done, auto total) {
                received << QStringLiteral("%1/%2/%3").arg(speed).arg(done).arg(total);
            });
    connect(&helper, &InstallationHelper::setInstallationStage, this,
            [&](auto stage) { received << QStringLiteral("stage %1").arg(stage); });
    connect(&helper, &InstallationHelper::onDownloadFinished, this,
            [&](const QString& installed, vlupd::UPD_RESULT finished) {
                received << QStringLiteral("finished %1 %2").arg(installed).arg(finished);
            });
    if (!logged.isEmpty())
        QTest::ignoreMessage(QtDebugMsg, logged.constData());
    updaterAccess.acquire(busy);
    helper.start(QThread::InheritPriority);
    helper.wait();
    QCoreApplication::processEvents();
    QCOMPARE(received, left == 3 ? expected : QStringList());
    QCOMPARE(updaterAccess.available(), left);
    updaterAccess.release(3 - left);
}

QTEST_GUILESS_MAIN(TestInstallationHelper)
#include "tst_installationhelper.moc"
