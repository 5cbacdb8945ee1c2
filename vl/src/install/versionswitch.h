#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/install/folderwalker.h"
#include "vl/src/install/records.h"
#include "vl/src/operation/operation.h"
#include "vl/src/platform/folder.h"

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace vl {

/// What a switch works on.
struct SwitchFolders
{
    const Folder& version; ///< the version's folder
    const Folder& staged;  ///< new files, by number in the new manifest
    const Folder& aside;   ///< old files, by number in the old manifest
};

/// The renames that turn one version's folder into another's, or back. None replaces anything, so
/// which of the two names exists tells where each step stands, after a crash too: carried out again
/// or undone, it goes on from there. One thread.
class VersionSwitch final
{
public:
    /// `from`: null when the journal names none. All must outlive the switch.
    VersionSwitch(const Switch& journal, const Manifest* from, const Manifest& to,
                  const SwitchFolders& folders, Patience patience);

    /// Counts the bytes of files that arrive. `operation` must outlive the switch.
    void countOn(Operation& operation) { m_operation = &operation; }

    /// Asked before each step; false leaves the switch where it is.
    using GoOn = std::function<bool()>;

    /// Finds out which steps are done. Before all else.
    Expected<void> begin();
    /// Old executables leave: from then on nothing of the version can be started.
    Expected<void> stopPrograms(const GoOn& goOn);
    /// The rest, the executables last; stopPrograms() included where it was not carried out.
    Expected<void> finish(const GoOn& goOn);
    /// Everything back.
    Expected<void> undo(const GoOn& goOn);

private:
    Expected<void> exchange(const GoOn& goOn);
    Expected<void> leave(FileNumber number);
    Expected<void> comeBack(FileNumber number);
    Expected<void> arrive(FileNumber number);
    Expected<void> withdraw(FileNumber number);
    Expected<void> makeWay(const UserMove& move, bool back);
    Expected<void> removeEmptied(const std::string& path);
    Expected<void> removeMade();
    bool isProgram(const Manifest& manifest, FileNumber number) const;

    const Switch& m_journal;
    const Manifest* const m_from;
    const Manifest& m_to;
    const SwitchFolders m_folders;
    const Patience m_patience;
    Operation* m_operation = nullptr;
    FolderWalker m_source;
    FolderWalker m_target;         ///< a second one, for moves within the version's folder
    std::set<FileNumber> m_aside;  ///< old files that have left
    std::set<FileNumber> m_staged; ///< new files that have not arrived
};

} // namespace vl
