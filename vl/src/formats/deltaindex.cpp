#include "vl/src/formats/delta.h"

#include <nlohmann/json.hpp>

#include <map>

namespace vl {
namespace {

using nlohmann::json;

tl::unexpected<Error> fault(const std::string& what)
{
    return failure(vlupd::UPDATER_DATA_ERROR, "delta index: " + what);
}

std::optional<std::uint64_t> number(const json& value)
{
    if (!value.is_number_unsigned() || value.get<std::uint64_t>() > INT64_MAX)
        return std::nullopt;
    return value.get<std::uint64_t>();
}

/// The next line without its end; the rest stays in `text`.
std::string_view takeLine(std::string_view& text)
{
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return line;
}

/// The numbers of an array in threes, each inside a file of `manifest`; `sum` is their size.
Expected<std::vector<FilePart>> readParts(const json& array, const Manifest& manifest,
                                          std::uint64_t limit, std::uint64_t& sum)
{
    if (!array.is_array() || array.size() % 3 != 0)
        return fault("parts are no list of threes");
    std::vector<FilePart> parts;
    parts.reserve(array.size() / 3);
    for (std::size_t i = 0; i < array.size(); i += 3) {
        const auto file = number(array[i]);
        const auto offset = number(array[i + 1]);
        const auto size = number(array[i + 2]);
        if (!file || !offset || !size || *file >= manifest.files.size())
            return fault("a part names no file");
        const std::uint64_t fileSize = manifest.files[static_cast<std::size_t>(*file)].size;
        if (*size == 0 || *offset > fileSize || *size > fileSize - *offset)
            return fault("a part lies outside of its file");
        if (*size > limit - sum)
            return fault("a frame is too large");
        sum += *size;
        parts.push_back({static_cast<std::size_t>(*file), *offset, *size});
    }
    return parts;
}

Expected<void> readFrame(const json& line, const Manifest& base, const Manifest& target,
                         DeltaIndex& index)
{
    for (const char* name : {"size", "hash", "target", "base"})
        if (!line.is_object() || !line.contains(name))
            return fault("a frame has no \"" + std::string(name) + "\"");
    const auto size = number(line["size"]);
    const auto hash =
        line["hash"].is_string() ? hashFromHex(line["hash"].get<std::string>()) : std::nullopt;
    if (!size || *size == 0 || *size > maxFrameRawSize || !hash)
        return fault("a frame's size or hash is none");
    Frame frame{.size = *size, .hash = *hash};
    if (!index.frames.empty()) {
        const Frame& before = index.frames.back();
        frame.offset = before.offset + before.size;
        frame.rawOffset = before.rawOffset + before.rawSize;
    }
    std::uint64_t baseSize = 0;
    auto targets = readParts(line["target"], target, maxDeltaRawSize, frame.rawSize);
    if (!targets)
        return tl::unexpected(std::move(targets).error());
    auto bases = readParts(line["base"], base, maxDeltaBaseSize, baseSize);
    if (!bases)
        return tl::unexpected(std::move(bases).error());
    if (targets->empty())
        return fault("a frame makes nothing");
    index.frames.push_back(frame);
    index.parts.push_back({std::move(*targets), std::move(*bases)});
    return {};
}

/// Each file that is made is made once, from its first byte to its last.
Expected<void> checkOrder(const DeltaIndex& index, const Manifest& target)
{
    std::map<std::size_t, std::uint64_t> made;
    for (const DeltaFrame& frame : index.parts) {
        for (const FilePart& part : frame.target) {
            std::uint64_t& end = made[part.file];
            if (part.offset != end)
                return fault("the parts of a file do not follow one another");
            end += part.size;
        }
    }
    for (const auto& [file, end] : made)
        if (end != target.files[file].size)
            return fault("a file is made in part only");
    return {};
}

} // namespace

Expected<DeltaIndex> readDeltaIndex(std::string_view text, const DeltaReference& reference,
                                    const Manifest& base, const Manifest& target)
{
    // One line a frame, so that no more than one of them stands in memory as a tree.
    const json head = json::parse(takeLine(text), nullptr, false);
    if (!head.is_object() || !head.contains("format"))
        return fault("not valid JSON in its first line");
    if (head["format"] != deltaFormat)
        return fault("unknown format version");
    DeltaIndex index;
    std::uint64_t packed = 0;
    while (!text.empty()) {
        const json line = json::parse(takeLine(text), nullptr, false);
        if (line.is_discarded())
            return fault("not valid JSON in line " + std::to_string(index.frames.size() + 2));
        if (auto read = readFrame(line, base, target, index); !read)
            return tl::unexpected(std::move(read).error());
        packed += index.frames.back().size;
        if (packed > reference.size)
            break;
    }
    if (packed != reference.size)
        return fault("the frames do not fill the delta pack");
    if (auto checked = checkOrder(index, target); !checked)
        return tl::unexpected(std::move(checked).error());
    return index;
}

std::string writeDeltaIndex(const DeltaIndex& index)
{
    const auto list = [](const std::vector<FilePart>& parts) {
        json numbers = json::array();
        for (const FilePart& part : parts)
            for (const std::uint64_t value : {std::uint64_t{part.file}, part.offset, part.size})
                numbers.push_back(value);
        return numbers;
    };
    std::string text = "{\"format\":" + std::to_string(deltaFormat) + "}\n";
    for (std::size_t i = 0; i < index.frames.size(); ++i) {
        const nlohmann::ordered_json line{{"size", index.frames[i].size},
                                          {"hash", toHex(index.frames[i].hash)},
                                          {"target", list(index.parts[i].target)},
                                          {"base", list(index.parts[i].base)}};
        text += line.dump() + '\n';
    }
    return text;
}

std::string deltaPath(const Hash& deltaHash)
{
    return "deltas/" + toHex(deltaHash) + ".zst";
}

std::string deltaIndexPath(const Hash& indexHash)
{
    return "deltas/" + toHex(indexHash) + ".index.zst";
}

} // namespace vl
