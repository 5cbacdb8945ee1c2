#include "tests/support/scriptedvl.h"
#include "updates/installationhelper.h"

#include <QCoreApplication>
#include <QTest>

class TestInstallationHelper : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void signalsInOrder_data();
    void signalsInOrder();
    void nothingHappens_data();
    void nothingHappens();
};

namespace {

/// Runs a worker wired as the main window wires it, and returns the signals as text, in the order
/// in which they reached this thread.
QStringList signalsOf(const QString& version)
{
    QStringList received;
    QObject receiver;
    InstallationHelper helper(nullptr);
    helper.setVersion(version);
    helper.setProgressCallback([&helper](auto speed, auto done, auto total) {
        Q_EMIT helper.setDownloadProgressText(speed, done, total);
        return updaterAccess.available() == 2; // held to the end
    });
    helper.setStageCallback([&helper](auto stage) { Q_EMIT helper.setInstallationStage(stage); });
    QObject::connect(&helper, &InstallationHelper::setDownloadProgressText, &receiver,
                     [&](auto speed, auto done, auto total) {
                         received += QStringLiteral("%1/%2/%3").arg(speed).arg(done).arg(total);
                     });
    QObject::connect(&helper, &InstallationHelper::setInstallationStage, &receiver,
                     [&](auto stage) { received += QStringLiteral("stage %1").arg(stage); });
    QObject::connect(&helper, &InstallationHelper::onDownloadFinished, &receiver,
                     [&](const QString& installed, vlupd::UPD_RESULT result) {
                         received += QStringLiteral("finished %1 %2").arg(installed).arg(result);
                     });
    helper.start(QThread::InheritPriority);
    helper.wait();
    QCoreApplication::processEvents();
    return received;
}

} // namespace

void TestInstallationHelper::signalsInOrder_data()
{
    QTest::addColumn<int>("result");
    QTest::newRow("success") << int{vlupd::OK};
    QTest::newRow("failure") << int{vlupd::CONTENT_LEN_ERROR};
}

void TestInstallationHelper::signalsInOrder()
{
    QFETCH(int, result);
    scripted::Script script;
    script.installResult = static_cast<vlupd::UPD_RESULT>(result);
    script.installation.emplace_back(scripted::Stage{vlupd::STAGE_DOWNLOADING});
    QStringList expected{QStringLiteral("stage 0")};
    for (std::uint64_t i = 0; i < 1000; ++i) {
        script.installation.emplace_back(scripted::Progress{i, i * i, ~i});
        expected += QStringLiteral("%1/%2/%3").arg(i).arg(i * i).arg(~i);
    }
    script.installation.emplace_back(scripted::Stage{vlupd::STAGE_APPLYING});
    script.installation.emplace_back(scripted::Log{"[installVersion] from the library"});
    scripted::setScript(script);
    expected += {QStringLiteral("stage 3"), QStringLiteral("finished 1.0.0-тест %1").arg(result)};

    QTest::ignoreMessage(QtDebugMsg, "[installVersion] from the library");
    QCOMPARE(signalsOf(QStringLiteral("1.0.0-тест")), expected);
    QCOMPARE(scripted::callsOf("installVersion"), std::vector<std::string>{"1.0.0-тест"});
    QCOMPARE(updaterAccess.available(), 3);
}

void TestInstallationHelper::nothingHappens_data()
{
    QTest::addColumn<QString>("version");
    QTest::addColumn<int>("busy"); // permits taken before
    QTest::addColumn<int>("left"); // permits free afterwards
    QTest::newRow("busy") << "1.0.0" << 3 << 0;
    QTest::newRow("no version: the permit stays taken") << "" << 0 << 2;
}

void TestInstallationHelper::nothingHappens()
{
    QFETCH(QString, version);
    QFETCH(int, busy);
    QFETCH(int, left);
    updaterInstance();
    scripted::setScript({});
    if (version.isEmpty())
        QTest::ignoreMessage(QtDebugMsg, "Version to install is empty! Aborting...");
    updaterAccess.acquire(busy);
    QCOMPARE(signalsOf(version), QStringList());
    QVERIFY(scripted::callsOf("installVersion").empty());
    QCOMPARE(updaterAccess.available(), left);
    updaterAccess.release(3 - left);
}

QTEST_GUILESS_MAIN(TestInstallationHelper)
#include "tst_installationhelper.moc"
