#include "vl/src/install/records.h"

#include "vl/src/formats/pathrules.h"
#include "vl/src/platform/file.h"

#include <charconv>
#include <string_view>
#include <utility>

namespace vl {

namespace {

using Json = nlohmann::json;

constexpr std::uint64_t recordFormat = 2;
constexpr std::uint64_t maxRecordSize = 64U << 20U;
constexpr FileNumber maxFiles = 100'000'000;

// Members of a record that may be anything: damaged records are met, not believed.
template <class Type>
std::optional<Type> member(const Json& object, const char* name, bool (Json::*isType)() const)
{
    const auto found = object.is_object() ? object.find(name) : object.end();
    if (!object.is_object() || found == object.end() || !((*found).*isType)())
        return std::nullopt;
    return found->get<Type>();
}

std::optional<std::string> textMember(const Json& object, const char* name)
{
    return member<std::string>(object, name, &Json::is_string);
}

std::optional<std::uint64_t> numberMember(const Json& object, const char* name)
{
    return member<std::uint64_t>(object, name, &Json::is_number_unsigned);
}

Json toJson(const VersionRecord& record)
{
    return {{"version", record.version},
            {"manifest", toHex(record.manifest)},
            {"switch", record.switchNumber},
            {"verified", record.verified}};
}

std::optional<VersionRecord> versionFrom(const Json& object)
{
    const auto version = textMember(object, "version");
    const auto manifest = textMember(object, "manifest");
    const auto hash = manifest ? hashFromHex(*manifest) : std::nullopt;
    const auto number = numberMember(object, "switch");
    const auto verified = member<VolumeTime>(object, "verified", &Json::is_number_integer);
    if (!version || !versionKeyFault(*version).empty() || !hash || !number || !verified)
        return std::nullopt;
    return VersionRecord{*version, *hash, *number, *verified};
}

bool readList(const Json& object, const char* name, std::vector<FileNumber>& numbers)
{
    const auto text = textMember(object, name);
    auto list = text ? readNumbers(*text, maxFiles) : std::nullopt;
    if (list)
        numbers = std::move(*list);
    return list.has_value();
}

// A path that stays below the version's folder.
bool readPath(const Json& value, std::string& path)
{
    if (!value.is_string())
        return false;
    path = value.get<std::string>();
    for (std::string_view rest = path;;) {
        const std::size_t slash = rest.find('/');
        const std::string_view name = rest.substr(0, slash);
        if (name.empty() || name == "." || name == "..")
            return false;
        if (slash == std::string_view::npos)
            return true;
        rest.remove_prefix(slash + 1);
    }
}

std::optional<Switch> switchFrom(const Json& object)
{
    Switch journal;
    const auto number = numberMember(object, "number");
    const auto removed = member<bool>(object, "fromRemoved", &Json::is_boolean);
    const auto to = object.contains("to") ? versionFrom(object["to"]) : std::nullopt;
    if (!number || !removed || !to || !object.contains("from") || !object.contains("moves") ||
        !object.contains("emptied") || !readList(object, "out", journal.out) ||
        !readList(object, "in", journal.in) || !readList(object, "programs", journal.programs))
        return std::nullopt;
    journal.number = *number;
    journal.fromRemoved = *removed;
    journal.to = *to;
    if (!object["from"].is_null()) {
        journal.from = versionFrom(object["from"]);
        if (!journal.from)
            return std::nullopt;
    }
    for (const Json& move : object["moves"]) {
        UserMove read;
        if (!move.is_array() || move.size() != 2 || !readPath(move[0], read.from) ||
            !readPath(move[1], read.to))
            return std::nullopt;
        journal.moves.push_back(std::move(read));
    }
    for (const Json& folder : object["emptied"])
        if (!readPath(folder, journal.emptied.emplace_back()))
            return std::nullopt;
    return journal;
}

template <class Record>
Expected<RecordReading<Record>> readRecord(const std::filesystem::path& file,
                                           std::optional<Record> (*from)(const Json&))
{
    const auto text = readWholeFile(file, maxRecordSize);
    if (!text && text.error().code == vlupd::NOT_FOUND)
        return RecordReading<Record>{};
    if (!text && text.error().code == vlupd::SYSTEM_CALL_ERROR)
        return tl::unexpected(text.error());
    RecordReading<Record> reading{Reading::Damaged};
    const Json json = text ? Json::parse(*text, nullptr, false) : Json();
    const auto format = numberMember(json, "format");
    if (format && *format != recordFormat)
        return failure(vlupd::UPDATER_DATA_ERROR, toUtf8(file) + " has the unknown format " +
                                                      std::to_string(*format) +
                                                      ": nothing is changed");
    if (format)
        reading.record = from(json);
    if (reading.record)
        reading.reading = Reading::Good;
    return reading;
}

Expected<void> writeRecord(const std::filesystem::path& file, Json record)
{
    record["format"] = recordFormat;
    return writeWholeFile(file, record.dump(1) + "\n");
}

} // namespace

Expected<RecordReading<VersionRecord>> readVersionRecord(const std::filesystem::path& file)
{
    return readRecord<VersionRecord>(file, versionFrom);
}

Expected<RecordReading<Switch>> readJournal(const RootLayout& layout)
{
    return readRecord<Switch>(layout.journalFile(), switchFrom);
}

Expected<void> writeInstalled(const RootLayout& layout, const VersionRecord& record)
{
    return writeRecord(layout.installedFile(), toJson(record));
}

Expected<void> writeJournal(const RootLayout& layout, const Switch& journal)
{
    Json record{{"number", journal.number},
                {"from", journal.from ? toJson(*journal.from) : Json()},
                {"fromRemoved", journal.fromRemoved},
                {"to", toJson(journal.to)},
                {"out", writeNumbers(journal.out)},
                {"in", writeNumbers(journal.in)},
                {"programs", writeNumbers(journal.programs)},
                {"moves", Json::array()},
                {"emptied", journal.emptied}};
    for (const UserMove& move : journal.moves)
        record["moves"].push_back({move.from, move.to});
    return writeRecord(layout.journalFile(), std::move(record));
}

std::string writeNumbers(const std::vector<FileNumber>& numbers)
{
    std::string text;
    for (std::size_t i = 0; i < numbers.size();) {
        std::size_t end = i + 1;
        while (end < numbers.size() && numbers[end] == numbers[end - 1] + 1)
            ++end;
        text += (text.empty() ? "" : ",") + std::to_string(numbers[i]);
        if (end > i + 1)
            text += "-" + std::to_string(numbers[end - 1]);
        i = end;
    }
    return text;
}

std::optional<std::vector<FileNumber>> readNumbers(const std::string& text, FileNumber limit)
{
    std::vector<FileNumber> numbers;
    const char* const end = text.data() + text.size();
    for (const char* at = text.data(); at != end;) {
        FileNumber first = 0;
        auto read = std::from_chars(at, end, first);
        FileNumber last = first;
        if (read.ec == std::errc() && read.ptr != end && *read.ptr == '-')
            read = std::from_chars(read.ptr + 1, end, last);
        const char* const next = read.ptr;
        if (read.ec != std::errc() || last < first || last >= limit ||
            numbers.size() + (last - first) >= limit)
            return std::nullopt;
        for (FileNumber number = first; number <= last; ++number)
            numbers.push_back(number);
        const bool comma = next != end && *next == ',';
        if (next != end && (!comma || next + 1 == end))
            return std::nullopt;
        at = comma ? next + 1 : next;
    }
    return numbers;
}

} // namespace vl
