#pragma once

#include "vl/src/error.h"

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

// Keys and signatures in minisign's format (https://jedisct1.github.io/minisign/).
namespace vl {

using KeyId = std::array<std::uint8_t, 8>;

struct PublicKey
{
    KeyId id{};
    std::array<std::uint8_t, 32> key{};
};

/// An unencrypted secret key.
struct SecretKey
{
    KeyId id{};
    std::array<std::uint8_t, 64> key{};
};

/// Takes the base64 line alone or the whole two-line public key file.
Expected<PublicKey> readPublicKey(std::string_view text);
std::string writePublicKey(const PublicKey& key);

/// Reads an unencrypted secret key file; a key with a password is refused with a clear message.
Expected<SecretKey> readSecretKey(std::string_view text);
std::string writeSecretKey(const SecretKey& key);

PublicKey publicKeyOf(const SecretKey& key);

struct KeyPair
{
    SecretKey secretKey;
    PublicKey publicKey;
};
Expected<KeyPair> generateKeyPair();

/// The four-line signature file (pre-hashed, "ED"). `trustedComment` must not hold a line end.
std::string sign(std::string_view message, const SecretKey& key, std::string_view trustedComment);

/// Checks both signatures of the file (over the message and over the trusted comment) with the
/// key of `keys` whose id it names. UPDATER_DATA_ERROR names what is wrong; the legacy algorithm
/// "Ed" is refused.
Expected<void> verify(std::string_view message, std::string_view signatureFile,
                      std::span<const PublicKey> keys);

} // namespace vl
