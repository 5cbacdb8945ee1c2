#include "vl/src/platform/processes.h"

#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>

namespace fs = std::filesystem;

namespace {

constexpr int patience = 30'000; // milliseconds; only a fault makes anybody wait so long
constexpr auto waiting = "echo ready\nread line\n";

} // namespace

/// An update must wait for every program of the version that runs, and for nothing else: a viewer
/// or a shell left open would hold it up for ever.
class ProcessesTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void scriptsAreTold_data();
    void scriptsAreTold();
    void programsAreFoundUntilTheyEnd();
    void childrenOutsideDoNotCount();
    void theCallerDoesNotCount();

private:
    bool start(const QStringList& command);
    bool waitUntilReady();
    std::string running() const;

    std::unique_ptr<QTemporaryDir> m_directory;
    fs::path m_folder; // of the installed version
    vl::ProgramFiles m_files;
    std::unique_ptr<QProcess> m_process;
    int m_input = -1; // while it is open, what reads its standard input waits
};

void ProcessesTest::init()
{
    m_process = std::make_unique<QProcess>();
    // Not where temporary files lie: programs may be forbidden to run there.
    m_directory = std::make_unique<QTemporaryDir>(QDir::current().filePath(QStringLiteral("t")));
    m_folder = fs::canonical(m_directory->path().toStdString()) / "installed";
    QVERIFY(fs::create_directory(m_folder));
    for (const char* name : {"sh", "sleep"})
        QVERIFY(fs::copy_file(fs::path("/bin") / name, m_folder / name));
    const fs::path input = m_folder.parent_path() / "input";
    QCOMPARE(::mkfifo(input.c_str(), 0600), 0);
    m_input = ::open(input.c_str(), O_RDWR | O_CLOEXEC);
    QVERIFY(m_input >= 0);
    m_process->setStandardInputFile(QString::fromStdString(input.string()));
    m_process->setWorkingDirectory(QString::fromStdString(m_folder.string()));
}

void ProcessesTest::cleanup()
{
    m_process->kill();
    QVERIFY(m_process->state() == QProcess::NotRunning || m_process->waitForFinished(patience));
    ::close(m_input); // ends what the process has started
    m_directory.reset();
}

bool ProcessesTest::start(const QStringList& command)
{
    m_files = {.folder = m_folder, .byId = {}, .byPath = {}};
    const auto entries = vl::Folder::open(m_folder).value().list();
    for (const vl::FolderEntry& entry : entries.value())
        m_files.byId.emplace(entry.id, entry.name);
    m_process->start(command.first(), command.mid(1));
    return m_process->waitForStarted(patience);
}

bool ProcessesTest::waitUntilReady()
{
    QByteArray output;
    while (!output.contains("ready")) {
        if (!m_process->waitForReadyRead(patience))
            return false;
        output += m_process->readAllStandardOutput();
    }
    return true;
}

std::string ProcessesTest::running() const
{
    const auto found = vl::findRunning(m_files);
    if (!found)
        return {};
    const bool isOurs = found->process == static_cast<std::uint64_t>(m_process->processId());
    return isOurs ? found->path : found->path + " by another process";
}

void ProcessesTest::scriptsAreTold_data()
{
    QTest::addColumn<QByteArray>("head"); // of the script, before it gets ready
    QTest::addColumn<QStringList>("command");
    QTest::addColumn<bool>("isRunning");
    const auto runs = [](const char* name, const char* head, const QStringList& command) {
        QTest::newRow(name) << QByteArray(head) << command << true;
    };
    const QStringList script{QStringLiteral("./run.sh")};
    const QString shell = QStringLiteral("sh");
    runs("absolute", "#!/bin/sh", {QStringLiteral("FOLDER/run.sh")});
    runs("relative", "#!/bin/sh", script);
    runs("through a link", "#!/bin/sh", {QStringLiteral("../link.sh")});
    runs("option, blanks", "#! /bin/sh -e ", script);
    runs("argument that is no option", "#!/bin/sh ../other.sh", script);
    runs("env", "#!/usr/bin/env sh", script);
    runs("env with more", "#!/usr/bin/env -S A=b sh -o errexit", script);
    runs("by hand", "#!/bin/sh", {shell, QStringLiteral("-x"), QStringLiteral("run.sh")});
    runs("leaves its folder", "#!/bin/sh\ncd /", script);
    runs("moves", "#!/bin/sh\nmv run.sh ../aside.sh", {QStringLiteral("FOLDER/run.sh")});

    const auto rests = [](const char* name, const QStringList& command) {
        QTest::newRow(name) << QByteArray("#!/bin/sh") << command << false;
    };
    const auto command = QStringLiteral("-c");
    rests("viewer", {QStringLiteral("tail"), QStringLiteral("-f"), QStringLiteral("run.sh")});
    rests("viewer in a shell", {shell, command, QStringLiteral("cat run.sh -; :")});
    rests("shell that reads it",
          {shell, command, QStringLiteral("exec 3<./run.sh; echo ready; read line")});
    rests("other script", {shell, QStringLiteral("../other.sh"), QStringLiteral("run.sh")});
    rests("works inside", {shell, command, QStringLiteral("echo ready; read line")});
}

void ProcessesTest::scriptsAreTold()
{
    QFETCH(QByteArray, head);
    QFETCH(QStringList, command);
    QFETCH(bool, isRunning);
    const fs::path other = m_folder.parent_path() / "other.sh";
    QVERIFY(vl::writeWholeFile(other, waiting));
    QVERIFY(vl::writeWholeFile(m_folder / "run.sh", head.toStdString() + "\n" + waiting));
    fs::permissions(m_folder / "run.sh", fs::perms::owner_all);
    fs::create_symlink(m_folder / "run.sh", m_folder.parent_path() / "link.sh");
    command.replaceInStrings(QStringLiteral("FOLDER"), QString::fromStdString(m_folder.string()));
    QVERIFY2(start(command) && waitUntilReady(), qPrintable(m_process->errorString()));
    QCOMPARE(running(), std::string(isRunning ? "run.sh" : ""));
}

void ProcessesTest::programsAreFoundUntilTheyEnd()
{
    QVERIFY(start({QString::fromStdString((m_folder / "sleep").string()), QStringLiteral("300")}));
    QCOMPARE(running(), std::string("sleep"));
    const fs::path aside = m_folder.parent_path() / "aside";
    fs::rename(m_folder / "sleep", aside);
    QCOMPARE(running(), std::string("sleep"));
    // The second name keeps the system from giving the file's number to another one.
    fs::create_hard_link(aside, m_folder / "kept");
    fs::remove(aside);
    QCOMPARE(running(), std::string("sleep"));
    m_process->kill();
    QVERIFY(m_process->waitForFinished(patience));
    QCOMPARE(running(), std::string());
}

void ProcessesTest::childrenOutsideDoNotCount()
{
    QVERIFY(start({QString::fromStdString((m_folder / "sh").string()), QStringLiteral("-c"),
                   QStringLiteral("exec 3<&0; /bin/sh -c 'echo ready; read line' <&3 & wait")}));
    QVERIFY(waitUntilReady());
    QCOMPARE(running(), std::string("sh"));
    m_process->kill();
    QVERIFY(m_process->waitForFinished(patience));
    QCOMPARE(running(), std::string());
}

void ProcessesTest::theCallerDoesNotCount()
{
    struct stat self = {};
    QCOMPARE(::stat("/proc/self/exe", &self), 0);
    m_files = {.folder = {}, .byId = {{{self.st_dev, self.st_ino}, "test"}}, .byPath = {}};
    const auto found = vl::findRunning(m_files); // the test may run twice
    QVERIFY(!found || found->process != static_cast<std::uint64_t>(::getpid()));
}

QTEST_GUILESS_MAIN(ProcessesTest)
#include "processestest.moc"
