#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

/// The program as a release script sees it: exit codes, and one line that says what is wrong.
class CommandLineTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void releasesArePublishedByCommands();
    void failuresAreOneLine_data();
    void failuresAreOneLine();

private:
    struct Outcome
    {
        int exitCode = -1;
        QByteArray output;
        QByteArray errors;
    };
    Outcome run(const QString& commandLine);
    void write(const QString& name, const QByteArray& text);

    QTemporaryDir m_top;
};

CommandLineTest::Outcome CommandLineTest::run(const QString& commandLine)
{
    QProcess process;
    process.setWorkingDirectory(m_top.path());
    process.start(QStringLiteral(VL_PUBLISH), QProcess::splitCommand(commandLine));
    process.waitForFinished();
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            process.readAllStandardOutput(), process.readAllStandardError()};
}

void CommandLineTest::write(const QString& name, const QByteArray& text)
{
    QFile file(m_top.filePath(name));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(text), text.size());
}

void CommandLineTest::initTestCase()
{
    QDir(m_top.path()).mkpath(QStringLiteral("rel/bin"));
    write(QStringLiteral("rel/bin/sim"), "simulator");
    write(QStringLiteral("changelog.json"), R"({"fixes": ["Исправлено"]})");
    write(QStringLiteral("broken.json"), "[1");
    QCOMPARE(run(QStringLiteral("keygen --secret-key s.key --public-key p.pub")).exitCode, 0);
}

void CommandLineTest::releasesArePublishedByCommands()
{
    const Outcome added = run(QStringLiteral(
        "add repo 1.0.0 rel --exec default_exec=bin/sim --secret-key s.key --date 2026-10-01 "
        "--name \"Особая\" --changelog changelog.json --expires 2099-01-01 --level 19"));
    QVERIFY2(added.exitCode == 0, added.errors.constData());
    QCOMPARE(added.errors, QByteArray()); // no progress where there is no terminal
    QFile catalogue(m_top.filePath(QStringLiteral("repo/catalogue.json")));
    QVERIFY(catalogue.open(QIODevice::ReadOnly));
    const QByteArray text = catalogue.readAll();
    for (const char* part : {"Исправлено", "Особая", "2026-10-01", "2099-01-01"})
        QVERIFY2(text.contains(part), part);
    const QByteArray listed = run(QStringLiteral("list repo")).output;
    for (const char* part : {"1.0.0", "2026-10-01", "Особая", "1 files"})
        QVERIFY2(listed.contains(part), listed.constData());
    QCOMPARE(run(QStringLiteral("verify repo --public-key p.pub")).exitCode, 0);
    QCOMPARE(run(QStringLiteral("remove repo 1.0.0 --secret-key s.key")).exitCode, 0);
    QCOMPARE(run(QStringLiteral("list repo")).output, QByteArray());
}

void CommandLineTest::failuresAreOneLine_data()
{
    QTest::addColumn<QString>("commandLine");
    QTest::addColumn<QByteArray>("part");
    const auto row = [](const char* name, const char* commandLine, const char* part) {
        QTest::newRow(name) << QString::fromUtf8(commandLine) << QByteArray(part);
    };
    row("no command", "", "subcommand");
    row("no secret key", "add repo 1.1.0 rel --exec default_exec=bin/sim", "--secret-key");
    row("missing key file", "add repo 1.1.0 rel --exec default_exec=bin/sim --secret-key none",
        "none");
    row("public key as secret key",
        "add repo 1.1.0 rel --exec default_exec=bin/sim --secret-key p.pub",
        "p.pub: not a minisign");
    row("executable without a path", "add repo 1.1.0 rel --exec default_exec --secret-key s.key",
        "KEY=RELATIVE/PATH");
    row("level out of range",
        "add repo 1.1.0 rel --exec default_exec=bin/sim --secret-key s.key --level 99", "--level");
    row("broken changelog",
        "add repo 1.1.0 rel --exec default_exec=bin/sim --secret-key s.key --changelog broken.json",
        "broken.json");
    row("key exists", "keygen --secret-key s.key --public-key q.pub", "exists already");
    row("no repository", "list rel", "catalogue.json");
    row("nothing to verify", "verify rel --public-key p.pub", "faults found: 1");
    row("nothing to remove from", "remove rel 1.0.0 --secret-key s.key", "not a repository");
}

void CommandLineTest::failuresAreOneLine()
{
    QFETCH(QString, commandLine);
    QFETCH(QByteArray, part);
    const Outcome outcome = run(commandLine);
    QCOMPARE(outcome.exitCode, 1);
    QVERIFY2(outcome.errors.contains(part), outcome.errors.constData());
    QCOMPARE(outcome.errors.count('\n'), 1);
}

QTEST_APPLESS_MAIN(CommandLineTest)
#include "commandlinetest.moc"
