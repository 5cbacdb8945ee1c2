#include "tools/vl-publish/packwriter.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace vl::publish {
namespace {

// Each frame in the works takes some 50 MiB at high levels.
constexpr unsigned maxWorkers = 16;

} // namespace

PackWriter::PackWriter(File& file, int level) : m_file(file)
{
    const unsigned workers = std::clamp(std::thread::hardware_concurrency(), 1U, maxWorkers);
    m_slots.reserve(workers);
    for (unsigned i = 0; i < workers; ++i)
        m_slots.push_back(Slot{FrameEncoder(level), {}, {}});
}

std::span<std::byte> PackWriter::extend(std::size_t size)
{
    m_raw.resize(m_raw.size() + size);
    return std::span(m_raw).last(size);
}

Expected<void> PackWriter::cut()
{
    if (m_raw.empty())
        return {};
    if (m_started - m_written == m_slots.size()) {
        if (auto written = writeOldest(); !written)
            return written;
    }
    m_rawCut += m_raw.size();
    Slot& slot = m_slots[m_started % m_slots.size()];
    slot.raw.swap(m_raw);
    m_raw.clear();
    slot.result = std::async(std::launch::async, [&slot]() -> Expected<Compressed> {
        auto bytes = slot.encoder.encode(slot.raw);
        if (!bytes)
            return tl::unexpected(std::move(bytes).error());
        const Hash hash = hashOf(*bytes);
        return Compressed{std::move(*bytes), hash};
    });
    ++m_started;
    return {};
}

Expected<Pack> PackWriter::finish()
{
    if (auto done = cut(); !done)
        return tl::unexpected(std::move(done).error());
    while (m_written < m_started) {
        if (auto written = writeOldest(); !written)
            return tl::unexpected(std::move(written).error());
    }
    m_pack.hash = m_hasher.finish();
    return std::move(m_pack);
}

Expected<void> PackWriter::writeOldest()
{
    Slot& slot = m_slots[m_written % m_slots.size()];
    const Expected<Compressed> frame = slot.result.get();
    ++m_written;
    if (!frame)
        return tl::unexpected(frame.error());
    m_pack.frames.push_back(Frame{.offset = m_pack.size,
                                  .size = frame->bytes.size(),
                                  .rawOffset = 0,
                                  .rawSize = slot.raw.size(),
                                  .hash = frame->hash});
    m_hasher.update(frame->bytes);
    auto written = m_file.writeAt(m_pack.size, frame->bytes);
    m_pack.size += frame->bytes.size();
    return written;
}

} // namespace vl::publish
