#include "updates/simulatorprocesshelper.h"

#include <QCoreApplication>
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

namespace {

/// The simulator is a copy of this program under another name: it says where it runs and with how
/// many arguments; renamed when that is complete.
const QString simulatorName = QStringLiteral("симулятор.exe");

int simulate()
{
    QFile file(QStringLiteral("new"));
    const QByteArray text = QDir::currentPath().toUtf8() + '\n' +
                            QByteArray::number(QCoreApplication::arguments().size() - 1) + '\n';
    const bool written = file.open(QIODevice::WriteOnly) && file.write(text) == text.size();
    file.close();
    return written && file.rename(QStringLiteral("started")) ? 0 : 1;
}

} // namespace

void TestSimulator::starts()
{
    const QTemporaryDir folder;
    const QDir installed(folder.filePath(QStringLiteral("версия 1")));
    QVERIFY(installed.mkpath(QStringLiteral("bin")));
    const QString program = installed.filePath(QStringLiteral("bin/") + simulatorName);
    QVERIFY(QFile::copy(QCoreApplication::applicationFilePath(), program));
    QFile simulator(program);
    QVERIFY(simulator.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::WriteGroup));

    // A relative path counts from the current folder.
    const QString relative = QDir::current().relativeFilePath(program);
    startSimulator(QDir(relative).filesystemPath(), installed);

    QFile started(installed.filePath(QStringLiteral("started")));
    QTRY_VERIFY(started.exists());
    QVERIFY(started.open(QIODevice::ReadOnly));
    QCOMPARE(QString::fromUtf8(started.readAll()), QString(installed.absolutePath() + u"\n0\n"));
    // What the user of the test may do on top is not the file's.
    QCOMPARE(simulator.permissions() & ~(QFile::ReadUser | QFile::WriteUser | QFile::ExeUser),
             QFile::ReadOwner | QFile::ExeOwner | QFile::ReadGroup | QFile::ExeGroup |
                 QFile::ReadOther | QFile::ExeOther);
    // The folder goes when nobody runs in it any more.
    started.close();
    QTRY_VERIFY(!installed.exists() || QDir(installed).removeRecursively());
}

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    if (QFileInfo(QCoreApplication::applicationFilePath()).fileName() == simulatorName)
        return simulate();
    TestSimulator test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_simulator.moc"
