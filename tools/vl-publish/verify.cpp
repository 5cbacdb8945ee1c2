#include "tools/vl-publish/deltas.h"
#include "tools/vl-publish/publisher.h"
#include "tools/vl-publish/repository.h"
#include "vl/src/formats/frame.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/platform/file.h"

#include <algorithm>
#include <utility>

namespace vl::publish {
namespace fs = std::filesystem;
namespace {

/// Picks the files' bytes out of a pack's uncompressed stream and hashes them.
class StreamChecker final
{
public:
    explicit StreamChecker(const Manifest& manifest)
    {
        for (const ManifestFile& file : manifest.files)
            m_files.push_back(&file);
        std::stable_sort(m_files.begin(), m_files.end(),
                         [](const auto* a, const auto* b) { return a->rawOffset < b->rawOffset; });
    }

    /// The stream goes on at `offset`: a file that has begun and is not there yet has lost bytes.
    void continueAt(std::uint64_t offset)
    {
        if (offset != m_offset)
            m_intact = false;
        m_offset = offset;
    }

    void take(std::span<const std::byte> bytes, std::vector<std::string>& faults)
    {
        while (!bytes.empty() && m_next < m_files.size()) {
            const ManifestFile& file = *m_files[m_next];
            const std::uint64_t end = file.rawOffset + file.size;
            if (m_offset >= end) {
                finishFiles(file, faults);
                continue;
            }
            // Up to the file's first byte, or up to its last one.
            const bool inside = m_offset >= file.rawOffset;
            const std::uint64_t stop = inside ? end : file.rawOffset;
            const auto size =
                static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), stop - m_offset));
            if (inside)
                m_hasher.update(bytes.first(size));
            m_offset += size;
            bytes = bytes.subspan(size);
        }
        m_offset += bytes.size();
    }

    /// The stream has ended.
    void finish(std::vector<std::string>& faults)
    {
        while (m_next < m_files.size())
            finishFiles(*m_files[m_next], faults);
    }

private:
    /// Judges `file` and those of the same bytes.
    void finishFiles(const ManifestFile& file, std::vector<std::string>& faults)
    {
        const Hash hash = m_hasher.finish();
        const bool whole = m_offset >= file.rawOffset + file.size;
        const std::uint64_t place = file.rawOffset;
        for (; m_next < m_files.size(); ++m_next) {
            const ManifestFile& twin = *m_files[m_next];
            if (&twin != &file && (twin.rawOffset != place || twin.size != file.size))
                break;
            if (!whole || !m_intact || hash != twin.hash)
                faults.push_back("file \"" + twin.path + "\" is damaged in the pack");
        }
        m_intact = true;
    }

    std::vector<const ManifestFile*> m_files; ///< in the order of their bytes
    std::size_t m_next = 0;                   ///< the file whose bytes come next
    std::uint64_t m_offset = 0;
    bool m_intact = true; ///< no byte of the file at m_next has been lost so far
    Hasher m_hasher;
};

class PackVerifier final
{
public:
    PackVerifier(const fs::path& repository, Progress& progress, std::uint64_t totalSize)
        : m_repository(repository), m_progress(progress), m_totalSize(totalSize)
    {
    }

    /// The faults of one version's pack.
    std::vector<std::string> run(const Manifest& manifest)
    {
        std::vector<std::string> faults;
        const std::string name = packPath(manifest.pack.hash);
        auto file = File::open(m_repository / fromUtf8(name), File::Mode::Read);
        const auto size = file ? file->size() : tl::unexpected(file.error());
        if (!size)
            return {size.error().message};
        if (*size != manifest.pack.size)
            return {name + " has " + std::to_string(*size) + " bytes instead of " +
                    std::to_string(manifest.pack.size)};

        StreamChecker stream(manifest);
        Hasher whole;
        for (std::size_t i = 0; i < manifest.pack.frames.size(); ++i) {
            const Frame& frame = manifest.pack.frames[i];
            stream.continueAt(frame.rawOffset);
            if (auto checked = checkFrame(*file, frame, whole, stream, faults); !checked)
                faults.push_back(name + ", frame " + std::to_string(i) + " at offset " +
                                 std::to_string(frame.offset) + ": " + checked.error().message);
            m_done += frame.size;
            m_progress.update("verifying", m_done, m_totalSize);
        }
        stream.finish(faults);
        if (whole.finish() != manifest.pack.hash)
            faults.push_back(name + " is not what its name says");
        return faults;
    }

private:
    Expected<void> checkFrame(const File& pack, const Frame& frame, Hasher& whole,
                              StreamChecker& stream, std::vector<std::string>& faults)
    {
        m_compressed.resize(static_cast<std::size_t>(frame.size));
        const auto read = pack.readAt(frame.offset, m_compressed);
        if (!read)
            return tl::unexpected(read.error());
        whole.update(std::span(m_compressed).first(*read));
        if (hashOf(m_compressed) != frame.hash)
            return failure(vlupd::BROKEN_OR_MISSING, "wrong hash");
        m_decoder.begin(frame.rawSize);
        auto fed = m_decoder.feed(
            m_compressed, [&stream, &faults](std::span<const std::byte> raw) -> Expected<void> {
                stream.take(raw, faults);
                return {};
            });
        return fed ? m_decoder.end() : fed;
    }

    const fs::path& m_repository;
    Progress& m_progress;
    std::uint64_t m_totalSize;
    std::uint64_t m_done = 0;
    FrameDecoder m_decoder;
    std::vector<std::byte> m_compressed;
};

} // namespace

VerifyReport verifyRepository(const fs::path& repository, std::span<const PublicKey> keys,
                              Progress& progress)
{
    VerifyReport report;
    auto catalogue = loadVerifiedCatalogue(repository, keys);
    if (!catalogue) {
        report.faults.push_back(catalogue.error().message);
        // What the catalogue lists is looked at nevertheless.
        catalogue = loadCatalogue(repository);
        if (!catalogue)
            return report;
    }
    std::uint64_t totalSize = 0;
    std::vector<Manifest> manifests;
    for (const auto& [key, reference] : catalogue->manifests) {
        auto manifest = loadManifest(repository, key, reference);
        if (!manifest) {
            report.faults.push_back(manifest.error().message);
            continue;
        }
        totalSize += manifest->pack.size;
        manifests.push_back(std::move(*manifest));
    }
    PackVerifier verifier(repository, progress, totalSize);
    for (const Manifest& manifest : manifests) {
        for (const std::string& fault : verifier.run(manifest))
            report.faults.push_back("version " + manifest.version + ": " + fault);
        for (const std::string& fault : verifyDeltas(repository, *catalogue, manifest, progress))
            report.faults.push_back("version " + manifest.version + ": " + fault);
    }
    report.versions = catalogue->manifests.size();
    report.packBytes = totalSize;
    return report;
}

} // namespace vl::publish
