#include "updates/simulatorprocesshelper.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

class TestSimulator : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void starts();
};

void TestSimulator::starts()
{
    const QTemporaryDir folder;
    const QDir installed(folder.filePath(QStringLiteral("версия 1")));
    QVERIFY(installed.mkpath(QStringLiteral("bin")));
    const QString program = installed.filePath(QStringLiteral("bin/симулятор"));
    QFile script(program);
    // Says where it runs and with how many arguments; renamed when it is complete.
    QVERIFY(script.open(QIODevice::WriteOnly) &&
            script.write("#!/bin/sh\n(pwd; echo $#) > new && mv new started\n") > 0);
    script.close();
    QVERIFY(script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::WriteGroup));

    // A relative path counts from the current folder.
    startSimulator(QDir::current().relativeFilePath(program).toStdString(), installed);

    QFile started(installed.filePath(QStringLiteral("started")));
    QTRY_VERIFY(started.exists());
    QVERIFY(started.open(QIODevice::ReadOnly));
    QCOMPARE(QString::fromUtf8(started.readAll()), QString(installed.absolutePath() + u"\n0\n"));
    // What the user of the test may do on top is not the file's.
    QCOMPARE(script.permissions() & ~(QFile::ReadUser | QFile::WriteUser | QFile::ExeUser),
             QFile::ReadOwner | QFile::ExeOwner | QFile::ReadGroup | QFile::ExeGroup |
                 QFile::ReadOther | QFile::ExeOther);
}

QTEST_GUILESS_MAIN(TestSimulator)
#include "tst_simulator.moc"
