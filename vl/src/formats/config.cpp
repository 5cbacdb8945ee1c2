#include "vl/src/formats/config.h"

#include "vl/src/formats/json.h"
#include "vl/src/platform/file.h"

#include <limits>

namespace vl {
namespace {

using nlohmann::json;

constexpr std::uint64_t maxConfigSize = 1U << 20U;

tl::unexpected<Error> fault(const std::string& what)
{
    return failure(vlupd::UPDATER_DATA_ERROR, what);
}

/// Reads an optional text member; false when it is there and no text.
bool readText(const json& object, const char* name, std::string& text)
{
    const auto member = object.find(name);
    if (member == object.end())
        return true;
    if (!member->is_string())
        return false;
    text = member->get<std::string>();
    return true;
}

} // namespace

Expected<Config> parseConfig(std::string_view text)
{
    const auto document = readJson(text);
    if (!document)
        return tl::unexpected(document.error());
    const json& object = *document;
    if (!object.is_object())
        return fault("not a JSON object");

    Config config;
    if (!readText(object, "repository", config.repository) || config.repository.empty())
        return fault("\"repository\" must be an address or a folder");
    if (!readText(object, "proxy", config.proxy))
        return fault("\"proxy\" must be a text");

    if (object.contains("repositoryId")) {
        std::string id;
        if (!readText(object, "repositoryId", id) || id.empty())
            return fault("\"repositoryId\" must be a text that is not empty");
        config.repositoryId = std::move(id);
    }
    if (const auto limit = object.find("maxBytesPerSecond"); limit != object.end()) {
        if (!limit->is_number_unsigned() ||
            limit->get<std::uint64_t>() > std::numeric_limits<std::int64_t>::max())
            return fault("\"maxBytesPerSecond\" must be a whole number that is not negative");
        config.maxBytesPerSecond = limit->get<std::uint64_t>();
    }

    const auto keys = object.find("publicKeys");
    if (keys == object.end() || !keys->is_array() || keys->empty() || keys->size() > 2)
        return fault("\"publicKeys\" must hold one or two public keys");
    for (const json& entry : *keys) {
        auto key = readPublicKey(entry.is_string() ? entry.get<std::string>() : std::string());
        if (!key)
            return failure("\"publicKeys\"", std::move(key.error()));
        config.publicKeys.push_back(*key);
    }
    return config;
}

Expected<Config> readConfig(const std::filesystem::path& root)
{
    const std::filesystem::path path = root / "vl.json";
    auto text = readWholeFile(path, maxConfigSize);
    if (!text)
        return fault("configuration " + toUtf8(path) + ": " + text.error().message);
    auto config = parseConfig(*text);
    if (!config)
        return failure("configuration " + toUtf8(path), std::move(config.error()));
    return config;
}

} // namespace vl
