#include "tests/vl/install/installfixture.h"
#include "tests/vl/install/switchscenario.h"
#include "vl/src/platform/file.h"
#include "vl/src/platform/fileobserver.h"

#include <QTest>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <mutex>
#include <random>
#include <set>
#include <tuple>

namespace fs = std::filesystem;
using vl::FileOperation;
using vlupd::VLUPD;

namespace {

/// Everything below a root: contents by path, folders with a "/" at the end.
using Tree = std::map<std::string, std::string>;

/// Follows the file operations of one root and works out what a power cut before each of them could
/// leave: any number of the last renames that were not flushed are lost, with the folders made
/// after them, and files that were not flushed hold zeros. A flush makes durable what it was asked
/// for and nothing else; what was removed stays removed.
class PowerCuts final
{
public:
    /// `failing`: the first rename to this path fails.
    PowerCuts(const fs::path& root, std::string failing)
        : m_root(root), m_failing(std::move(failing))
    {
        vl::setFileFault([this](FileOperation now, const fs::path& path) {
            before(now, path);
            const bool fails = now == FileOperation::Rename && nameOf(path) == m_failing;
            if (fails)
                m_failing.clear();
            return fails ? std::optional(EIO) : std::nullopt;
        });
        vl::setFileObserver(
            {.renaming = [this](const fs::path& from, const fs::path& to) { note(from, to); },
             .volumeFlushed =
                 [this](const fs::path& /*folder*/) {
                     const std::lock_guard lock(m_mutex);
                     m_unflushed.clear();
                     if (vl::syncVolumeWritesContents())
                         m_unwritten.clear();
                 }});
    }
    ~PowerCuts()
    {
        vl::setFileFault({});
        vl::setFileObserver({});
    }
    PowerCuts(const PowerCuts&) = delete;
    PowerCuts& operator=(const PowerCuts&) = delete;

    const std::set<Tree>& outcomes() const { return m_outcomes; }
    std::size_t lostAtOnce() const { return m_lostAtOnce; } ///< most renames lost in one of them

private:
    struct Change
    {
        std::string from; ///< empty: a folder was made
        std::string to;
        std::optional<std::string> replaced; ///< what the name stood for before
    };

    std::string nameOf(const fs::path& path) const
    {
        return vl::toUtf8(path.lexically_relative(m_root));
    }
    void before(FileOperation now, const fs::path& path);
    void note(const fs::path& from, const fs::path& to);
    Tree tree() const;
    void addOutcomes();

    const fs::path m_root;
    std::string m_failing;
    std::mutex m_mutex; // files are built by several threads
    std::vector<Change> m_unflushed;
    std::set<std::string> m_unwritten; ///< files whose contents are not on the disk
    std::set<Tree> m_outcomes;
    std::size_t m_lostAtOnce = 0;
};

void PowerCuts::before(FileOperation now, const fs::path& path)
{
    const std::string name = nameOf(path);
    if (name.starts_with(".."))
        return;
    const std::lock_guard lock(m_mutex);
    if (now == FileOperation::Rename || now == FileOperation::Remove ||
        now == FileOperation::Sync || now == FileOperation::MakeDirectory)
        addOutcomes();
    if (now == FileOperation::MakeDirectory && !fs::exists(path))
        m_unflushed.push_back({{}, name, {}});
    if (now == FileOperation::Write || now == FileOperation::Truncate)
        m_unwritten.insert(name);
    // Flushing a staged file before its volume does not yet make its length durable.
    const bool isRecord = vl::isTemporaryName(vl::toUtf8(path.filename()));
    if (now == FileOperation::Sync && (isRecord || !vl::syncVolumeWritesContents()))
        m_unwritten.erase(name);
    if (now == FileOperation::Sync)
        std::erase_if(m_unflushed,
                      [&](const Change& one) { return (m_root / one.to).parent_path() == path; });
}

void PowerCuts::note(const fs::path& from, const fs::path& to)
{
    const std::lock_guard lock(m_mutex);
    Change rename{nameOf(from), nameOf(to), {}};
    if (fs::is_regular_file(to))
        rename.replaced = tree()[rename.to];
    if (m_unwritten.erase(rename.from) > 0)
        m_unwritten.insert(rename.to);
    else
        m_unwritten.erase(rename.to);
    m_unflushed.push_back(std::move(rename));
}

Tree PowerCuts::tree() const
{
    Tree tree;
    // Entries that vanish meanwhile are left out: other threads stage files.
    std::error_code gone;
    for (const auto& entry : fs::recursive_directory_iterator(m_root, gone)) {
        const std::string name = nameOf(entry.path());
        if (entry.is_directory(gone)) {
            tree[name + "/"];
            continue;
        }
        std::ifstream file(entry.path(), std::ios::binary);
        std::string contents{std::istreambuf_iterator<char>(file), {}};
        tree[name] = m_unwritten.contains(name) ? std::string(contents.size(), '\0') : contents;
    }
    return tree;
}

void PowerCuts::addOutcomes()
{
    Tree left = tree();
    m_outcomes.insert(left);
    m_lostAtOnce = std::max(m_lostAtOnce, m_unflushed.size());
    for (auto lost = m_unflushed.rbegin(); lost != m_unflushed.rend(); ++lost) {
        if (lost->from.empty()) {
            left.erase(lost->to + "/");
            continue;
        }
        // A folder takes along what lies in it.
        Tree before;
        for (auto& [name, contents] : left) {
            const bool moves = name == lost->to || name.starts_with(lost->to + "/");
            before[moves ? lost->from + name.substr(lost->to.size()) : name] = contents;
        }
        if (lost->replaced)
            before[lost->to] = *lost->replaced;
        left = std::move(before);
        m_outcomes.insert(left);
    }
}

void restore(const Tree& tree, const fs::path& root)
{
    for (const auto& [name, contents] : tree) {
        const fs::path path = root / vl::fromUtf8(name);
        if (name.ends_with('/'))
            fs::create_directories(path);
        else
            writeFile(path, contents);
    }
}

} // namespace

class PowerCutTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { scenario::publish(m_releases); }
    void cuts_data();
    void cuts();

private:
    Releases m_releases{true};
};

void PowerCutTest::cuts_data()
{
    QTest::addColumn<QString>("installed");
    QTest::addColumn<QString>("wanted");
    QTest::addColumn<QString>("failing");

    for (const auto& [name, installed, wanted, failing] :
         {std::tuple("update", "1.0.0", "2.0.0", ""),
          {"downgrade", "2.0.0", "1.0.0", ""},
          {"undone update", "1.0.0", "2.0.0", "simulator/bin/simulator"},
          {"removal", "1.0.0", "", ""}})
        QTest::newRow(name) << installed << wanted << failing;
}

void PowerCutTest::cuts()
{
    QFETCH(const QString, installed);
    QFETCH(const QString, wanted);
    QFETCH(const QString, failing);
    const std::string from = installed.toStdString();
    const std::string to = wanted.toStdString();
    const Files& mine = from == "1.0.0" ? scenario::besideFirst : scenario::besideSecond;
    Root root(m_releases, "", true);
    std::vector<Tree> outcomes;
    {
        LogLines log;
        QVERIFY2(VLUPD(root.path(), false, &log).installVersion(from, {}, {}) == vlupd::OK,
                 log.text().c_str());
        QCOMPARE(root.leftovers(), QString());
        for (const auto& [path, contents] : mine)
            writeFile(root.tree() / path, contents);
        const PowerCuts cuts(root.path(), failing.toStdString());
        {
            VLUPD library(root.path(), false, &log);
            const int result =
                to.empty() ? library.removeVersion(from) : library.installVersion(to, {}, {});
            QVERIFY2((result == vlupd::OK) == failing.isEmpty(), log.text().c_str());
            QVERIFY(library.cleanDownloads(std::chrono::minutes(0)));
        }
        outcomes.assign(cuts.outcomes().begin(), cuts.outcomes().end());
        // The renames of a switch are flushed together.
        QVERIFY(to.empty() || cuts.lostAtOnce() > 10);
    }
    QVERIFY2(outcomes.size() > (to.empty() ? 10U : 40U),
             qPrintable(QString::number(outcomes.size())));

    constexpr std::size_t most = 200;
    std::ranges::shuffle(outcomes, std::mt19937(1));
    outcomes.resize(std::min(outcomes.size(), most));
    for (const Tree& outcome : outcomes) {
        const Root found(m_releases, "", true);
        restore(outcome, found.path());
        const QString fault = promiseFault(found, m_releases, {from, to}, mine);
        QString label;
        for (const auto& [name, contents] : outcome)
            label += QStringLiteral("\n%1: %2 bytes")
                         .arg(QString::fromStdString(name))
                         .arg(contents.size());
        QVERIFY2(fault.isEmpty(), qPrintable(fault + label));
    }
}

QTEST_GUILESS_MAIN(PowerCutTest)
#include "powercuttest.moc"
