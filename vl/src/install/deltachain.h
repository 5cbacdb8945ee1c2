#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/delta.h"
#include "vl/src/install/deltaplan.h"
#include "vl/src/install/filecopier.h"
#include "vl/src/install/layout.h"
#include "vl/src/operation/operation.h"
#include "vl/src/transport/framedownload.h"

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace vl {

/// Makes files of a new version by one delta or several in a row. The versions between come to lie
/// in folders under trash names, only with the files that the next step needs.
class DeltaChain final
{
public:
    /// `base`: where the files of the installed version lie. `tree`: the prepared folder of the new
    /// version `id`. All but `plan` must outlive the chain.
    DeltaChain(const RootLayout& layout, DeltaPlan plan, FilePlace base, const TreeId& id,
               const OpenSource& openSource, Operation& operation);
    ~DeltaChain();

    /// Fetches the indexes, which were kept on the disk if they had been fetched before, and finds
    /// out which files each step has to make so that `files` of the new version come out.
    Expected<void> prepare(const std::vector<std::size_t>& files);
    /// Bytes to fetch and those of them that are here already, once prepared.
    std::uint64_t downloadSize() const;
    std::uint64_t arrived() const;
    /// Bytes of the versions between, once prepared.
    std::uint64_t stagingSize() const;
    /// Names of the download files in use begin with these.
    std::vector<std::string> downloads() const;
    /// Downloads and makes. On failure, what was made so far stands.
    Expected<void> run();
    /// The wanted files of the new version that stand in its folder; ascending.
    const std::vector<std::size_t>& made() const { return m_made; }
    /// The wanted files that lie as they are in the version before the new one, and where these lie
    /// once run.
    const std::vector<FileCopy>& carried() const;
    const FilePlace& carriedFrom() const;

private:
    struct Step;

    Expected<DeltaIndex> fetchIndex(const DeltaStep& step);
    void planStep(Step& step, std::vector<std::size_t>& wanted);
    Expected<void> runStep(Step& step);

    const RootLayout& m_layout;
    const FilePlace m_base;
    const OpenSource& m_openSource;
    Operation& m_operation;
    std::vector<std::unique_ptr<Step>> m_steps;
    std::vector<std::size_t> m_made;
};

} // namespace vl
