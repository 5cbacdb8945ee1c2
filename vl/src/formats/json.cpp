#include "vl/src/formats/json.h"

#include <string>
#include <utility>
#include <vector>

namespace vl {
namespace {

using nlohmann::json;

constexpr std::size_t maxDepth = 32;

/// Builds the document event by event. (The ready-made parser's filter callback could tell the
/// same, but looks through all the members read so far whenever an object ends.)
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

} // namespace

Expected<json> readJson(std::string_view text)
{
    DocumentBuilder builder;
    if (!json::sax_parse(text, &builder))
        return failure(vlupd::UPDATER_DATA_ERROR, builder.fault());
    return Expected<json>(tl::in_place, std::move(builder.document()));
}

} // namespace vl
