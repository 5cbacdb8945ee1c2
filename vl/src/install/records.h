#pragma once

#include "vl/src/error.h"
#include "vl/src/formats/hash.h"
#include "vl/src/install/layout.h"
#include "vl/src/platform/folder.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace vl {

/// A file's place in the list of a manifest, from 0.
using FileNumber = std::size_t;

/// A version and what is known of its files.
struct VersionRecord
{
    std::string version;
    Hash manifest{};
    std::uint64_t switchNumber = 0; ///< of the switch that brought it
    /// When its files were last seen to be right, by their volume's clock; 0: read them all.
    VolumeTime verified = 0;
};

/// A file or folder of the user that makes room for something of a version; paths below the
/// version's folder.
struct UserMove
{
    std::string from;
    std::string to;
};

/// The journal of a switch: everything that finishing or undoing it needs beside the two manifests.
struct Switch
{
    std::uint64_t number = 0;
    std::optional<VersionRecord> from; ///< what lay in the folder
    bool fromRemoved = false;          ///< `from` was being removed
    VersionRecord to;
    std::vector<FileNumber> out;      ///< old files that leave, executables first
    std::vector<FileNumber> in;       ///< new files that come, executables last
    std::vector<FileNumber> programs; ///< executables of `from` that leave and return unchanged
    std::vector<UserMove> moves;
    std::vector<std::string> emptied; ///< old folders in the way of new files
};

/// How the reading of a record ended.
enum class Reading {
    Good,
    Missing,
    Damaged, ///< cut, garbage or of wrong types
};

template <class Record> struct RecordReading
{
    Reading reading = Reading::Missing;
    std::optional<Record> record{};
};

/// Fail with UPDATER_DATA_ERROR when the record has a format that this library does not know (a
/// newer one wrote it: nothing may be changed then), with SYSTEM_CALL_ERROR when it cannot be read.
Expected<RecordReading<VersionRecord>> readVersionRecord(const std::filesystem::path& file);
Expected<RecordReading<Switch>> readJournal(const RootLayout& layout);

/// The only commit point of a switch; writes anew in one step.
Expected<void> writeInstalled(const RootLayout& layout, const VersionRecord& record);
Expected<void> writeJournal(const RootLayout& layout, const Switch& journal);

/// Numbers as text, ranges joined: "0-4,7". The order is kept.
std::string writeNumbers(const std::vector<FileNumber>& numbers);
/// Nothing for a text that is no such list or names a number of `limit` or more.
std::optional<std::vector<FileNumber>> readNumbers(const std::string& text, FileNumber limit);

} // namespace vl
