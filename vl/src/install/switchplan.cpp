#include "vl/src/install/switchplan.h"

#include "vl/src/install/folderwalker.h"
#include "vl/src/platform/file.h"

#include <algorithm>
#include <functional>
#include <set>
#include <string_view>
#include <unordered_set>

namespace vl {

namespace {

constexpr VolumeTime clockStep = 2'000'000'000;

/// What becomes of a listed file of the old or the new version.
enum class Contents { Unknown, Same, Other };

class Planner final
{
public:
    explicit Planner(const SwitchQuestion& question)
        : m_target(question.target), m_base(question.base), m_listing(question.listing),
          m_question(question)
    {
    }

    SwitchPlan run()
    {
        m_stays.resize(m_target.files.size());
        if (m_base != nullptr)
            m_leaves.resize(m_base->files.size());
        for (FileNumber i = 0; i < m_target.files.size(); ++i)
            planNew(i);
        for (FileNumber j = 0; m_base != nullptr && j < m_base->files.size(); ++j)
            planOld(j);
        if (!m_plan.unread.empty())
            return std::move(m_plan);
        if (!m_plan.in.empty())
            makeWay();
        orderExecutables();
        return std::move(m_plan);
    }

private:
    const ManifestFile* baseFile(const std::string& path) const
    {
        return m_base != nullptr ? m_base->find(path) : nullptr;
    }

    // Whether a listed file holds what `file` says; `base`: the same place in the old version.
    Contents compare(const ManifestFile& file, const ListedEntry& listed, const ManifestFile* base)
    {
        if (listed.entry.size != file.size)
            return Contents::Other;
        if (base != nullptr && base->size == file.size && !m_question.readAll &&
            isUntouched(listed.entry, m_question.verified))
            return base->hash == file.hash ? Contents::Same : Contents::Other;
        return compareRead(file, listed);
    }

    Contents compareRead(const ManifestFile& file, const ListedEntry& listed)
    {
        const std::optional<Hash>* hash = m_question.known.find(listed);
        if (hash != nullptr)
            return *hash && **hash == file.hash ? Contents::Same : Contents::Other;
        if (m_asked.insert(listed.path).second)
            m_plan.unread.push_back({listed.path, listed.entry.size});
        return Contents::Unknown;
    }

    void planNew(FileNumber number)
    {
        const ManifestFile& file = m_target.files[number];
        const ListedEntry* listed = m_listing.find(file.path);
        const ManifestFile* base = baseFile(file.path);
        bool stays = false;
        if (listed != nullptr && file.role == FileRole::Settings)
            stays = settingsStay(file, *listed, base);
        else if (listed != nullptr && listed->entry.kind == FileKind::File)
            stays = compare(file, *listed, base) != Contents::Other &&
                    (base != nullptr ? base->mode == file.mode : listed->path == file.path);
        m_stays[number] = stays;
        if (!stays)
            m_plan.in.push_back(number);
    }

    // Once installed, settings are the user's: unchanged ones follow the version, others stay.
    bool settingsStay(const ManifestFile& file, const ListedEntry& listed, const ManifestFile* base)
    {
        if (listed.entry.kind == FileKind::Directory)
            return false;
        if (listed.entry.kind != FileKind::File || base == nullptr || base->hash == file.hash)
            return true;
        return compare(*base, listed, base) != Contents::Same;
    }

    void planOld(FileNumber number)
    {
        const ManifestFile& file = m_base->files[number];
        const ListedEntry* listed = m_listing.find(file.path);
        if (listed == nullptr || listed->entry.kind != FileKind::File)
            return;
        const ManifestFile* next = m_target.find(file.path);
        if (next != nullptr && m_stays[static_cast<FileNumber>(next - m_target.files.data())])
            return;
        const bool changed = compare(file, *listed, &file) == Contents::Other;
        // Changed settings stay; where a new version takes their name for something else, they are
        // in its way like any file of the user.
        if (changed && file.role == FileRole::Settings)
            return;
        if (changed)
            m_plan.edited.push_back(file.path);
        m_leaves[number] = true;
        m_plan.out.push_back(number);
    }

    // Moves what is neither of the old version nor stays out of the way of new files and folders.
    void makeWay()
    {
        for (const FileNumber number : m_plan.in)
            m_comes.insert(pathKey(m_target.files[number].path));
        for (const ManifestFile& file : m_target.files)
            for (auto folder = parentPathOf(file.path); !folder.empty();
                 folder = parentPathOf(folder))
                if (!m_folders.insert(pathKey(folder)).second)
                    break;
        findLeaving();
        std::string moved; // a folder that moves whole
        for (const ListedEntry& listed : m_listing.entries()) {
            if (!moved.empty() && listed.path.starts_with(moved))
                continue;
            const std::string key = pathKey(listed.path);
            const bool isFolder = listed.entry.kind == FileKind::Directory;
            if (m_leaving.contains(key))
                continue;
            if (isFolder ? !m_comes.contains(key)
                         : !m_comes.contains(key) && !m_folders.contains(key))
                continue;
            if (isFolder && !m_keepers.contains(key)) {
                m_plan.emptied.push_back(listed.path);
                continue;
            }
            m_plan.moves.push_back({listed.path, freeName(listed.path)});
            if (isFolder)
                moved = listed.path + "/";
        }
    }

    // The old files that leave, and the folders in which something else stays behind.
    void findLeaving()
    {
        for (const FileNumber number : m_plan.out)
            m_leaving.insert(pathKey(m_base->files[number].path));
        for (const ListedEntry& listed : m_listing.entries())
            if (listed.entry.kind != FileKind::Directory &&
                !m_leaving.contains(pathKey(listed.path)))
                for (auto folder = parentPathOf(listed.path); !folder.empty();
                     folder = parentPathOf(folder))
                    if (!m_keepers.insert(pathKey(folder)).second)
                        break;
    }

    std::string freeName(const std::string& path)
    {
        if (m_taken.empty()) {
            m_taken = m_folders;
            for (const ManifestFile& file : m_target.files)
                m_taken.insert(pathKey(file.path));
        }
        std::string name = path;
        do
            name += ".user";
        while (m_listing.find(name) != nullptr || !m_taken.insert(pathKey(name)).second);
        return name;
    }

    void orderExecutables()
    {
        if (m_plan.isEmpty())
            return;
        std::set<std::string> names;
        for (const Manifest* manifest : {&m_target, m_base})
            if (manifest != nullptr)
                for (const auto& [key, path] : manifest->executables)
                    names.insert(path);
        const auto isProgram = [&names](const Manifest& manifest) {
            return [&](FileNumber number) { return names.contains(manifest.files[number].path); };
        };
        std::stable_partition(m_plan.in.begin(), m_plan.in.end(), std::not_fn(isProgram(m_target)));
        if (m_base == nullptr)
            return;
        std::stable_partition(m_plan.out.begin(), m_plan.out.end(), isProgram(*m_base));
        for (FileNumber number = 0; number < m_base->files.size(); ++number) {
            const ListedEntry* listed =
                isProgram(*m_base)(number) ? m_listing.find(m_base->files[number].path) : nullptr;
            if (listed != nullptr && listed->entry.kind == FileKind::File && !m_leaves[number])
                m_plan.programs.push_back(number);
        }
    }

    const Manifest& m_target;
    const Manifest* const m_base;
    const FolderListing& m_listing;
    const SwitchQuestion& m_question;
    SwitchPlan m_plan;
    std::vector<bool> m_stays;  ///< by number in the target: it is there already
    std::vector<bool> m_leaves; ///< by number in the base
    using Keys = std::unordered_set<std::string>;
    Keys m_asked;   ///< paths of m_plan.unread
    Keys m_comes;   ///< new files
    Keys m_folders; ///< folders of the new version
    Keys m_taken;   ///< names that no file of the user may get
    Keys m_leaving; ///< old files that leave
    Keys m_keepers; ///< folders in which something stays behind
};

} // namespace

const std::optional<Hash>* KnownHashes::find(const ListedEntry& file) const
{
    const auto known = m_known.find(file.path);
    const bool fits = known != m_known.end() && known->second.size == file.entry.size &&
                      known->second.modified == file.entry.modified;
    return fits ? &known->second.hash : nullptr;
}

void KnownHashes::add(const ListedEntry& file, const std::optional<Hash>& hash)
{
    m_known[file.path] = {file.entry.size, file.entry.modified, hash};
}

SwitchPlan planSwitch(const SwitchQuestion& question)
{
    return Planner(question).run();
}

bool isUntouched(const FolderEntry& file, VolumeTime verified)
{
    return file.modified < verified - clockStep;
}

} // namespace vl
