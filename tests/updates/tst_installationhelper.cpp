#include "tests/support/scriptedvl.h"
#include "updates/installationhelper.h"

#include <QCoreApplication>
#include <QTest>

class TestInstallationHelper : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void signalsInOrder_data();
    void signalsInOrder();
    void permitHeldToTheEnd();
    void nothingHappens_data();
    void nothingHappens();
};

namespace {

/// A worker wired as the main window wires it, with the signals that reached this thread as text.
class Worker final
{
public:
    explicit Worker(const QString& version) : m_helper(nullptr)
    {
        InstallationHelper* const worker = &m_helper;
        worker->setVersion(version);
        worker->setProgressCallback([this, worker](auto speed, auto done, auto total) {
            m_callbackThread = QThread::currentThread();
            Q_EMIT worker->setDownloadProgressText(speed, done, total);
            return true;
        });
        worker->setStageCallback(
            [worker](auto stage) { Q_EMIT worker->setInstallationStage(stage); });
        QObject::connect(worker, &InstallationHelper::setDownloadProgressText, &m_receiver,
                         [this](auto speed, auto done, auto total) {
                             add(QStringLiteral("%1/%2/%3").arg(speed).arg(done).arg(total));
                         });
        QObject::connect(worker, &InstallationHelper::setInstallationStage, &m_receiver,
                         [this](auto stage) { add(QStringLiteral("stage %1").arg(stage)); });
        QObject::connect(worker, &InstallationHelper::onDownloadFinished, &m_receiver,
                         [this](const QString& installed, vlupd::UPD_RESULT result) {
                             add(QStringLiteral("finished %1 %2").arg(installed).arg(result));
                         });
        worker->start(QThread::InheritPriority);
    }

    QStringList finish()
    {
        m_helper.wait();
        QCoreApplication::processEvents();
        return m_received;
    }

    bool calledBackOnItsThread() const { return m_callbackThread == &m_helper; }

private:
    void add(const QString& text)
    {
        QCOMPARE(QThread::currentThread(), m_receiver.thread());
        m_received += text;
    }

    QStringList m_received;
    QThread* m_callbackThread = nullptr;
    QObject m_receiver;
    InstallationHelper m_helper;
};

} // namespace

void TestInstallationHelper::initTestCase()
{
    updaterInstance();
}

void TestInstallationHelper::signalsInOrder_data()
{
    QTest::addColumn<int>("result");
    QTest::newRow("success") << int{vlupd::OK};
    QTest::newRow("failure") << int{vlupd::CONTENT_LEN_ERROR};
    QTest::newRow("result without a name") << 99;
}

void TestInstallationHelper::signalsInOrder()
{
    QFETCH(int, result);
    scripted::Script script;
    script.installResult = static_cast<vlupd::UPD_RESULT>(result);
    QStringList expected;
    const auto stage = [&](int number) {
        script.installation.emplace_back(
            scripted::Stage{static_cast<vlupd::UPD_INSTALLATION_STAGE>(number)});
        expected += QStringLiteral("stage %1").arg(number);
    };
    stage(0);
    for (std::uint64_t i = 0; i < 1000; ++i) {
        script.installation.emplace_back(scripted::Progress{i, i * i, ~i});
        expected += QStringLiteral("%1/%2/%3").arg(i).arg(i * i).arg(~i);
    }
    stage(3);
    stage(77);
    script.installation.emplace_back(scripted::Log{"[installVersion] from the library"});
    scripted::setScript(script);
    expected += QStringLiteral("finished 1.0.0-тест %1").arg(result);

    QTest::ignoreMessage(QtDebugMsg, "[installVersion] from the library");
    Worker worker(QStringLiteral("1.0.0-тест"));
    QCOMPARE(worker.finish(), expected);
    QVERIFY(worker.calledBackOnItsThread());
    QCOMPARE(scripted::callsOf("installVersion"), std::vector<std::string>{"1.0.0-тест"});
    QCOMPARE(updaterAccess.available(), 3);
}

void TestInstallationHelper::permitHeldToTheEnd()
{
    scripted::Script script;
    script.installation = {scripted::Gate()};
    scripted::setScript(script);
    Worker worker(QStringLiteral("1.0.0"));
    scripted::waitAtGate();
    QCOMPARE(updaterAccess.available(), 2);
    QVERIFY(scripted::logBuffer() != nullptr);
    scripted::openGate();
    QCOMPARE(worker.finish(), QStringList{QStringLiteral("finished 1.0.0 0")});
    QCOMPARE(updaterAccess.available(), 3);
}

void TestInstallationHelper::nothingHappens_data()
{
    QTest::addColumn<QString>("version");
    QTest::addColumn<int>("busy"); // permits taken before
    QTest::addColumn<int>("left"); // permits free afterwards
    QTest::newRow("busy") << "1.0.0" << 3 << 0;
    QTest::newRow("no version: the permit stays taken") << "" << 0 << 2;
    QTest::newRow("no version, last permit") << "" << 2 << 0;
}

void TestInstallationHelper::nothingHappens()
{
    QFETCH(QString, version);
    QFETCH(int, busy);
    QFETCH(int, left);
    scripted::setScript({});
    if (version.isEmpty())
        QTest::ignoreMessage(QtDebugMsg, "Version to install is empty! Aborting...");
    updaterAccess.acquire(busy);
    QCOMPARE(Worker(version).finish(), QStringList());
    QVERIFY(scripted::calls().empty());
    QCOMPARE(updaterAccess.available(), left);
    updaterAccess.release(3 - left);
}

QTEST_GUILESS_MAIN(TestInstallationHelper)
#include "tst_installationhelper.moc"
