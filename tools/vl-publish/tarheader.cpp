#include "tools/vl-publish/tarheader.h"

#include <algorithm>
#include <array>
#include <numeric>

namespace vl::publish {
namespace {

constexpr std::size_t nameSize = 100;
constexpr std::uint64_t maxUstarSize = (std::uint64_t{1} << 33U) - 1; // eleven octal digits

bool isAscii(std::string_view text)
{
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

/// Octal digits that fill a field but for the NUL at its end.
void putOctal(std::string& block, std::size_t offset, std::size_t fieldSize, std::uint64_t value)
{
    for (std::size_t i = fieldSize - 1; i-- > 0; value >>= 3U)
        block[offset + i] = static_cast<char>('0' + (value & 7U));
}

void put(std::string& block, std::size_t offset, std::string_view text)
{
    block.replace(offset, text.size(), text);
}

std::string ustarBlock(std::string_view name, std::uint64_t size, std::uint32_t mode, char type)
{
    std::string block(tarBlockSize, '\0');
    put(block, 0, name.substr(0, nameSize));
    putOctal(block, 100, 8, mode);
    putOctal(block, 108, 8, 0); // owner
    putOctal(block, 116, 8, 0); // group
    putOctal(block, 124, 12, size);
    putOctal(block, 136, 12, 0); // time
    block[156] = type;
    put(block, 257,
        std::string_view("ustar\0"
                         "00",
                         8));
    // The checksum is taken with spaces in its own field.
    put(block, 148, "        ");
    const auto sum = std::accumulate(block.begin(), block.end(), 0U, [](unsigned total, char c) {
        return total + static_cast<unsigned char>(c);
    });
    putOctal(block, 148, 7, sum);
    block[154] = '\0';
    return block;
}

/// "LENGTH KEY=VALUE\n", where the length counts its own digits too.
std::string paxRecord(std::string_view key, std::string_view value)
{
    const std::size_t rest = key.size() + value.size() + 3;
    std::size_t length = rest;
    while (length != rest + std::to_string(length).size())
        length = rest + std::to_string(length).size();
    return std::to_string(length) + " " + std::string(key) + "=" + std::string(value) + "\n";
}

} // namespace

std::string tarHeader(std::string_view path, std::uint64_t size, std::uint32_t mode)
{
    std::string records;
    if (path.size() > nameSize || !isAscii(path))
        records += paxRecord("path", path);
    if (size > maxUstarSize)
        records += paxRecord("size", std::to_string(size));

    std::string blocks;
    std::string name(path);
    if (!records.empty()) {
        // Readers that know no pax headers see a name of their own alphabet.
        std::replace_if(
            name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; },
            '_');
        blocks = ustarBlock("PaxHeaders/" + name, records.size(), 0644, 'x') + records;
        blocks.append(tarPadding(records.size()), '\0');
    }
    return blocks + ustarBlock(name, size > maxUstarSize ? 0 : size, mode, '0');
}

std::size_t tarPadding(std::uint64_t size)
{
    return static_cast<std::size_t>((tarBlockSize - size % tarBlockSize) % tarBlockSize);
}

} // namespace vl::publish
