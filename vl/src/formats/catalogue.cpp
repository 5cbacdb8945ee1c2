#include "vl/src/formats/catalogue.h"

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

constexpr std::size_t maxDepth = 32;

tl::unexpected<Error> fault(const std::string& what)
{
    return failure(vlupd::UPDATER_DATA_ERROR, "catalogue: " + what);
}

/// Builds the document event by event, and refuses what the ready-made parser would let pass:
/// members of the same name and deep nesting. (Its filter callback could tell them too, but looks
/// through all the members read so far whenever an object ends.)
class DocumentBuilder final : public json::json_sax_t
{
public:
    json& document() { return m_document; }
    const std::string& fault() const { return m_fault; }

    bool null() override { return add(nullptr); }
    bool boolean(bool value) override { return add(value); }
    bool number_integer(std::int64_t value) override { return add(value); }
    bool number_unsigned(std::uint64_t value) override { return add(value); }
    bool number_float(double value, const std::string& /*text*/) override { return add(value); }
    bool string(std::string& value) override { return add(std::move(value)); }
    bool binary(json::binary_t& value) override { return add(std::move(value)); }
    bool start_object(std::size_t /*size*/) override { return open(json::object()); }
    bool end_object() override { return close(); }
    bool start_array(std::size_t /*size*/) override { return open(json::array()); }
    bool end_array() override { return close(); }

    bool key(std::string& name) override
    {
        const auto [member, added] = m_open.back()->emplace(std::move(name), nullptr);
        if (!added)
            m_fault = "the member \"" + member.key() + "\" is there twice";
        m_member = &*member;
        return added;
    }

    bool parse_error(std::size_t position, const std::string& /*token*/,
                     const json::exception& /*error*/) override
    {
        m_fault = "not valid JSON at byte " + std::to_string(position);
        return false;
    }

private:
    /// Puts a value where it belongs. The reference holds until something is added beside it.
    json& place(json value)
    {
        if (m_open.empty())
            return m_document = std::move(value);
        if (m_open.back()->is_object())
            return *m_member = std::move(value);
        m_open.back()->push_back(std::move(value));
        return m_open.back()->back();
    }

    bool add(json value)
    {
        place(std::move(value));
        return true;
    }

    bool open(json value)
    {
        if (m_open.size() >= maxDepth) {
            m_fault = "nested too deeply";
            return false;
        }
        m_open.push_back(&place(std::move(value)));
        return true;
    }

    bool close()
    {
        m_open.pop_back();
        return true;
    }

    json m_document;
    std::vector<json*> m_open; ///< the objects and arrays that are being filled, outermost first
    json* m_member = nullptr;  ///< the value of the name read last
    std::string m_fault;
};

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
    DocumentBuilder builder;
    if (!json::sax_parse(text, &builder))
        return fault(builder.fault());
    json& document = builder.document();
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
    if (const auto read = readVersions(catalogue); !read)
        return tl::unexpected(read.error());
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
