#include "vlupd/vlupd.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

namespace {

/// The parts of a valid version that take part in the order.
struct Parts
{
    std::array<std::string_view, 3> core; ///< digits without leading zeros
    std::vector<std::string_view> preRelease;
};

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool isNumber(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), isDigit);
}

bool isNumericField(std::string_view text)
{
    return !text.empty() && isNumber(text) && (text.size() == 1 || text[0] != '0');
}

bool isIdentifier(std::string_view text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-';
    });
}

std::vector<std::string_view> splitAtDots(std::string_view text)
{
    std::vector<std::string_view> fields;
    fields.reserve(3); // of a core; sorting many versions comes by here often
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find('.', begin), text.size());
        fields.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return fields;
}

/// False when `text` is no version by the grammar of Semantic Versioning 2.0.
bool parse(std::string_view text, Parts& parts)
{
    if (const std::size_t plus = text.find('+'); plus != std::string_view::npos) {
        const auto build = splitAtDots(text.substr(plus + 1));
        if (!std::all_of(build.begin(), build.end(), isIdentifier))
            return false;
        text = text.substr(0, plus);
    }
    if (const std::size_t dash = text.find('-'); dash != std::string_view::npos) {
        parts.preRelease = splitAtDots(text.substr(dash + 1));
        const auto valid = [](std::string_view field) {
            return isIdentifier(field) && (!isNumber(field) || isNumericField(field));
        };
        if (!std::all_of(parts.preRelease.begin(), parts.preRelease.end(), valid))
            return false;
        text = text.substr(0, dash);
    }
    const auto core = splitAtDots(text);
    if (core.size() != parts.core.size() || !std::all_of(core.begin(), core.end(), isNumericField))
        return false;
    std::copy(core.begin(), core.end(), parts.core.begin());
    return true;
}

/// Digits without leading zeros, of any length: the longer number is the greater one.
int compareNumbers(std::string_view left, std::string_view right)
{
    if (left.size() != right.size())
        return left.size() < right.size() ? -1 : 1;
    return left.compare(right);
}

int compareFields(std::string_view left, std::string_view right)
{
    const bool leftNumber = isNumber(left);
    const bool rightNumber = isNumber(right);
    if (leftNumber && rightNumber)
        return compareNumbers(left, right);
    if (leftNumber != rightNumber)
        return leftNumber ? -1 : 1;
    return left.compare(right);
}

bool lessParts(const Parts& left, const Parts& right)
{
    for (std::size_t i = 0; i < left.core.size(); ++i) {
        if (const int order = compareNumbers(left.core[i], right.core[i]); order != 0)
            return order < 0;
    }
    if (left.preRelease.empty() || right.preRelease.empty())
        return !left.preRelease.empty() && right.preRelease.empty();
    const std::size_t common = std::min(left.preRelease.size(), right.preRelease.size());
    for (std::size_t i = 0; i < common; ++i) {
        if (const int order = compareFields(left.preRelease[i], right.preRelease[i]); order != 0)
            return order < 0;
    }
    return left.preRelease.size() < right.preRelease.size();
}

} // namespace

SemanticVersion::SemanticVersion(const std::string& text) : m_text(text) {}

bool SemanticVersion::operator<(const SemanticVersion& other) const
{
    Parts left;
    Parts right;
    const bool leftValid = parse(m_text, left);
    const bool rightValid = parse(other.m_text, right);
    if (leftValid != rightValid)
        return rightValid;
    return leftValid ? lessParts(left, right) : m_text < other.m_text;
}

std::string SemanticVersion::String() const
{
    return m_text;
}
