#include "tools/vl-publish/similarity.h"

#include "vl/src/platform/file.h"

#include <algorithm>
#include <array>

namespace vl::publish {
namespace {

constexpr std::uint64_t maxAnchors = 4U << 20U;
constexpr std::size_t readSize = 1U << 20U;
/// Bytes around an anchor that are taken to resemble too.
constexpr std::uint64_t reach = 64U << 10U;
/// A hash that is found in more places says nothing: zeros, common headers.
constexpr std::ptrdiff_t maxPlaces = 4;

/// One random number for each value of a byte, the same in every build (SplitMix64, Steele et al.,
/// "Fast Splittable Pseudorandom Number Generators", 2014).
constexpr std::array<std::uint64_t, 256> makeGears()
{
    std::array<std::uint64_t, 256> gears{};
    std::uint64_t state = 0;
    for (std::uint64_t& gear : gears) {
        state += 0x9E3779B97F4A7C15U;
        gear = (state ^ (state >> 30U)) * 0xBF58476D1CE4E5B9U;
        gear = (gear ^ (gear >> 27U)) * 0x94D049BB133111EBU;
        gear ^= gear >> 31U;
    }
    return gears;
}

constexpr std::array<std::uint64_t, 256> gears = makeGears();

/// Rolls over bytes and calls `found(hash, index)` at every anchor.
class Roller final
{
public:
    explicit Roller(unsigned zeroBits) : m_shift(64 - zeroBits) {}

    template <class Found> void roll(std::span<const std::byte> bytes, Found&& found)
    {
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            m_hash = (m_hash << 1U) + gears[std::to_integer<std::size_t>(bytes[i])];
            if (m_hash >> m_shift == 0)
                found(m_hash, i);
        }
    }

private:
    unsigned m_shift;
    std::uint64_t m_hash = 0;
};

} // namespace

AnchorIndex::AnchorIndex(std::uint64_t totalSize)
{
    while (totalSize >> m_zeroBits > maxAnchors)
        ++m_zeroBits;
}

Expected<void> AnchorIndex::add(std::size_t file, const std::filesystem::path& path)
{
    const auto source = File::open(path, File::Mode::Read);
    if (!source)
        return tl::unexpected(source.error());
    std::vector<std::byte> piece(readSize);
    Roller roller(m_zeroBits);
    for (std::uint64_t offset = 0;;) {
        const auto got = source->readAt(offset, piece);
        if (!got)
            return tl::unexpected(got.error());
        roller.roll(std::span(piece).first(*got), [&](std::uint64_t hash, std::size_t index) {
            m_anchors.push_back({hash, file, offset + index});
        });
        offset += *got;
        if (*got < piece.size())
            return {};
    }
}

void AnchorIndex::finish()
{
    std::ranges::stable_sort(m_anchors, {}, &Anchor::hash);
}

std::vector<AnchorIndex::Match>
AnchorIndex::similarTo(std::span<const std::byte> bytes,
                       const std::vector<std::uint64_t>& fileSizes) const
{
    std::vector<Anchor> places;
    Roller roller(m_zeroBits);
    roller.roll(bytes, [&](std::uint64_t hash, std::size_t) {
        const auto found = std::ranges::equal_range(m_anchors, hash, {}, &Anchor::hash);
        if (std::ssize(found) <= maxPlaces)
            places.insert(places.end(), found.begin(), found.end());
    });
    std::ranges::sort(places, {},
                      [](const Anchor& place) { return std::pair(place.file, place.position); });
    std::vector<Match> matches;
    for (const Anchor& place : places) {
        const std::uint64_t begin = place.position - std::min(place.position, reach);
        const std::uint64_t end = std::min(place.position + reach, fileSizes[place.file]);
        if (!matches.empty() && matches.back().part.file == place.file &&
            matches.back().part.offset + matches.back().part.size >= begin) {
            matches.back().part.size = end - matches.back().part.offset;
            ++matches.back().weight;
        } else {
            matches.push_back({{place.file, begin, end - begin}, 1});
        }
    }
    return matches;
}

} // namespace vl::publish
