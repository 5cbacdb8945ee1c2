// Makes the folders that the benchmarks work on. Equal arguments give equal bytes.
//   bench_maketree release FOLDER   a release of 1 GiB: 3,000 small files, 40 of some MB, 2 large
//   bench_maketree sample FOLDER    a release of a few small files
//   bench_maketree edit FOLDER      turns that release into the next one, by scattered edits
//   bench_maketree tiny FOLDER      a release of 20,000 files of 0 to 3,000 bytes
//   bench_maketree many FOLDER      100,000 small files in 1,000 folders
//   bench_maketree large FOLDER     a release of 2 GiB: 120 files of 16 MiB and 2,000 small ones
//   bench_maketree patch FOLDER     turns that into the next one: five small files and one of 16
//   MiB
#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t mebibyte = 1U << 20U;

/// The bytes of a simulator's data, about half of them compressible: noise between pieces of text.
class Content final
{
public:
    void write(const fs::path& path, std::uint64_t size)
    {
        fs::create_directories(path.parent_path());
        std::ofstream file(path, std::ios::binary);
        while (size > 0) {
            const std::uint64_t piece = std::min<std::uint64_t>(size, m_block.size());
            fillBlock();
            file.write(m_block.data(), static_cast<std::streamsize>(piece));
            size -= piece;
        }
        file.close();
        if (!file)
            throw std::runtime_error("cannot write " + path.string());
    }
    std::uint64_t number(std::uint64_t low, std::uint64_t high)
    {
        return low + m_random() % (high - low + 1);
    }
    /// At most a block's worth of bytes.
    std::string_view piece(std::uint64_t most)
    {
        fillBlock();
        return std::string_view(m_block.data(), number(1, std::min(most, m_block.size())));
    }

private:
    void fillBlock()
    {
        static constexpr std::array<std::string_view, 8> words = {
            "aileron ", "rudder ", "throttle ", "altitude ",
            "0.0 ",     "1.25 ",   "vertex\n",  "normal\n"};
        std::size_t at = 0;
        if (m_random() % 2 == 0) {
            for (; at < m_block.size(); at += sizeof(std::uint64_t)) {
                const std::uint64_t noise = m_random();
                std::copy_n(reinterpret_cast<const char*>(&noise), sizeof(noise), &m_block[at]);
            }
            return;
        }
        while (at < m_block.size()) {
            const std::string_view word = words[m_random() % words.size()];
            at += word.copy(&m_block[at], m_block.size() - at);
        }
    }

    std::mt19937_64 m_random{20240607};
    std::array<char, 8192> m_block{};
};

void makeRelease(const fs::path& folder)
{
    Content content;
    std::uint64_t left = 1024 * mebibyte;
    const auto add = [&](const std::string& name, std::uint64_t size) {
        content.write(folder / name, size);
        left -= size;
    };
    for (int i = 0; i < 3000; ++i)
        add("data/" + std::to_string(i / 100) + "/object" + std::to_string(i) + ".dat",
            content.number(0, 100U << 10U));
    for (int i = 0; i < 40; ++i)
        add("terrain/tile" + std::to_string(i) + ".bin", content.number(2, 12) * mebibyte + 1);
    add("models/fleet.pak", left / 2);
    add("models/airports.pak", left);
}

void makeSample(const fs::path& folder)
{
    Content content;
    content.write(folder / "simulator", 20000);
    content.write(folder / "data/world.dat", mebibyte);
}

/// Overwrites pieces at random places, and inserts others, which moves all that follows them.
void scatterEdits(Content& content, const fs::path& path, int overwritten, int inserted)
{
    std::ifstream old(path, std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(old), {}};
    for (int i = 0; i < overwritten; ++i) {
        const std::string_view piece = content.piece(8192);
        piece.copy(&bytes[content.number(0, bytes.size() - piece.size())], piece.size());
    }
    std::vector<std::size_t> places;
    for (int i = 0; i < inserted; ++i)
        places.push_back(content.number(0, bytes.size()));
    std::sort(places.begin(), places.end());
    std::ofstream file(path, std::ios::binary);
    std::size_t at = 0;
    for (const std::size_t place : places) {
        file << std::string_view(bytes).substr(at, place - at) << content.piece(2048);
        at = place;
    }
    file << std::string_view(bytes).substr(at);
    file.close();
    if (!file)
        throw std::runtime_error("cannot write " + path.string());
}

void editRelease(const fs::path& folder)
{
    Content content;
    content.piece(1); // not the release's own bytes again
    const auto object = [&](int i) {
        return folder / "data" / std::to_string(i / 100) / ("object" + std::to_string(i) + ".dat");
    };
    for (int i = 0; i < 3000; i += 50)
        content.write(object(i), content.number(0, 100U << 10U));
    for (int i = 7; i < 3000; i += 300) {
        fs::remove(object(i));
        content.write(object(i + 10000), content.number(0, 100U << 10U));
    }
    for (int i = 0; i < 40; i += 4)
        scatterEdits(content, folder / "terrain" / ("tile" + std::to_string(i) + ".bin"), 10, 3);
    scatterEdits(content, folder / "models/fleet.pak", 300, 30);
    scatterEdits(content, folder / "models/airports.pak", 300, 30);
}

void makeTiny(const fs::path& folder)
{
    Content content;
    for (int i = 0; i < 20000; ++i)
        content.write(folder / std::to_string(i / 100) / (std::to_string(i) + ".dat"),
                      content.number(0, 3000));
}

void makeMany(const fs::path& folder)
{
    Content content;
    for (int i = 0; i < 100000; ++i)
        content.write(folder / std::to_string(i / 100) / (std::to_string(i) + ".dat"),
                      content.number(0, 200));
}

void makeLarge(const fs::path& folder)
{
    Content content;
    for (int i = 0; i < 120; ++i)
        content.write(folder / "terrain" / ("tile" + std::to_string(i) + ".bin"), 16 * mebibyte);
    for (int i = 0; i < 2000; ++i)
        content.write(folder / "data" / std::to_string(i / 100) / (std::to_string(i) + ".dat"),
                      content.number(0, 128U << 10U));
}

void patchLarge(const fs::path& folder)
{
    Content content;
    content.piece(1);
    for (int i = 0; i < 2000; i += 400)
        content.write(folder / "data" / std::to_string(i / 100) / (std::to_string(i) + ".dat"),
                      content.number(0, 128U << 10U));
    std::fstream tile(folder / "terrain/tile7.bin",
                      std::ios::in | std::ios::out | std::ios::binary);
    tile.seekp(5 * mebibyte);
    tile << content.piece(300);
    tile.close();
    if (!tile)
        throw std::runtime_error("cannot write terrain/tile7.bin");
}

} // namespace

int main(int argc, char** argv)
{
    static const std::map<std::string_view, void (*)(const fs::path&)> kinds = {
        {"release", makeRelease}, {"edit", editRelease}, {"sample", makeSample}, {"tiny", makeTiny},
        {"many", makeMany},       {"large", makeLarge},  {"patch", patchLarge},
    };
    const auto kind = argc == 3 ? kinds.find(argv[1]) : kinds.end();
    try {
        if (kind == kinds.end())
            throw std::runtime_error(
                "usage: bench_maketree release|edit|sample|tiny|many|large|patch FOLDER");
        kind->second(argv[2]);
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
    return 0;
}
