#include "tests/vl/install/installfixture.h"
#include "vl/src/platform/file.h"

#include <QDir>
#include <QProcess>
#include <QTest>

#include <windows.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

const std::string longFolder(200, 'f');
const Files oldFiles{{"bin/simulator", "the simulator"},
                     {"readme.TXT", "to be renamed"},
                     {longFolder + "/" + longFolder + "/one", "beyond 260 characters"},
                     {"data/two", "in a folder"}};
const Files newFiles{{"bin/simulator", "a newer simulator"},
                     {"Readme.txt", "to be renamed"},
                     {longFolder + "/" + longFolder + "/two", "beyond 260 characters"},
                     {"data/two", "in the same folder"}};

/// Keeps a file or a folder as another program would: a scanner, or, for a folder, a simulator that
/// runs in it.
class Holder final
{
public:
    explicit Holder(const fs::path& path)
        : m_handle(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                               FILE_FLAG_BACKUP_SEMANTICS, nullptr))
    {
    }
    ~Holder() { release(); }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;

    bool holds() const { return m_handle != INVALID_HANDLE_VALUE; }
    void release()
    {
        if (holds())
            CloseHandle(std::exchange(m_handle, INVALID_HANDLE_VALUE));
    }

private:
    HANDLE m_handle;
};

} // namespace

/// What only Windows does to files: see also the tables of names.
class WindowsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init() { vl::setLongPatience(1s); }
    void longNamesAndOtherCase();
    void heldFiles_data();
    void heldFiles();
    void junctionsAndReadOnlyFilesGo();

private:
    std::unique_ptr<Releases> m_releases;
};

void WindowsTest::initTestCase()
{
    m_releases = std::make_unique<Releases>();
    m_releases->publish("1.0.0", oldFiles);
    m_releases->publish("2.0.0", newFiles);
}

void WindowsTest::longNamesAndOtherCase()
{
    Installed it(*m_releases);
    QCOMPARE(promiseFault(it.root, *m_releases, {"1.0.0"}), QString());
    // It is the same folder still: nothing in it may be taken for a file of the user.
    fs::rename(it.root.tree() / "data", it.root.tree() / "DATA");
    QCOMPARE(it.library.checkFiles("1.0.0", std::nullopt), vlupd::OK);
    QCOMPARE(it.library.installVersion("2.0.0", {}, {}), vlupd::OK);
    QCOMPARE(it.library.checkFiles("2.0.0", std::nullopt), vlupd::OK);
    fs::rename(it.root.tree() / "DATA", it.root.tree() / "data");
    QCOMPARE(promiseFault(it.root, *m_releases, {"2.0.0"}), QString());
    QCOMPARE(it.library.removeVersion("2.0.0"), vlupd::OK);
    QCOMPARE(it.root.leftovers(), QString());
    QVERIFY(!fs::exists(it.root.tree()));
}

void WindowsTest::heldFiles_data()
{
    QTest::addColumn<QString>("path"); // below the root
    QTest::addColumn<QString>("target");
    QTest::addColumn<bool>("forEver");
    QTest::addColumn<int>("result");
    const auto row = [](const char* path, const char* target, bool forEver, int result) {
        QTest::addRow("%s to '%s'%s", path, target, forEver ? "" : ", for a while")
            << QString::fromLatin1(path) << QString::fromLatin1(target) << forEver << result;
    };
    constexpr const char* program = "simulator/bin/simulator";
    constexpr const char* data = "simulator/data/two";
    row(program, "2.0.0", true, vlupd::SYSTEM_CALL_ERROR);
    row(data, "2.0.0", true, vlupd::SYSTEM_CALL_ERROR);
    row(data, "2.0.0", false, vlupd::OK);
    row("installed.json", "2.0.0", true, vlupd::SYSTEM_CALL_ERROR);
    row("installed.json", "2.0.0", false, vlupd::OK);
    // What is held then is deleted later.
    row(data, "", true, vlupd::OK);
    row("installed.json", "", true, vlupd::SYSTEM_CALL_ERROR);
    row("installed.json", "", false, vlupd::OK);
}

// Afterwards the old version or the new one is there, byte for byte, with the user's files.
void WindowsTest::heldFiles()
{
    QFETCH(QString, path);
    QFETCH(QString, target);
    QFETCH(bool, forEver);
    QFETCH(int, result);
    Installed it(*m_releases);
    const Files mine{{"saved/mine", "the user's"}};
    writeFile(it.root.tree() / "saved/mine", "the user's");
    Holder holder(it.root.path() / path.toStdString());
    QVERIFY(holder.holds());
    std::thread scanner([&] {
        std::this_thread::sleep_for(300ms);
        if (!forEver)
            holder.release();
    });
    const std::string version = target.toStdString();
    const auto change = [&] {
        return int(version.empty() ? it.library.removeVersion("1.0.0")
                                   : it.library.installVersion(version, {}, {}));
    };
    const int got = change();
    scanner.join();
    QCOMPARE(got, result);
    if (result != vlupd::OK)
        QVERIFY2(it.log.contains("(Windows error ") && it.log.contains(path.toStdString()),
                 it.log.text().c_str());
    holder.release();
    const std::set<std::string> now{result == vlupd::OK ? version : "1.0.0"};
    QCOMPARE(promiseFault(it.root, *m_releases, now, mine), QString());
    QCOMPARE(result == vlupd::OK ? int(vlupd::OK) : change(), int(vlupd::OK));
    QCOMPARE(promiseFault(it.root, *m_releases, {version}, mine), QString());
    QCOMPARE(it.root.leftovers(), QString());
}

void WindowsTest::junctionsAndReadOnlyFilesGo()
{
    Installed it(*m_releases);
    const fs::path tree = it.root.tree();
    SetFileAttributesW((tree / "bin/simulator").c_str(), FILE_ATTRIBUTE_READONLY);
    SetFileAttributesW((tree / "bin").c_str(), FILE_ATTRIBUTE_READONLY);
    QCOMPARE(it.library.installVersion("2.0.0", {}, {}), vlupd::OK);
    QCOMPARE(promiseFault(it.root, *m_releases, {"2.0.0"}), QString());
    SetFileAttributesW((tree / "bin/simulator").c_str(), FILE_ATTRIBUTE_READONLY);
    const fs::path outside = it.root.path() / "outside";
    writeFile(outside / "two", "not the version's");
    const auto native = [](fs::path path) {
        return QString::fromStdWString(path.make_preferred().native());
    };
    fs::remove_all(tree / "data");
    QProcess command;
    command.start(QStringLiteral("cmd"),
                  {QStringLiteral("/c"), QStringLiteral("mklink"), QStringLiteral("/J"),
                   native(tree / "data"), native(outside)});
    QVERIFY(command.waitForFinished());
    const bool linked = command.exitCode() == 0 && fs::exists(tree / "data");
    QCOMPARE(it.library.removeVersion("2.0.0"), vlupd::OK);
    QVERIFY(tidy(it.root.path()));
    QVERIFY(!fs::exists(tree / "bin"));
    QVERIFY(fs::exists(outside / "two"));
    if (!linked)
        QSKIP("no junction could be made here (Wine makes none)");
}

QTEST_GUILESS_MAIN(WindowsTest)
#include "windowstest.moc"
