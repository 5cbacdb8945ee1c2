#include "tests/vl/install/installfixture.h"

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
    QCOMPARE(promiseFault(it.root, *m_releases, {"2.0.0"}), QString());
    QCOMPARE(it.root.leftovers(), QString());
    QCOMPARE(it.library.removeVersion("2.0.0"), vlupd::OK);
    QCOMPARE(it.root.leftovers(), QString());
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
    constexpr const char* tree = "versions/1.0.0.g1";
    constexpr const char* program = "versions/1.0.0.g1/bin/simulator";
    // The old version runs on in its folder, which goes later.
    row(tree, "2.0.0", true, vlupd::OK);
    row(program, "2.0.0", true, vlupd::OK);
    row("installed.json", "2.0.0", true, vlupd::SYSTEM_CALL_ERROR);
    row("installed.json", "2.0.0", false, vlupd::OK);
    row(tree, "", true, vlupd::SYSTEM_CALL_ERROR);
    row(tree, "", false, vlupd::OK);
    row("installed.json", "", true, vlupd::SYSTEM_CALL_ERROR);
}

void WindowsTest::heldFiles()
{
    QFETCH(QString, path);
    QFETCH(QString, target);
    QFETCH(bool, forEver);
    QFETCH(int, result);
    Installed it(*m_releases);
    const fs::path old = it.root.tree();
    const bool runs = path.endsWith(QLatin1String("simulator"));
    if (runs)
        writeFile(old / "saved/mine", "the user's");
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
    const std::set<std::string> now{result == vlupd::OK ? version : "1.0.0"};
    if (result != vlupd::OK)
        QVERIFY2(it.log.contains("(Windows error "), it.log.text().c_str());
    QCOMPARE(fs::exists(old / "saved/mine"), runs);
    holder.release();
    QCOMPARE(promiseFault(it.root, *m_releases, now), QString());
    QCOMPARE(result == vlupd::OK ? int(vlupd::OK) : change(), int(vlupd::OK));
    QVERIFY(it.library.cleanDownloads(0min));
    QCOMPARE(fs::exists(it.root.tree() / "saved/mine"), runs);
    QCOMPARE(it.root.leftovers(), QString());
}

void WindowsTest::junctionsAndReadOnlyFilesGo()
{
    Installed it(*m_releases);
    const fs::path tree = it.root.tree();
    SetFileAttributesW((tree / "bin/simulator").c_str(), FILE_ATTRIBUTE_READONLY);
    SetFileAttributesW((tree / "bin").c_str(), FILE_ATTRIBUTE_READONLY);
    const fs::path outside = it.root.path() / "outside";
    writeFile(outside / "precious", "not the version's");
    const auto native = [](fs::path path) {
        return QString::fromStdWString(path.make_preferred().native());
    };
    QProcess command;
    command.start(QStringLiteral("cmd"),
                  {QStringLiteral("/c"), QStringLiteral("mklink"), QStringLiteral("/J"),
                   native(tree / "junction"), native(outside)});
    QVERIFY(command.waitForFinished());
    const bool linked = command.exitCode() == 0 && fs::exists(tree / "junction");
    QCOMPARE(it.library.removeVersion("1.0.0"), vlupd::OK);
    QVERIFY(!fs::exists(tree));
    QVERIFY(fs::exists(outside / "precious"));
    fs::remove_all(outside);
    QCOMPARE(it.root.leftovers(), QString());
    if (!linked)
        QSKIP("no junction could be made here (Wine makes none)");
}

QTEST_GUILESS_MAIN(WindowsTest)
#include "windowstest.moc"
