#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace vl {

/// A BLAKE2b-256 hash (RFC 7693, 32-byte digest, no key).
using Hash = std::array<std::uint8_t, 32>;

/// Hashes bytes that arrive in pieces.
class Hasher final
{
public:
    Hasher();
    ~Hasher();
    Hasher(Hasher&&) noexcept;
    Hasher& operator=(Hasher&&) noexcept;

    void update(std::span<const std::byte> bytes);
    /// The hash of everything so far. The hasher starts anew afterwards.
    Hash finish();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

Hash hashOf(std::span<const std::byte> bytes);
Hash hashOf(std::string_view bytes);
/// 64 lower-case hexadecimal digits.
std::string toHex(const Hash& hash);
/// Nothing unless `text` is exactly 64 lower-case hexadecimal digits.
std::optional<Hash> hashFromHex(std::string_view text);

} // namespace vl
