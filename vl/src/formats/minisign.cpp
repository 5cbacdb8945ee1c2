#include "vl/src/formats/minisign.h"

#include <sodium.h>

#include <algorithm>
#include <iterator>
#include <vector>

namespace vl {
namespace {

using Bytes = std::vector<unsigned char>;

constexpr std::string_view plainAlgorithm = "Ed"; // keys, and signatures of the legacy kind
constexpr std::string_view prehashedAlgorithm = "ED";
constexpr std::string_view checksumAlgorithm = "B2";
constexpr std::string_view noKdf{"\0\0", 2};
constexpr std::string_view untrustedPrefix = "untrusted comment: ";
constexpr std::string_view trustedPrefix = "trusted comment: ";
// Salt, operations limit and memory limit of the password hash; zero in a key without a password.
constexpr std::size_t kdfSize = 32 + 8 + 8;
constexpr std::size_t checksumSize = 32;
constexpr std::size_t secretKeyFileSize = 6 + kdfSize + 8 + 64 + checksumSize;
constexpr std::size_t publicKeyFileSize = 2 + 8 + 32;
constexpr std::size_t signatureFileSize = 2 + 8 + crypto_sign_BYTES;

bool sodiumReady()
{
    static const bool ready = sodium_init() >= 0;
    return ready;
}

/// The next line of `text`, which is shortened by it; a "\r" before the line end is dropped.
std::string_view takeLine(std::string_view& text)
{
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.ends_with('\r'))
        line.remove_suffix(1);
    return line;
}

/// Nothing unless `line` is the base64 form of exactly `size` bytes.
Bytes fromBase64(std::string_view line, std::size_t size)
{
    Bytes bytes(size);
    std::size_t decoded = 0;
    const char* end = nullptr;
    if (sodium_base642bin(bytes.data(), bytes.size(), line.data(), line.size(), nullptr, &decoded,
                          &end, sodium_base64_VARIANT_ORIGINAL) != 0 ||
        decoded != size || end != line.data() + line.size())
        return {};
    return bytes;
}

std::string toBase64(const Bytes& bytes)
{
    std::string text(sodium_base64_ENCODED_LEN(bytes.size(), sodium_base64_VARIANT_ORIGINAL), '\0');
    sodium_bin2base64(text.data(), text.size(), bytes.data(), bytes.size(),
                      sodium_base64_VARIANT_ORIGINAL);
    text.pop_back(); // the terminating NUL
    return text;
}

template <class Range> void append(Bytes& bytes, const Range& range)
{
    std::copy(range.begin(), range.end(), std::back_inserter(bytes));
}

bool startsWith(const Bytes& bytes, std::string_view algorithm, std::size_t offset = 0)
{
    return std::equal(algorithm.begin(), algorithm.end(),
                      bytes.begin() + static_cast<std::ptrdiff_t>(offset),
                      [](char a, unsigned char b) { return static_cast<unsigned char>(a) == b; });
}

/// The id as minisign prints it: a little-endian number in hexadecimal digits.
std::string idText(const KeyId& id)
{
    static constexpr std::string_view digits = "0123456789ABCDEF";
    std::string text;
    for (auto byte = id.rbegin(); byte != id.rend(); ++byte) {
        text += digits[*byte >> 4U];
        text += digits[*byte & 15U];
    }
    return text;
}

tl::unexpected<Error> fault(const std::string& what)
{
    return failure(vlupd::UPDATER_DATA_ERROR, what);
}

using Prehash = std::array<unsigned char, crypto_generichash_BYTES_MAX>;

Prehash prehash(std::string_view message)
{
    Prehash hash{};
    crypto_generichash(hash.data(), hash.size(),
                       reinterpret_cast<const unsigned char*>(message.data()), message.size(),
                       nullptr, 0);
    return hash;
}

} // namespace

Expected<PublicKey> readPublicKey(std::string_view text)
{
    std::string_view line = takeLine(text);
    if (line.starts_with(untrustedPrefix))
        line = takeLine(text);
    const Bytes bytes = fromBase64(line, publicKeyFileSize);
    if (bytes.empty() || !startsWith(bytes, plainAlgorithm))
        return fault("not a minisign public key");
    PublicKey key;
    std::copy_n(bytes.begin() + 2, key.id.size(), key.id.begin());
    std::copy_n(bytes.begin() + 10, key.key.size(), key.key.begin());
    return key;
}

std::string writePublicKey(const PublicKey& key)
{
    Bytes bytes;
    append(bytes, plainAlgorithm);
    append(bytes, key.id);
    append(bytes, key.key);
    return std::string(untrustedPrefix) + "minisign public key " + idText(key.id) + "\n" +
           toBase64(bytes) + "\n";
}

Expected<SecretKey> readSecretKey(std::string_view text)
{
    std::string_view line = takeLine(text);
    if (line.starts_with(untrustedPrefix))
        line = takeLine(text);
    const Bytes bytes = fromBase64(line, secretKeyFileSize);
    if (bytes.empty() || !startsWith(bytes, plainAlgorithm) ||
        !startsWith(bytes, checksumAlgorithm, 4))
        return fault("not a minisign secret key");
    if (!startsWith(bytes, noKdf, 2))
        return fault("the secret key is protected by a password; "
                     "use one without (vl-publish keygen, or minisign -G -W)");
    SecretKey key;
    const auto keyBegin = bytes.begin() + static_cast<std::ptrdiff_t>(6 + kdfSize);
    std::copy_n(keyBegin, key.id.size(), key.id.begin());
    std::copy_n(keyBegin + 8, key.key.size(), key.key.begin());
    // minisign leaves the checksum of a key without a password zero; what can be checked is
    // whether the public half belongs to the seed.
    std::array<unsigned char, crypto_sign_PUBLICKEYBYTES> publicHalf{};
    std::array<unsigned char, crypto_sign_SECRETKEYBYTES> derived{};
    crypto_sign_seed_keypair(publicHalf.data(), derived.data(), key.key.data());
    if (derived != key.key)
        return fault("the secret key is damaged");
    return key;
}

std::string writeSecretKey(const SecretKey& key)
{
    Bytes bytes;
    append(bytes, plainAlgorithm);
    append(bytes, noKdf);
    append(bytes, checksumAlgorithm);
    append(bytes, Bytes(kdfSize));
    append(bytes, key.id);
    append(bytes, key.key);
    append(bytes, Bytes(checksumSize));
    return std::string(untrustedPrefix) + "minisign encrypted secret key\n" + toBase64(bytes) +
           "\n";
}

PublicKey publicKeyOf(const SecretKey& key)
{
    PublicKey publicKey{.id = key.id};
    // libsodium's secret key is the seed followed by the public key.
    std::copy_n(key.key.begin() + crypto_sign_SEEDBYTES, publicKey.key.size(),
                publicKey.key.begin());
    return publicKey;
}

Expected<KeyPair> generateKeyPair()
{
    if (!sodiumReady())
        return failure(vlupd::SYSTEM_CALL_ERROR, "no source of random numbers");
    SecretKey key;
    std::array<unsigned char, crypto_sign_PUBLICKEYBYTES> publicHalf{};
    randombytes_buf(key.id.data(), key.id.size());
    crypto_sign_keypair(publicHalf.data(), key.key.data());
    return KeyPair{.secretKey = key, .publicKey = publicKeyOf(key)};
}

std::string sign(std::string_view message, const SecretKey& key, std::string_view trustedComment)
{
    Bytes bytes;
    append(bytes, prehashedAlgorithm);
    append(bytes, key.id);
    std::array<unsigned char, crypto_sign_BYTES> signature{};
    const Prehash hash = prehash(message);
    crypto_sign_detached(signature.data(), nullptr, hash.data(), hash.size(), key.key.data());
    append(bytes, signature);

    Bytes covered(signature.begin(), signature.end());
    append(covered, trustedComment);
    std::array<unsigned char, crypto_sign_BYTES> global{};
    crypto_sign_detached(global.data(), nullptr, covered.data(), covered.size(), key.key.data());

    return std::string(untrustedPrefix) + "signature from minisign secret key\n" + toBase64(bytes) +
           "\n" + std::string(trustedPrefix) + std::string(trustedComment) + "\n" +
           toBase64(Bytes(global.begin(), global.end())) + "\n";
}

Expected<void> verify(std::string_view message, std::string_view signatureFile,
                      std::span<const PublicKey> keys)
{
    const std::string_view untrusted = takeLine(signatureFile);
    const Bytes bytes = fromBase64(takeLine(signatureFile), signatureFileSize);
    std::string_view comment = takeLine(signatureFile);
    const Bytes global = fromBase64(takeLine(signatureFile), crypto_sign_BYTES);
    if (!untrusted.starts_with(untrustedPrefix) || bytes.empty() ||
        !comment.starts_with(trustedPrefix) || global.empty() || !signatureFile.empty())
        return fault("not a minisign signature");
    comment.remove_prefix(trustedPrefix.size());
    if (startsWith(bytes, plainAlgorithm))
        return fault("the signature is of the legacy kind that is not pre-hashed");
    if (!startsWith(bytes, prehashedAlgorithm))
        return fault("the signature is of an unknown algorithm");

    KeyId id{};
    std::copy_n(bytes.begin() + 2, id.size(), id.begin());
    const auto key = std::find_if(keys.begin(), keys.end(),
                                  [&id](const PublicKey& candidate) { return candidate.id == id; });
    if (key == keys.end())
        return fault("signed with the unknown key " + idText(id));

    const Bytes signature(bytes.begin() + 10, bytes.end());
    const Prehash hash = prehash(message);
    if (crypto_sign_verify_detached(signature.data(), hash.data(), hash.size(), key->key.data()) !=
        0)
        return fault("the signature with key " + idText(id) + " does not match the contents");
    Bytes covered = signature;
    append(covered, comment);
    if (crypto_sign_verify_detached(global.data(), covered.data(), covered.size(),
                                    key->key.data()) != 0)
        return fault("the signature's trusted comment has been changed");
    return {};
}

} // namespace vl
