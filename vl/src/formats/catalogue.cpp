#include "vl/src/formats/catalogue.h"

#include "vl/src/formats/json.h"
#include "vl/src/formats/manifest.h"
#include "vl/src/formats/pathrules.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <limits>
#include <utility>
#include <vector>

namespace vl {
namespace {

using nlohmann::json;

tl::unexpected<Error> fault(const std::string& what)
{
    return failure(vlupd::UPDATER_DATA_ERROR, "catalogue: " + what);
}

Expected<std::string> readText(const json& object, const char* name)
{
    const auto member = object.find(name);
    if (member == object.end() || !member->is_string())
        return fault(std::string("\"") + name + "\" must be a text");
    return member->get<std::string>();
}

Expected<std::string> readDate(const json& object, const char* name)
{
    auto text = readText(object, name);
    if (text && !isDate(*text))
        return fault(std::string("\"") + name + "\" must be a date (yyyy-MM-dd)");
    return text;
}

Expected<std::uint64_t> readNumber(const json& object, const char* name)
{
    const auto member = object.find(name);
    if (member == object.end() || !member->is_number_unsigned() ||
        member->get<std::uint64_t>() > std::numeric_limits<std::int64_t>::max())
        return fault(std::string("\"") + name + "\" must be a whole number from 0 to 2^63 - 1");
    return member->get<std::uint64_t>();
}

Expected<ManifestReference> readReference(const json& version)
{
    const auto member = version.find("manifest");
    if (member == version.end() || !member->is_object())
        return fault("\"manifest\" must be an object");
    const auto size = readNumber(*member, "size");
    if (!size)
        return tl::unexpected(size.error());
    if (*size > maxManifestSize)
        return fault("the manifest is larger than 32 MiB");
    const auto text = readText(*member, "hash");
    const auto hash = text ? hashFromHex(*text) : std::nullopt;
    if (!hash)
        return fault("\"hash\" must be 64 lower-case hexadecimal digits");
    return ManifestReference{.size = *size, .hash = *hash};
}

Expected<ManifestReference> readVersion(const std::string& key, const json& version)
{
    if (const std::string wrong = versionKeyFault(key); !wrong.empty())
        return fault("version key \"" + key + "\" " + wrong);
    if (!version.is_object())
        return fault("version " + key + " is not an object");
    if (const auto date = readDate(version, "date"); !date)
        return failure("version " + key, date.error());
    auto reference = readReference(version);
    return reference ? reference : failure("version " + key, std::move(reference).error());
}

Expected<void> readVersions(Catalogue& catalogue)
{
    std::vector<std::string_view> keys;
    for (const auto& [key, version] : catalogue.versions.items()) {
        auto reference = readVersion(key, version);
        if (!reference)
            return tl::unexpected(std::move(reference).error());
        keys.push_back(catalogue.manifests.emplace(key, *reference).first->first);
    }
    if (const std::string wrong = pathSetFault(keys); !wrong.empty())
        return fault("versions " + wrong);
    return {};
}

} // namespace

bool isDate(std::string_view text)
{
    if (text.size() != 10 || text[4] != '-' || text[7] != '-')
        return false;
    const auto number = [&text](std::size_t offset, std::size_t size) {
        unsigned value = 0;
        const char* end = text.data() + offset + size;
        const auto result = std::from_chars(text.data() + offset, end, value);
        return result.ec == std::errc() && result.ptr == end ? static_cast<int>(value) : 0;
    };
    const std::chrono::year_month_day date{std::chrono::year(number(0, 4)),
                                           std::chrono::month(static_cast<unsigned>(number(5, 2))),
                                           std::chrono::day(static_cast<unsigned>(number(8, 2)))};
    return date.ok();
}

Expected<Catalogue> readCatalogue(std::string_view text)
{
    if (text.size() > maxCatalogueSize)
        return fault("larger than 32 MiB");
    auto read = readJson(text);
    if (!read)
        return fault(read.error().message);
    json& document = *read;
    if (!document.is_object())
        return fault("not a JSON object");

    const auto format = readNumber(document, "format");
    if (!format)
        return tl::unexpected(format.error());
    if (*format != catalogueFormat)
        return fault("unknown format version " + std::to_string(*format));
    const auto repository = readText(document, "repository");
    if (!repository || repository->empty())
        return fault("\"repository\" must be a text that is not empty");
    const auto serial = readNumber(document, "serial");
    if (!serial)
        return tl::unexpected(serial.error());
    const auto date = readDate(document, "date");
    if (!date)
        return tl::unexpected(date.error());

    Catalogue catalogue;
    catalogue.repositoryId = *repository;
    catalogue.serial = *serial;
    catalogue.date = *date;
    if (document.contains("expires")) {
        const auto expires = readDate(document, "expires");
        if (!expires)
            return tl::unexpected(expires.error());
        catalogue.expires = *expires;
    }
    const auto versions = document.find("versions");
    if (versions == document.end() || !versions->is_object())
        return fault("\"versions\" must be an object");
    catalogue.versions = std::move(*versions);
    if (const auto checked = readVersions(catalogue); !checked)
        return tl::unexpected(checked.error());
    return catalogue;
}

std::string writeCatalogue(const Catalogue& catalogue)
{
    nlohmann::ordered_json document;
    document["format"] = catalogueFormat;
    document["repository"] = catalogue.repositoryId;
    document["serial"] = catalogue.serial;
    document["date"] = catalogue.date;
    if (catalogue.expires)
        document["expires"] = *catalogue.expires;
    document["versions"] = catalogue.versions;
    return document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

} // namespace vl
