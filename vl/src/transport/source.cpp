#include "vl/src/transport/source.h"

#include "vl/src/platform/file.h"
#include "vl/src/transport/address.h"
#include "vl/src/transport/foldersource.h"
#include "vl/src/transport/httpsource.h"

namespace vl {

Expected<std::unique_ptr<Source>>
openSource(const Config& config, const std::filesystem::path& root, const SourceOptions& options)
{
    const std::string& repository = config.repository;
    const std::string scheme = schemeOf(repository);
    if (scheme == "http" || scheme == "https") {
        if (const Expected<void> readable = checkHttpAddress(repository); !readable)
            return tl::unexpected(readable.error());
        return std::make_unique<HttpSource>(config, options);
    }
    if (scheme == "file") {
        const Expected<std::filesystem::path> folder = folderOfFileAddress(repository);
        if (!folder)
            return tl::unexpected(folder.error());
        return std::make_unique<FolderSource>(*folder, config.maxBytesPerSecond);
    }
    if (!scheme.empty()) {
        return failure(vlupd::UPDATER_DATA_ERROR, "a repository cannot be reached by " + scheme +
                                                      "://, only by https, http, file or a folder");
    }
    return std::make_unique<FolderSource>(root / fromUtf8(repository), config.maxBytesPerSecond);
}

} // namespace vl
