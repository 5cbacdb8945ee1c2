#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/delta.h"
#include "vl/src/formats/frame.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/install/buildplan.h"
#include "vl/src/install/filefinisher.h"
#include "vl/src/platform/folder.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <semaphore>
#include <set>
#include <span>
#include <vector>

namespace vl {

/// Opens a file of the older version for reading, by number in its manifest. Any thread.
using OpenBaseFile = std::function<Expected<File>(FileNumber)>;

/// Turns verified frames into new files, which get their numbers in the manifest for names. Files
/// are written from their first byte to their last and hashed on the way; one that was cut before
/// is read up to where it goes on. A file that does not come out as the manifest says is removed
/// again and listed.
class FrameBuilder final
{
public:
    /// `plan`: of the frames in `frames`. `delta`, `base`: for frames of a delta pack, else null.
    /// `written`: counts the bytes. All must outlive the builder.
    FrameBuilder(const Manifest& target, const std::vector<Frame>& frames, const BuildPlan& plan,
                 const Folder& staged, FileFinisher& finisher, std::atomic<std::uint64_t>& written);
    void useBase(const DeltaIndex& delta, OpenBaseFile base);

    /// Takes the frame at a place in the plan; calls with the same `transfer` come one at a time,
    /// the frames of a chain with the same one. Fails when a file cannot be written, and when a
    /// frame of the full pack cannot be decoded.
    Expected<void> take(std::size_t transfer, std::size_t frame, std::span<const std::byte> bytes);
    /// Closes what is incomplete; it stays for another try.
    void close();

    /// Files that came out, and those that did not although all their frames came; ascending.
    const std::set<FileNumber>& made() const { return m_made; }
    const std::set<FileNumber>& failed() const { return m_failed; }

private:
    struct Building
    {
        File file;
        Hasher hasher;
        std::uint64_t size = 0;      ///< bytes written and hashed
        std::uint64_t writeback = 0; ///< bytes on their way to the disk
    };
    /// What one connection's thread uses.
    struct Bench
    {
        FrameDecoder decoder;
        DeltaDecoder deltaDecoder;
        std::vector<std::byte> base;
        std::vector<std::byte> raw;
        std::map<FileNumber, Building> files;
    };

    Expected<void> takePackFrame(Bench& bench, std::size_t frame, std::span<const std::byte> bytes);
    Expected<void> takeDeltaFrame(Bench& bench, std::size_t frame,
                                  std::span<const std::byte> bytes);
    Expected<void> readBase(Bench& bench, std::size_t frame) const;
    Expected<void> write(Bench& bench, const FramePart& part, std::uint64_t skip,
                         std::span<const std::byte> bytes);
    Expected<Building*> begin(Bench& bench, const FramePart& part);
    Expected<void> finish(Bench& bench, FileNumber file);
    Expected<void> fail(Bench& bench, FileNumber file);

    const Manifest& m_target;
    const std::vector<Frame>& m_frames;
    const BuildPlan& m_plan;
    const Folder& m_staged;
    FileFinisher& m_finisher;
    std::atomic<std::uint64_t>& m_written;
    const DeltaIndex* m_delta = nullptr;
    OpenBaseFile m_base;
    std::counting_semaphore<> m_deltaRoom;
    std::array<Bench, maxTransfers> m_benches;
    std::mutex m_mutex; ///< of what follows
    std::set<FileNumber> m_made;
    std::set<FileNumber> m_failed;
};

} // namespace vl
