#include "vl/src/install/unpacker.h"

#include "vl/src/formats/frame.h"
#include "vl/src/install/treewriter.h"
#include "vl/src/platform/file.h"

#include <algorithm>
#include <string>
#include <utility>

namespace vl {

namespace {

// Two decoders with their windows, and no more, keep the memory bounded.
constexpr std::size_t unpackThreads = 2;
constexpr std::size_t pieceSize = 128U << 10U;

std::size_t frameAt(const Pack& pack, std::uint64_t rawOffset)
{
    const auto next = std::ranges::upper_bound(pack.frames, rawOffset, {}, &Frame::rawOffset);
    return static_cast<std::size_t>(next - pack.frames.begin()) - 1;
}

// One thread's tools, and the way of a frame through them.
class FrameUnpacker final
{
public:
    FrameUnpacker(const std::vector<const ManifestFile*>& files, const std::filesystem::path& tree,
                  std::atomic<std::uint64_t>& written)
        : m_writer(files, tree), m_written(written)
    {
    }

    Expected<void> unpack(const File& pack, const Frame& frame, const std::stop_token& stop)
    {
        m_decoder.begin(frame.rawSize);
        m_writer.seek(frame.rawOffset);
        const auto take = [this](std::span<const std::byte> raw) -> Expected<void> {
            const auto written = m_writer.write(raw);
            if (!written)
                return tl::unexpected(written.error());
            m_written += *written;
            return {};
        };
        for (std::uint64_t done = 0; done < frame.size && !stop.stop_requested();) {
            const auto wanted =
                static_cast<std::size_t>(std::min<std::uint64_t>(pieceSize, frame.size - done));
            const auto piece = std::span(m_piece).first(wanted);
            const auto got = pack.readAt(frame.offset + done, piece);
            if (!got)
                return tl::unexpected(got.error());
            if (*got != wanted)
                return failure(vlupd::BROKEN_OR_MISSING, "the part file was cut meanwhile");
            if (auto fed = m_decoder.feed(piece, take); !fed)
                return fed;
            done += wanted;
        }
        return stop.stop_requested() ? Expected<void>() : m_decoder.end();
    }

private:
    FrameDecoder m_decoder;
    TreeWriter m_writer;
    std::vector<std::byte> m_piece = std::vector<std::byte>(pieceSize);
    std::atomic<std::uint64_t>& m_written;
};

} // namespace

Unpacker::Unpacker(const Manifest& manifest, const std::vector<std::size_t>& files,
                   const std::filesystem::path& partFile, const std::filesystem::path& tree)
    : m_manifest(manifest), m_partFile(partFile), m_tree(tree),
      m_files(filesInPackOrder(manifest, files)), m_ready(manifest.pack.frames.size())
{
    for (const ManifestFile* file : m_files) {
        const std::size_t first = frameAt(manifest.pack, file->rawOffset);
        const std::size_t end = frameAt(manifest.pack, file->rawOffset + file->size - 1) + 1;
        if (m_chains.empty() || m_chains.back().end <= first)
            m_chains.push_back({first, end});
        m_chains.back().end = std::max(m_chains.back().end, end);
    }
}

void Unpacker::start()
{
    m_workers.emplace(unpackThreads, [this](const std::stop_token& stop) { return work(stop); });
}

std::vector<std::size_t> Unpacker::frames() const
{
    std::vector<std::size_t> frames;
    for (const Chain& chain : m_chains)
        for (std::size_t index = chain.first; index < chain.end; ++index)
            frames.push_back(index);
    return frames;
}

Expected<void> Unpacker::frameReady(std::size_t index)
{
    {
        const std::lock_guard lock(m_mutex);
        m_ready[index] = true;
    }
    m_arrived.notify_all();
    return m_workers->state();
}

Expected<void> Unpacker::finish(Operation& operation, const std::function<void()>& tick)
{
    return m_workers->finish(operation, tick);
}

Expected<void> Unpacker::work(const std::stop_token& stop)
{
    FrameUnpacker frames(m_files, m_tree, m_written);
    File pack;
    for (std::size_t i = m_nextChain++; i < m_chains.size(); i = m_nextChain++) {
        for (std::size_t index = m_chains[i].first; index < m_chains[i].end; ++index) {
            if (!waitForFrame(index, stop))
                return {};
            if (!pack.isOpen()) {
                auto opened = File::open(m_partFile, File::Mode::Read);
                if (!opened)
                    return tl::unexpected(std::move(opened).error());
                pack = std::move(*opened);
            }
            const Frame& frame = m_manifest.pack.frames[index];
            if (auto unpacked = frames.unpack(pack, frame, stop); !unpacked)
                return failure("unpack the frame at byte " + std::to_string(frame.offset),
                               std::move(unpacked).error());
        }
    }
    return {};
}

bool Unpacker::waitForFrame(std::size_t index, const std::stop_token& stop)
{
    std::unique_lock lock(m_mutex);
    return m_arrived.wait(lock, stop, [&] { return m_ready[index]; }) && !stop.stop_requested();
}

} // namespace vl
