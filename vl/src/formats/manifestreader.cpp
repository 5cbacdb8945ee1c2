#include "vl/src/formats/manifestreader.h"

#include <nlohmann/json.hpp>

#include <array>
#include <bitset>
#include <limits>
#include <set>

namespace vl {
namespace {

using nlohmann::json;

constexpr std::size_t maxDepth = 32;

/// What the value that is being read is.
enum class Field {
    Document,
    Format,
    Version,
    Executables,
    Executable,
    Pack,
    PackSize,
    PackHash,
    Frames,
    Frame,
    FrameOffset,
    FrameSize,
    FrameRawSize,
    FrameHash,
    Deltas,
    Delta,
    DeltaFrom,
    DeltaFromManifest,
    DeltaSize,
    DeltaHash,
    DeltaIndexSize,
    DeltaIndexHash,
    Files,
    File,
    FilePath,
    FileSize,
    FileMode,
    FileHash,
    FileRawOffset,
    FileRole,
    Unknown, ///< ignored with everything inside
};

enum class Type { Number, Text, Object, Array };

struct Rule
{
    Field parent;
    std::string_view name; ///< empty: every element or member of the parent
    Field field;
    Type type;
    bool optional = false;
};

constexpr std::array<Rule, 29> rules{{
    {Field::Document, "format", Field::Format, Type::Number},
    {Field::Document, "version", Field::Version, Type::Text},
    {Field::Document, "executables", Field::Executables, Type::Object},
    {Field::Document, "pack", Field::Pack, Type::Object},
    {Field::Document, "deltas", Field::Deltas, Type::Array, true},
    {Field::Document, "files", Field::Files, Type::Array},
    {Field::Executables, "", Field::Executable, Type::Text},
    {Field::Pack, "size", Field::PackSize, Type::Number},
    {Field::Pack, "hash", Field::PackHash, Type::Text},
    {Field::Pack, "frames", Field::Frames, Type::Array},
    {Field::Frames, "", Field::Frame, Type::Object},
    {Field::Frame, "offset", Field::FrameOffset, Type::Number},
    {Field::Frame, "size", Field::FrameSize, Type::Number},
    {Field::Frame, "rawSize", Field::FrameRawSize, Type::Number},
    {Field::Frame, "hash", Field::FrameHash, Type::Text},
    {Field::Deltas, "", Field::Delta, Type::Object},
    {Field::Delta, "from", Field::DeltaFrom, Type::Text},
    {Field::Delta, "fromManifest", Field::DeltaFromManifest, Type::Text},
    {Field::Delta, "size", Field::DeltaSize, Type::Number},
    {Field::Delta, "hash", Field::DeltaHash, Type::Text},
    {Field::Delta, "indexSize", Field::DeltaIndexSize, Type::Number},
    {Field::Delta, "indexHash", Field::DeltaIndexHash, Type::Text},
    {Field::Files, "", Field::File, Type::Object},
    {Field::File, "path", Field::FilePath, Type::Text},
    {Field::File, "size", Field::FileSize, Type::Number},
    {Field::File, "mode", Field::FileMode, Type::Text},
    {Field::File, "hash", Field::FileHash, Type::Text},
    {Field::File, "rawOffset", Field::FileRawOffset, Type::Number},
    {Field::File, "role", Field::FileRole, Type::Text, true},
}};

/// A set of rules, by their places in the table.
using RuleSet = std::bitset<rules.size()>;

constexpr Rule documentRule{Field::Unknown, "", Field::Document, Type::Object};

const Rule* findRule(Field parent, std::string_view name)
{
    for (const Rule& rule : rules) {
        if (rule.parent == parent && (rule.name.empty() || rule.name == name))
            return &rule;
    }
    return nullptr;
}

std::size_t placeOf(const Rule* rule)
{
    return static_cast<std::size_t>(rule - rules.data());
}

/// The member that an object of this kind must have and has not, or null. `seen`: the rules of
/// those that it has.
const Rule* missingMember(Field parent, const RuleSet& seen)
{
    for (const Rule& rule : rules) {
        if (rule.parent == parent && !rule.name.empty() && !rule.optional &&
            !seen.test(placeOf(&rule)))
            return &rule;
    }
    return nullptr;
}

/// Receives the parser's events. A false answer ends the parsing; fault() says why.
class Reader final : public json::json_sax_t
{
public:
    Manifest takeManifest() { return std::move(m_manifest); }
    const std::string& fault() const { return m_fault; }

    bool null() override { return other(); }
    bool boolean(bool /*value*/) override { return other(); }
    bool number_float(double /*value*/, const std::string& /*text*/) override { return other(); }
    bool binary(json::binary_t& /*value*/) override { return other(); }
    bool number_integer(std::int64_t /*value*/) override
    {
        return ignored() || fail("is negative");
    }

    bool number_unsigned(std::uint64_t value) override
    {
        if (ignored())
            return true;
        if (m_next->type != Type::Number)
            return wrongType();
        if (value > std::numeric_limits<std::int64_t>::max())
            return fail("is above 2^63 - 1");
        return storeNumber(value);
    }

    bool string(std::string& value) override
    {
        if (ignored())
            return true;
        return m_next->type == Type::Text ? storeText(value) : wrongType();
    }

    bool start_object(std::size_t /*size*/) override { return open(Type::Object); }
    bool start_array(std::size_t /*size*/) override { return open(Type::Array); }

    bool key(std::string& name) override
    {
        Scope& scope = m_scopes.back();
        m_name = name;
        m_next = findRule(scope.field, name);
        if (scope.field == Field::Unknown)
            return true;
        if (m_next != nullptr && !m_next->name.empty()) {
            if (scope.seen.test(placeOf(m_next)))
                return fail("is there twice");
            scope.seen.set(placeOf(m_next));
        } else if (!scope.otherNames.insert(std::move(name)).second) {
            return fail("is there twice");
        }
        return true;
    }

    bool end_object() override
    {
        const Scope& scope = m_scopes.back();
        if (const Rule* missing = missingMember(scope.field, scope.seen)) {
            m_name = missing->name;
            return fail("is missing");
        }
        return close();
    }
    bool end_array() override { return close(); }

    bool parse_error(std::size_t position, const std::string& /*token*/,
                     const json::exception& /*error*/) override
    {
        m_fault = "not valid JSON at byte " + std::to_string(position);
        return false;
    }

private:
    struct Scope
    {
        Field field;
        RuleSet seen;                     ///< of the members that rules name
        std::set<std::string> otherNames; ///< names of the others
    };

    bool fail(const std::string& what)
    {
        m_fault = "\"" + m_name + "\" " + what;
        if (!m_scopes.empty() && m_scopes.back().field == Field::File)
            m_fault += " (file " + std::to_string(m_manifest.files.size()) + ")";
        return false;
    }
    bool wrongType() { return fail("is of the wrong type"); }
    bool ignored() const { return m_next == nullptr; }
    bool other() { return ignored() || wrongType(); }

    bool open(Type type)
    {
        if (m_scopes.size() >= maxDepth)
            return fail("is nested too deeply");
        if (m_next != nullptr && m_next->type != type)
            return wrongType();
        const Field field = m_next != nullptr ? m_next->field : Field::Unknown;
        if (field == Field::Frame)
            m_manifest.pack.frames.emplace_back();
        if (field == Field::Delta)
            m_manifest.deltas.emplace_back();
        if (field == Field::File)
            m_manifest.files.emplace_back();
        m_scopes.push_back(Scope{.field = field, .seen = {}, .otherNames = {}});
        expectElement();
        return true;
    }

    bool close()
    {
        m_scopes.pop_back();
        expectElement();
        return true;
    }

    /// Elements of an array come without a name of their own.
    void expectElement()
    {
        const Field field = m_scopes.empty() ? Field::Unknown : m_scopes.back().field;
        const bool isList =
            field == Field::Frames || field == Field::Deltas || field == Field::Files;
        m_next = isList ? findRule(field, {}) : nullptr;
    }

    bool storeNumber(std::uint64_t value)
    {
        switch (m_next->field) {
        case Field::Format:
            if (value != manifestFormat) {
                m_fault = "unknown format version " + std::to_string(value);
                return false;
            }
            return true;
        case Field::PackSize:
            m_manifest.pack.size = value;
            return true;
        case Field::FrameOffset:
            m_manifest.pack.frames.back().offset = value;
            return true;
        case Field::FrameSize:
            m_manifest.pack.frames.back().size = value;
            return true;
        case Field::FrameRawSize:
            m_manifest.pack.frames.back().rawSize = value;
            return true;
        case Field::DeltaSize:
            m_manifest.deltas.back().size = value;
            return true;
        case Field::DeltaIndexSize:
            m_manifest.deltas.back().indexSize = value;
            return true;
        case Field::FileSize:
            m_manifest.files.back().size = value;
            return true;
        case Field::FileRawOffset:
            m_manifest.files.back().rawOffset = value;
            return true;
        default:
            return wrongType();
        }
    }

    bool storeHash(const std::string& text, Hash& hash)
    {
        const auto value = hashFromHex(text);
        if (!value)
            return fail("is not 64 lower-case hexadecimal digits");
        hash = *value;
        return true;
    }

    bool storeText(std::string& value)
    {
        switch (m_next->field) {
        case Field::Version:
            m_manifest.version = std::move(value);
            return true;
        case Field::Executable:
            m_manifest.executables[m_name] = std::move(value);
            return true;
        case Field::PackHash:
            return storeHash(value, m_manifest.pack.hash);
        case Field::FrameHash:
            return storeHash(value, m_manifest.pack.frames.back().hash);
        case Field::DeltaFrom:
            m_manifest.deltas.back().from = std::move(value);
            return true;
        case Field::DeltaFromManifest:
            return storeHash(value, m_manifest.deltas.back().fromManifest);
        case Field::DeltaHash:
            return storeHash(value, m_manifest.deltas.back().hash);
        case Field::DeltaIndexHash:
            return storeHash(value, m_manifest.deltas.back().indexHash);
        case Field::FileHash:
            return storeHash(value, m_manifest.files.back().hash);
        case Field::FilePath:
            m_manifest.files.back().path = std::move(value);
            return true;
        case Field::FileMode:
            if (value != "0644" && value != "0755")
                return fail("is neither 0644 nor 0755");
            m_manifest.files.back().mode = value == "0755" ? 0755 : 0644;
            return true;
        case Field::FileRole:
            if (value != "settings")
                return fail("is not \"settings\"");
            m_manifest.files.back().role = FileRole::Settings;
            return true;
        default:
            return wrongType();
        }
    }

    Manifest m_manifest;
    std::vector<Scope> m_scopes;
    const Rule* m_next = &documentRule; ///< what the next value must be; null: anything, ignored
    std::string m_name = "manifest";    ///< of the member last seen, for messages
    std::string m_fault;
};

} // namespace

Expected<Manifest> parseManifest(std::string_view text)
{
    Reader reader;
    if (!json::sax_parse(text, &reader))
        return failure(vlupd::UPDATER_DATA_ERROR, reader.fault());
    return reader.takeManifest();
}

} // namespace vl
