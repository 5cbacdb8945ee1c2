#include "tools/sample-simulator/releasedata.h"

#include <cstdint>
#include <fstream>
#include <string>
#include <system_error>

namespace fs = std::filesystem;

namespace {

constexpr std::size_t mebibyte = std::size_t{1} << 20;
constexpr std::size_t editSize = std::size_t{128} << 10;

/// A small generator of its own (splitmix64), because the standard distributions differ between
/// implementations and equal releases must be equal everywhere.
class Random
{
public:
    explicit Random(std::uint64_t seed) : state(seed) {}

    std::uint64_t next()
    {
        state += 0x9e3779b97f4a7c15U;
        std::uint64_t mixed = state;
        mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9U;
        mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111ebU;
        return mixed ^ (mixed >> 31);
    }

    std::uint64_t below(std::uint64_t limit) { return next() % limit; }

private:
    std::uint64_t state;
};

/// FNV-1a: the seed of a file is its name and the revision that wrote it.
std::uint64_t seedOf(const std::string& name, unsigned revision)
{
    std::uint64_t hash = 0xcbf29ce484222325U;
    for (const char character : name + '#' + std::to_string(revision))
        hash = (hash ^ static_cast<unsigned char>(character)) * 0x100000001b3U;
    return hash;
}

/// A slow random walk: neighbouring heights are close, so it compresses like real terrain.
void fillTerrain(std::string& bytes, std::size_t from, std::size_t count, Random random)
{
    int height = static_cast<int>(random.below(2000));
    for (std::size_t at = from; at + 1 < from + count; at += 2) {
        if (at % 16 == 0)
            height += static_cast<int>(random.below(7)) - 3;
        bytes[at] = static_cast<char>(height & 0xff);
        bytes[at + 1] = static_cast<char>((height >> 8) & 0xff);
    }
}

void fillTexture(std::string& bytes, std::size_t from, std::size_t count, Random random)
{
    for (std::size_t at = from; at < from + count; ++at)
        bytes[at] = static_cast<char>(random.below(96) + 64);
}

void fillSound(std::string& bytes, std::size_t from, std::size_t count, Random random)
{
    // A triangle wave with noise in the low bits; integers only, so every machine agrees.
    const std::size_t period = 100 + random.below(300);
    for (std::size_t at = from; at + 1 < from + count; at += 2) {
        const auto phase = static_cast<int>((at / 2) % period * 2000 / period);
        const int sample =
            (phase < 1000 ? phase : 2000 - phase) * 24 - 12000 + static_cast<int>(random.below(16));
        bytes[at] = static_cast<char>(sample & 0xff);
        bytes[at + 1] = static_cast<char>((sample >> 8) & 0xff);
    }
}

void writeFile(const fs::path& path, const std::string& bytes)
{
    fs::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file) {
        const std::u8string name = path.u8string();
        throw std::system_error(std::make_error_code(std::errc::io_error),
                                std::string(name.begin(), name.end()));
    }
}

using Fill = void (*)(std::string&, std::size_t, std::size_t, Random);

void writeBlob(const fs::path& folder, const std::string& name, std::size_t size, Fill fill,
               unsigned revision)
{
    std::string bytes(size, '\0');
    fill(bytes, 0, size, Random(seedOf(name, 0)));
    for (unsigned edit = 1; edit <= revision; ++edit) {
        Random random(seedOf(name, edit));
        if (random.below(4) == 0)
            fill(bytes, random.below((size - editSize) / 16) * 16, editSize, random);
    }
    writeFile(folder / name, bytes);
}

void writeAirport(const fs::path& folder, unsigned number, unsigned revision)
{
    const std::string name = "data/airports/airport_" + std::to_string(1000 + number) + ".txt";
    Random random(seedOf(name, 0));
    std::string text = "Аэродром " + std::to_string(1000 + number) + '\n';
    for (std::uint64_t runways = 1 + random.below(3); runways > 0; --runways)
        text += "ВПП " + std::to_string(1 + random.below(36)) + ", длина " +
                std::to_string(1200 + random.below(2800)) + " м\n";
    for (unsigned edit = 1; edit <= revision; ++edit) {
        if (Random(seedOf(name, edit)).below(8) == 0)
            text += "Изменение " + std::to_string(edit) + ": частота круга уточнена\n";
    }
    writeFile(folder / name, text);
}

} // namespace

void writeReleaseData(const fs::path& folder, unsigned revision)
{
    for (int tile = 0; tile < 24; ++tile)
        writeBlob(folder, "data/terrain/tile_" + std::to_string(100 + tile) + ".hgt", mebibyte,
                  fillTerrain, revision);
    for (int texture = 0; texture < 12; ++texture)
        writeBlob(folder, "data/textures/texture_" + std::to_string(10 + texture) + ".tex",
                  2 * mebibyte, fillTexture, revision);
    for (unsigned sound = 0; sound < 6 + revision; ++sound)
        writeBlob(folder, "data/sounds/engine_" + std::to_string(sound) + ".pcm", 3 * mebibyte / 2,
                  fillSound, revision);
    for (unsigned airport = 0; airport < 300 + 20 * revision; ++airport)
        writeAirport(folder, airport, revision);
    writeFile(folder / fs::path(u8"data/maps/Карта района.txt"),
              "Учебный район. Издание " + std::to_string(revision + 1) + ".\n");
    writeFile(folder / "data/maps/no-fly-zones.txt", {});
}
