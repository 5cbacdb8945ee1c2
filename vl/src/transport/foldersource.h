#pragma once

#include "vl/src/transport/source.h"

namespace vl {

/// A repository in a folder of this computer or its network, read directly. A folder that vanishes
/// midway (a drive pulled out) is a failed transfer like a broken connection.
class FolderSource final : public Source
{
public:
    /// `maxBytesPerSecond`: limit for ranges, 0 for none.
    FolderSource(std::filesystem::path folder, std::uint64_t maxBytesPerSecond);

    Expected<std::string> fetchDocument(const DocumentRequest& request) override;
    Expected<void> fetchRange(const std::string& path, std::uint64_t fileSize, ByteRange range,
                              Operation& operation, const Sink& sink,
                              const std::stop_token& stop) override;
    std::string describe() const override;

private:
    std::filesystem::path fileAt(const std::string& path) const;

    std::filesystem::path m_folder;
    std::uint64_t m_maxBytesPerSecond = 0;
};

} // namespace vl
