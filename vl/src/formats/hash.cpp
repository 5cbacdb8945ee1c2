#include "vl/src/formats/hash.h"

#include <sodium.h>

namespace vl {

struct Hasher::State
{
    crypto_generichash_blake2b_state blake{};
};

namespace {

void start(crypto_generichash_blake2b_state& state)
{
    // Picks the fastest implementation for this processor; free after the first time.
    static const int ready = sodium_init();
    static_cast<void>(ready);
    // Fails only for a digest or key length that BLAKE2b does not have.
    crypto_generichash_blake2b_init(&state, nullptr, 0, sizeof(Hash));
}

} // namespace

Hasher::Hasher() : m_state(std::make_unique<State>())
{
    start(m_state->blake);
}
Hasher::~Hasher() = default;
Hasher::Hasher(Hasher&&) noexcept = default;
Hasher& Hasher::operator=(Hasher&&) noexcept = default;

void Hasher::update(std::span<const std::byte> bytes)
{
    crypto_generichash_blake2b_update(
        &m_state->blake, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

Hash Hasher::finish()
{
    Hash hash{};
    crypto_generichash_blake2b_final(&m_state->blake, hash.data(), hash.size());
    start(m_state->blake);
    return hash;
}

Hash hashOf(std::span<const std::byte> bytes)
{
    Hasher hasher;
    hasher.update(bytes);
    return hasher.finish();
}

Hash hashOf(std::string_view bytes)
{
    return hashOf(std::as_bytes(std::span(bytes)));
}

std::string toHex(const Hash& hash)
{
    std::array<char, 2 * sizeof(Hash) + 1> text{};
    sodium_bin2hex(text.data(), text.size(), hash.data(), hash.size());
    return text.data();
}

std::optional<Hash> hashFromHex(std::string_view text)
{
    Hash hash{};
    if (text.size() != 2 * hash.size() ||
        text.find_first_not_of("0123456789abcdef") != std::string_view::npos)
        return std::nullopt;
    sodium_hex2bin(hash.data(), hash.size(), text.data(), text.size(), nullptr, nullptr, nullptr);
    return hash;
}

} // namespace vl
