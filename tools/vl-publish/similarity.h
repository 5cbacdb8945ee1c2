#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/delta.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <vector>

namespace vl::publish {

/// Finds the parts of older files that resemble given bytes, wherever they have moved. Remembers
/// anchors: places whose 64 bytes before them have a rolling hash with many leading zeros, a choice
/// that depends on these bytes alone. (The hash is the "gear" of Xia et al., "FastCDC", 2016.)
class AnchorIndex final
{
public:
    /// `totalSize`: bytes of all files that will be added; the more, the sparser the anchors, so
    /// that the index itself stays below about 100 MiB.
    explicit AnchorIndex(std::uint64_t totalSize);

    /// Reads a file whole, in pieces.
    Expected<void> add(std::size_t file, const std::filesystem::path& path);
    /// To be called once, when all files have been added.
    void finish();
    /// A part of an older file, and how many anchors say that it resembles the bytes asked about.
    struct Match
    {
        FilePart part;
        std::uint64_t weight = 0;
    };
    /// The parts that resemble `bytes`, in no order; they do not overlap. `fileSizes`: of the files
    /// added.
    std::vector<Match> similarTo(std::span<const std::byte> bytes,
                                 const std::vector<std::uint64_t>& fileSizes) const;

    /// Bytes between two anchors on the average.
    std::uint64_t spacing() const { return std::uint64_t{1} << m_zeroBits; }

private:
    struct Anchor
    {
        std::uint64_t hash = 0;
        std::size_t file = 0;
        std::uint64_t position = 0;
    };

    unsigned m_zeroBits = 12;
    std::vector<Anchor> m_anchors; ///< sorted by hash once finished
};

} // namespace vl::publish
