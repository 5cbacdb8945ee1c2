#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTest>

/// Whatever the launcher is doing, closing its window ends the process at once and cleanly.
class ClosingTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void closing_data();
    void closing();
};

void ClosingTest::closing_data()
{
    QTest::addColumn<QString>("state");
    for (const char* state : {"idle", "menu", "installing", "installing, menu"})
        QTest::newRow(state) << QString::fromLatin1(state);
}

void ClosingTest::closing()
{
    QFETCH(const QString, state);
    const QString program = QStringLiteral(CLOSING_LAUNCHER);
    const QDir folder = QFileInfo(program).dir();
    for (const QString& name : {QStringLiteral("config.ini"), QStringLiteral("current.log")})
        QFile::remove(folder.filePath(name));

    QProcess launcher;
    launcher.start(program, {state});
    QVERIFY(launcher.waitForFinished());
    QCOMPARE(launcher.exitStatus(), QProcess::NormalExit);
    QCOMPARE(launcher.exitCode(), 0);

    QFile log(folder.filePath(QStringLiteral("current.log")));
    QVERIFY(log.open(QIODevice::ReadOnly));
    const QByteArray lines = log.readAll();
    QVERIFY2(!lines.contains("QThread"), lines.constData());
    QCOMPARE(lines.contains("the library's line"), state.startsWith(u"installing"));
    QFile settings(folder.filePath(QStringLiteral("config.ini")));
    QVERIFY(settings.open(QIODevice::ReadOnly));
    QVERIFY(settings.readAll().contains("availableVersions=1.0.0"));
    for (const QString& name : {QStringLiteral("config.ini"), QStringLiteral("current.log"),
                                QStringLiteral("descriptions.json")})
        QFile::remove(folder.filePath(name));
}

QTEST_GUILESS_MAIN(ClosingTest)
#include "closingtest.moc"
