#include "tests/vl/install/installfixture.h"
#include "tools/vl-publish/glob.h"
#include "tools/vl-publish/repository.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/platform/file.h"

#include <QProcess>
#include <QTest>

namespace fs = std::filesystem;

namespace {

struct Outcome
{
    int exitCode = -1;
    QByteArray output;
    QByteArray errors;
};

/// Adds version 1.1.0 to the repository that every test starts from.
const QString addCommand = QStringLiteral("add repo 1.1.0 rel --exec default_exec=bin/sim "
                                          "--secret-key s.key --level 1 --date 2026-10-01");

} // namespace

/// vl-publish as a release script sees it. What is published is what every client gets: it must be
/// right, whole and the same each time.
class PublisherTest final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanupTestCase() { QVERIFY(vl::removeTree(m_top / "hostile")); } // Qt cannot on Windows
    void publishedFolderIsListedVerifiedAndUnpackedByTar();
    void equalInputGivesEqualOutput();
    void badCommandsAreRefused_data();
    void badCommandsAreRefused();
    void damageIsFound_data();
    void damageIsFound();
    void interruptedChangesAreCleared();
    void secondChangeIsRefused();
    void garbageAgesFromItsRemoval();
    void globsMatch();

private:
    Outcome run(const QString& commandLine) const;
    /// Runs the command that adds a version, `before` replaced by `after` in it.
    Outcome add(const char* before, const QString& after) const
    {
        return run(QString(addCommand).replace(QLatin1String(before), after));
    }
    Outcome verify(const char* repository) const
    {
        return run(QStringLiteral("verify %1 --public-key p.pub").arg(QLatin1String(repository)));
    }
    QTemporaryDir m_directory;
    const fs::path m_top = pathOf(m_directory);
    /// A copy of the repository that every test starts from.
    const fs::path m_copy = m_top / "copy";
};

Outcome PublisherTest::run(const QString& commandLine) const
{
    QProcess process;
    process.setWorkingDirectory(m_directory.path());
    process.start(QStringLiteral(VL_PUBLISH), QProcess::splitCommand(commandLine));
    process.waitForFinished();
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            process.readAllStandardOutput().replace("\r\n", "\n"),
            process.readAllStandardError().replace("\r\n", "\n")};
}

void PublisherTest::initTestCase()
{
    const Files release{
        {"bin/sim", "#!/bin/sh\n"},
        {"empty.dat", ""},
        {"данные/карта мира.txt", "Карта\n"},
        {std::string(90, 'l') + "/" + std::string(200, 'n'), someBytes(100'000, 2)}};
    for (const char* folder : {"rel", "next", "big", "linked", "hostile"})
        for (const auto& [path, contents] : release)
            writeFile(m_top / folder / vl::fromUtf8(path), contents);
    writeFile(m_top / "big/large.bin", someBytes(2 * vl::frameRawSize + 12345, 1));
    fs::create_directory(m_top / "big/nothing here");
#ifndef Q_OS_WIN
    fs::create_symlink("sim", m_top / "linked/bin/link");
#endif
    writeFile(m_top / vl::fromUtf8("next/данные/карта мира.txt"), "Новая карта\n");
    writeFile(m_top / "hostile/nul", "");
    writeFile(m_top / "good.json", R"({"fixes": ["Исправлено"]})");
    writeFile(m_top / "broken.json", "[1");
    writeFile(m_top / "text.json", R"({"features": "x"})");
    for (const char* name : {"s.key --public-key p.pub", "other.key --public-key other.pub"})
        QCOMPARE(run(QStringLiteral("keygen --secret-key ") + QLatin1String(name)).exitCode, 0);
    const Outcome added = add("1.1.0", QStringLiteral("0.9.0-RC"));
    QVERIFY2(added.exitCode == 0, added.errors.constData());
}

void PublisherTest::init()
{
    fs::remove_all(m_copy);
    fs::copy(m_top / "repo", m_copy, fs::copy_options::recursive);
}

void PublisherTest::publishedFolderIsListedVerifiedAndUnpackedByTar()
{
    const Outcome added = add(
        "repo 1.1.0 rel", QStringLiteral("new 1.0.0 big --name \"Особая\" --changelog good.json "
                                         "--expires 2099-01-01 --settings *.dat "
                                         "--settings данные/*"));
    QCOMPARE(added.exitCode, 0);
    // No progress where there is no terminal.
    QCOMPARE(added.errors, "note: the empty folder \"nothing here\" is not published\n");
    const QByteArray listed = run(QStringLiteral("list new")).output;
    const Files files = filesIn(m_top / "new");
    const std::string& catalogue = files.at("catalogue.json");
    for (const char* part : {"1.0.0", "2026-10-01", "Особая"})
        QVERIFY2(listed.contains(part) && catalogue.find(part) != std::string::npos,
                 listed.constData());
    QVERIFY2(listed.contains(" 5 files"), listed.constData());
    for (const char* part : {"Исправлено", "\"expires\": \"2099-01-01\""})
        QVERIFY2(catalogue.find(part) != std::string::npos, part);
    QCOMPARE(verify("new").exitCode, 0);
    const auto manifest = vl::readManifest(files.lower_bound("manifests/")->second, "1.0.0");
    QVERIFY(manifest.has_value());
    for (const vl::ManifestFile& file : manifest->files)
        QCOMPARE(file.role == vl::FileRole::Settings,
                 file.path == "empty.dat" || file.path == "данные/карта мира.txt");

#ifndef Q_OS_WIN // whose tar knows no zstd
    const fs::path pack = fs::directory_iterator(m_top / "new/packs")->path();
    fs::create_directory(m_top / "unpacked");
    QCOMPARE(QProcess::execute(QStringLiteral("tar"),
                               {QStringLiteral("--zstd"), QStringLiteral("-xf"),
                                QString::fromStdString(pack), QStringLiteral("-C"),
                                QString::fromStdString(m_top / "unpacked")}),
             0);
    QVERIFY(filesIn(m_top / "unpacked") == filesIn(m_top / "big"));
    QVERIFY((fs::status(m_top / "unpacked/bin/sim").permissions() & fs::perms::owner_exec) !=
            fs::perms::none);
#endif

    QCOMPARE(run(QStringLiteral("remove new 1.0.0 --secret-key s.key")).exitCode, 0);
    QCOMPARE(run(QStringLiteral("list new")).output, QByteArray());
    QCOMPARE(verify("new").exitCode, 0);
}

void PublisherTest::equalInputGivesEqualOutput()
{
    qputenv("SOURCE_DATE_EPOCH", "1700000000");
    QCOMPARE(add("repo 1.1.0 rel", QStringLiteral("one 1.1.0 big")).exitCode, 0);
    for (const auto& entry : fs::recursive_directory_iterator(m_top / "big"))
        if (entry.is_regular_file())
            fs::last_write_time(entry, fs::file_time_type::clock::now() - std::chrono::hours(1));
    QCOMPARE(add("repo 1.1.0 rel", QStringLiteral("two 1.1.0 big")).exitCode, 0);
    qunsetenv("SOURCE_DATE_EPOCH");
    const Files one = filesIn(m_top / "one");
    QCOMPARE(one.size(), std::size_t{5});
    QVERIFY(one.at("catalogue.json").find("2023-11-14") != std::string::npos);
    QVERIFY(filesIn(m_top / "two") == one);
}

void PublisherTest::badCommandsAreRefused_data()
{
    QTest::addColumn<QString>("commandLine");
    // Rows are named by words of the fault.
    const auto row = [](const QString& commandLine, const char* fault) {
        QTest::newRow(fault) << commandLine;
    };
    const auto addRow = [row](const char* before, const char* after, const char* fault) {
        row(QString(addCommand).replace(QLatin1String(before), QLatin1String(after)), fault);
    };
    addRow("--secret-key s.key", "", "--secret-key");
    addRow("s.key", "none", "none");
    addRow("s.key", "p.pub", "p.pub: not a minisign");
    addRow("s.key", "other.key", "unknown key");
    addRow("=bin/sim", "", "KEY=RELATIVE/PATH");
    addRow("bin/sim", "bin/sim.exe", "is no file of");
    addRow("--level 1", "--settings *.cfg", "\"*.cfg\" of settings files matches no file");
    addRow("--level 1", "--settings bin/*", "\"bin/*\" of settings files matches the executable");
    addRow("--level 1", "--changelog broken.json", "broken.json");
    addRow("--level 1", "--changelog text.json", "\"features\"");
    addRow("2026-10-01", "2026-02-30", "not a date");
    addRow("1.1.0", "0.9.0-RC", "already listed");
    addRow("1.1.0", "0.9.0-rc", "nothing but case");
    addRow("1.1.0", "..", "\"..\"");
    addRow("rel", "nowhere", "nowhere");
    addRow("rel", "hostile", "\"nul\"");
#ifndef Q_OS_WIN
    addRow("rel", "linked", "\"bin/link\": it is a symbolic link");
#endif
    addRow("repo", "rel/repo", "inside");
    row(QStringLiteral("keygen --secret-key s.key --public-key q.pub"), "exists");
    row(QStringLiteral("list rel"), "catalogue.json");
    row(QStringLiteral("verify rel --public-key p.pub"), "faults found: 1");
    row(QStringLiteral("gc repo --older-than 200000 --secret-key s.key"), "--older-than");
    row(QStringLiteral("remove repo 1.1.0 --secret-key s.key"), "not listed");
}

void PublisherTest::badCommandsAreRefused()
{
    QFETCH(QString, commandLine);
    const Files before = filesIn(m_top / "repo");
    const Outcome outcome = run(commandLine);
    QCOMPARE(outcome.exitCode, 1);
    QVERIFY2(outcome.errors.contains(QTest::currentDataTag()), outcome.errors.constData());
    QCOMPARE(outcome.errors.count('\n'), 1);
    QVERIFY(filesIn(m_top / "repo") == before);
}

void PublisherTest::damageIsFound_data()
{
    QTest::addColumn<std::string>("place");
    QTest::addColumn<int>("flippedByte"); // -1: the file is missing
    // Rows are named by words of the fault.
    QTest::newRow("frame 0 at offset 0") << std::string("packs/") << 0;
    QTest::newRow("file \"bin/sim\"") << std::string("packs/") << 0;
    QTest::newRow("tar.zst") << std::string("packs/") << -1;
    QTest::newRow("differs from what the catalogue says") << std::string("manifests/") << 5;
    QTest::newRow("does not match") << std::string("catalogue.json") << 30;
}

void PublisherTest::damageIsFound()
{
    QFETCH(std::string, place);
    QFETCH(int, flippedByte);
    QCOMPARE(verify("copy").exitCode, 0);
    Files files = filesIn(m_copy);
    const auto damaged = files.lower_bound(place);
    fs::remove(m_copy / damaged->first);
    if (flippedByte >= 0) {
        damaged->second[std::size_t(flippedByte)] ^= 1;
        writeFile(m_copy / damaged->first, damaged->second);
    }
    const Outcome outcome = verify("copy");
    QCOMPARE(outcome.exitCode, 1);
    QVERIFY2(outcome.output.contains(QTest::currentDataTag()), outcome.output.constData());
}

void PublisherTest::interruptedChangesAreCleared()
{
    const auto addNext = [this](const char* version) {
        return add("repo 1.1.0", QStringLiteral("copy ") + QLatin1String(version)).exitCode;
    };
    // Ended while a pack was being written, and before the signature was in place.
    writeFile(m_copy / "packs/.new-pack.vl-tmp", "half a pack");
    writeFile(m_copy / "catalogue.json.new", "{\"format\": 1, \"half");
    QCOMPARE(addNext("1.0.0"), 0);
    QVERIFY(!fs::exists(m_copy / "packs/.new-pack.vl-tmp"));
    QVERIFY(!fs::exists(m_copy / "catalogue.json.new"));
    QCOMPARE(verify("copy").exitCode, 0);

    // Ended between the signature and the catalogue.
    const std::string old = filesIn(m_copy).at("catalogue.json");
    QCOMPARE(addNext("1.1.0"), 0);
    fs::rename(m_copy / "catalogue.json", m_copy / "catalogue.json.new");
    writeFile(m_copy / "catalogue.json", old);
    QCOMPARE(verify("copy").exitCode, 1);
    QCOMPARE(addNext("1.2.0"), 0);
    const Outcome whole = verify("copy");
    QVERIFY2(whole.output.startsWith("no faults: 4 versions"), whole.output.constData());
}

void PublisherTest::secondChangeIsRefused()
{
    Files expected = filesIn(m_copy);
    const auto key = vl::readSecretKey(*vl::readWholeFile(m_top / "s.key", 4096));
    {
        const auto running = vl::publish::RepositoryChange::begin(m_copy, *key, false);
        QVERIFY(running.has_value());
        // The pack that the first change is writing must outlive the others' clearing.
        expected["packs/.new-pack.vl-tmp"] = "half a pack";
        writeFile(m_copy / "packs/.new-pack.vl-tmp", "half a pack");
        for (const char* command : {"add copy 1.0.0 rel --exec default_exec=bin/sim",
                                    "remove copy 0.9.0-RC", "gc copy --older-than 0"}) {
            const Outcome outcome =
                run(QLatin1String(command) + QStringLiteral(" --secret-key s.key"));
            QCOMPARE(outcome.exitCode, 1);
            QVERIFY2(outcome.errors.contains("another process is using"),
                     outcome.errors.constData());
        }
    }
    QVERIFY(filesIn(m_copy) == expected);
}

void PublisherTest::garbageAgesFromItsRemoval()
{
    const auto collect = [this] {
        return run(QStringLiteral("gc copy --older-than 30 --secret-key s.key")).output;
    };
    const auto makeOld = [this] {
        for (const auto& entry : fs::recursive_directory_iterator(m_copy))
            if (entry.is_regular_file())
                fs::last_write_time(entry,
                                    fs::file_time_type::clock::now() - std::chrono::days(31));
    };
    writeFile(m_copy / "packs/index.html", "not ours");
    Files garbage = filesIn(m_copy);
    std::erase_if(garbage, [](const auto& file) { return !file.first.starts_with("manifests/"); });
    const Files before = filesIn(m_copy);
    QCOMPARE(add("repo 1.1.0 rel", QStringLiteral("copy 1.0.0 next")).exitCode, 0);
    for (const auto& file : filesIn(m_copy))
        if (!before.contains(file.first))
            garbage.insert(file);
    QCOMPARE(garbage.size(), std::size_t{5}); // two manifests, a pack, a delta and its index
    // This version shares the first one's pack and has a delta from the one between.
    QCOMPARE(add("repo 1.1.0", QStringLiteral("copy 1.1.0")).exitCode, 0);
    makeOld();
    for (const char* version : {"0.9.0-RC", "1.0.0"})
        QCOMPARE(
            run(QStringLiteral("remove copy %1 --secret-key s.key").arg(QLatin1String(version)))
                .exitCode,
            0);
    Files expected = filesIn(m_copy);
    QCOMPARE(collect(), "removed: 0 B\n");
    QVERIFY(filesIn(m_copy) == expected);

    makeOld();
    std::size_t size = 0;
    for (const auto& [path, contents] : garbage) {
        size += contents.size();
        expected.erase(path);
    }
    QCOMPARE(collect(), "removed: " + QByteArray::number(double(size) / 1024, 'f', 1) + " KiB\n");
    QVERIFY(filesIn(m_copy) == expected);
    QCOMPARE(verify("copy").exitCode, 0);
}

void PublisherTest::globsMatch()
{
    struct Row
    {
        const char* glob;
        std::vector<const char*> matched;
        std::vector<const char*> others;
    };
    const std::vector<Row> rows{
        {"*.ini", {"keys.ini", "a/b/keys.ini"}, {"keys.INI", "keys.ini.bak", "a.ini/keys"}},
        {"/keys.ini", {"keys.ini"}, {"a/keys.ini"}},
        {"a/*.ini", {"a/keys.ini"}, {"a/b/keys.ini", "b/a/keys.ini"}},
        {"a/**", {"a/b/c/keys.ini"}, {"a", "ab/keys.ini"}},
        {"a/**/*.ini", {"a/keys.ini", "a/b/c/keys.ini"}, {"ab/keys.ini"}},
        {"**/b/*", {"b/keys.ini", "a/b/keys.ini"}, {"ab/keys.ini"}},
        {"*k*s", {"kkeys", "a/keys"}, {"k/s", "keyset"}},
        {"карт?.ini", {"карта.ini"}, {"карт.ini", "карт/.ini"}},
        {"[a].ini", {"[a].ini"}, {"a.ini"}},
    };
    for (const Row& row : rows) {
        for (const char* path : row.matched)
            QVERIFY2(vl::publish::globMatches(row.glob, path), path);
        for (const char* path : row.others)
            QVERIFY2(!vl::publish::globMatches(row.glob, path), path);
    }
}

QTEST_APPLESS_MAIN(PublisherTest)
#include "publishertest.moc"
