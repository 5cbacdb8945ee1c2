#include "vl/src/install/versionswitch.h"

#include <algorithm>
#include <charconv>
#include <utility>
#include <vector>

namespace vl {

namespace {

Error interrupted()
{
    return {vlupd::SYSTEM_CALL_ERROR, "the switch was interrupted"};
}

Expected<std::set<FileNumber>> numbersIn(const Folder& folder)
{
    const auto entries = folder.list();
    if (!entries)
        return tl::unexpected(entries.error());
    std::set<FileNumber> numbers;
    for (const FolderEntry& entry : *entries) {
        FileNumber number = 0;
        const char* const end = entry.name.data() + entry.name.size();
        const auto [last, error] = std::from_chars(entry.name.data(), end, number);
        if (error == std::errc() && last == end)
            numbers.insert(number);
    }
    return numbers;
}

// A name that is not there (or no longer in a folder) was moved before, or somebody else took it.
bool isGone(const Expected<void>& moved)
{
    return !moved && moved.error().code == vlupd::NOT_FOUND;
}

template <class Items, class Step>
Expected<void> forEach(const Items& items, const VersionSwitch::GoOn& goOn, const Step& step)
{
    for (const auto& item : items) {
        if (goOn && !goOn())
            return tl::unexpected(interrupted());
        if (auto done = step(item); !done)
            return done;
    }
    return {};
}

Expected<void> removeEmptyFolders(const Folder& folder)
{
    const auto entries = folder.list();
    if (!entries)
        return tl::unexpected(entries.error());
    for (const FolderEntry& entry : *entries) {
        if (entry.kind != FileKind::Directory)
            continue;
        if (const auto below = folder.openFolder(entry.name))
            if (auto removed = removeEmptyFolders(*below); !removed)
                return removed;
        if (const auto removed = folder.removeFolder(entry.name); !removed)
            return tl::unexpected(removed.error());
    }
    return {};
}

} // namespace

VersionSwitch::VersionSwitch(const Switch& journal, const Manifest* from, const Manifest& to,
                             const SwitchFolders& folders, Patience patience)
    : m_journal(journal), m_from(from), m_to(to), m_folders(folders), m_patience(patience),
      m_source(folders.version), m_target(folders.version)
{
}

Expected<void> VersionSwitch::begin()
{
    auto aside = numbersIn(m_folders.aside);
    auto staged = numbersIn(m_folders.staged);
    if (!aside || !staged)
        return tl::unexpected(aside ? staged.error() : aside.error());
    m_aside = std::move(*aside);
    m_staged = std::move(*staged);
    const auto isBelow = [](const std::vector<FileNumber>& numbers, std::size_t size) {
        return std::ranges::all_of(numbers, [size](FileNumber n) { return n < size; });
    };
    const std::size_t old = m_from != nullptr ? m_from->files.size() : 0;
    if (!isBelow(m_journal.out, old) || !isBelow(m_journal.programs, old) ||
        !isBelow(m_journal.in, m_to.files.size()))
        return failure(vlupd::UPDATER_DATA_ERROR, "the journal does not fit the manifests");
    return {};
}

Expected<void> VersionSwitch::stopPrograms(const GoOn& goOn)
{
    const auto leaves = [this](FileNumber number) { return leave(number); };
    if (auto left = forEach(m_journal.programs, goOn, leaves); !left)
        return left;
    std::vector<FileNumber> programs;
    std::ranges::copy_if(m_journal.out, std::back_inserter(programs),
                         [this](FileNumber number) { return isProgram(*m_from, number); });
    return forEach(programs, goOn, leaves);
}

Expected<void> VersionSwitch::finish(const GoOn& goOn)
{
    // Once all new files have arrived, files with the names of old ones are new.
    const bool hasArrived =
        !m_journal.in.empty() && std::ranges::none_of(m_journal.in, [this](FileNumber number) {
            return m_staged.contains(number);
        });
    auto done = hasArrived ? Expected<void>() : exchange(goOn);
    if (done)
        done = forEach(m_journal.programs, goOn,
                       [this](FileNumber number) { return comeBack(number); });
    m_source.close();
    m_target.close();
    return done;
}

// Old files leave, the user's make way, new ones arrive.
Expected<void> VersionSwitch::exchange(const GoOn& goOn)
{
    auto done = stopPrograms(goOn);
    if (done)
        done = forEach(m_journal.out, goOn, [this](FileNumber number) { return leave(number); });
    if (done)
        done = forEach(m_journal.moves, goOn,
                       [this](const UserMove& move) { return makeWay(move, false); });
    if (done)
        done = forEach(m_journal.emptied, goOn,
                       [this](const std::string& path) { return removeEmptied(path); });
    if (done)
        done = forEach(m_journal.in, goOn, [this](FileNumber number) { return arrive(number); });
    return done;
}

Expected<void> VersionSwitch::undo(const GoOn& goOn)
{
    // Whatever can be started goes first here too, and comes back last.
    std::vector<FileNumber> in(m_journal.in.rbegin(), m_journal.in.rend());
    std::vector<UserMove> moves(m_journal.moves.rbegin(), m_journal.moves.rend());
    std::vector<FileNumber> out(m_journal.out.rbegin(), m_journal.out.rend());
    auto done = forEach(in, goOn, [this](FileNumber number) { return withdraw(number); });
    if (done)
        done = removeMade();
    if (done)
        done = forEach(moves, goOn, [this](const UserMove& move) { return makeWay(move, true); });
    const auto comes = [this](FileNumber number) { return comeBack(number); };
    if (done)
        done = forEach(out, goOn, comes);
    if (done)
        done = forEach(m_journal.programs, goOn, comes);
    m_source.close();
    m_target.close();
    return done;
}

Expected<void> VersionSwitch::leave(FileNumber number)
{
    if (m_aside.contains(number))
        return {};
    const std::string& path = m_from->files[number].path;
    const auto folder = m_source.parentOf(path);
    if (!folder)
        return hasNoFolder(folder.error()) ? Expected<void>() : tl::unexpected(folder.error());
    auto moved = (*folder)->move(nameOf(path), m_folders.aside, std::to_string(number), m_patience);
    if (moved)
        m_aside.insert(number);
    return isGone(moved) ? Expected<void>() : moved;
}

Expected<void> VersionSwitch::comeBack(FileNumber number)
{
    if (!m_aside.contains(number))
        return {};
    const std::string& path = m_from->files[number].path;
    const auto folder = m_source.makeParentOf(path);
    if (!folder)
        return tl::unexpected(folder.error());
    auto moved = m_folders.aside.move(std::to_string(number), **folder, nameOf(path), m_patience);
    if (moved)
        m_aside.erase(number);
    return isGone(moved) ? Expected<void>() : moved;
}

Expected<void> VersionSwitch::arrive(FileNumber number)
{
    if (!m_staged.contains(number))
        return {};
    const std::string& path = m_to.files[number].path;
    const auto folder = m_source.makeParentOf(path);
    if (!folder)
        return tl::unexpected(folder.error());
    auto moved = m_folders.staged.move(std::to_string(number), **folder, nameOf(path), m_patience);
    if (moved)
        m_staged.erase(number);
    if (moved && m_operation != nullptr)
        m_operation->addDone(m_to.files[number].size);
    return moved;
}

Expected<void> VersionSwitch::withdraw(FileNumber number)
{
    if (m_staged.contains(number))
        return {};
    const std::string& path = m_to.files[number].path;
    const auto folder = m_source.parentOf(path);
    if (!folder)
        return hasNoFolder(folder.error()) ? Expected<void>() : tl::unexpected(folder.error());
    auto moved =
        (*folder)->move(nameOf(path), m_folders.staged, std::to_string(number), m_patience);
    if (moved)
        m_staged.insert(number);
    return isGone(moved) ? Expected<void>() : moved;
}

Expected<void> VersionSwitch::makeWay(const UserMove& move, bool back)
{
    const std::string& from = back ? move.to : move.from;
    const std::string& to = back ? move.from : move.to;
    const auto source = m_source.parentOf(from);
    if (!source)
        return hasNoFolder(source.error()) ? Expected<void>() : tl::unexpected(source.error());
    const auto target = m_target.makeParentOf(to);
    if (!target)
        return tl::unexpected(target.error());
    // The user's name is taken by what made it move: it has moved already.
    const auto there = (*target)->find(nameOf(to));
    if (!there)
        return tl::unexpected(there.error());
    if (*there)
        return {};
    auto moved = (*source)->move(nameOf(from), **target, nameOf(to), m_patience);
    return isGone(moved) ? Expected<void>() : moved;
}

Expected<void> VersionSwitch::removeEmptied(const std::string& path)
{
    const auto folder = m_source.parentOf(path);
    if (!folder)
        return hasNoFolder(folder.error()) ? Expected<void>() : tl::unexpected(folder.error());
    const auto entry = (*folder)->find(nameOf(path));
    if (!entry)
        return tl::unexpected(entry.error());
    if (!*entry || (*entry)->kind != FileKind::Directory)
        return {};
    {
        const auto below = (*folder)->openFolder(nameOf(path));
        auto emptied = below ? removeEmptyFolders(*below) : tl::unexpected(below.error());
        if (!emptied)
            return emptied;
    }
    const auto removed = (*folder)->removeFolder(nameOf(path), m_patience);
    return removed ? Expected<void>() : tl::unexpected(removed.error());
}

// Folders of new files only, which would be in the way of old files and of the user's. Those of old
// ones stay: a full volume could not make them again.
Expected<void> VersionSwitch::removeMade()
{
    FolderPaths folders;
    for (const FileNumber number : m_journal.in)
        addParents(m_to.files[number].path, folders);
    FolderPaths old;
    for (const FileNumber number : m_journal.out)
        addParents(m_from->files[number].path, old);
    for (const std::string_view path : folders) {
        if (old.contains(path))
            continue;
        const auto parent = m_source.parentOf(path);
        if (!parent && hasNoFolder(parent.error()))
            continue;
        const auto removed = parent ? (*parent)->removeFolder(nameOf(path), m_patience)
                                    : tl::unexpected(parent.error());
        if (!removed)
            return tl::unexpected(removed.error());
    }
    return {};
}

bool VersionSwitch::isProgram(const Manifest& manifest, FileNumber number) const
{
    const std::string& path = manifest.files[number].path;
    return std::ranges::any_of(manifest.executables,
                               [&path](const auto& item) { return item.second == path; });
}

} // namespace vl
