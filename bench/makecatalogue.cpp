// Makes an update library's root that knows many versions: vl.json and, in releases/, a signed
// catalogue with 2 KB of changelog for each version. There are no packs: nothing is installed.
//   bench_makecatalogue COUNT ROOT
#include "vl/src/formats/catalogue.h"
#include "vl/src/formats/hash.h"
#include "vl/src/formats/minisign.h"

#include <nlohmann/json.hpp>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

namespace {

using nlohmann::json;

void write(const std::filesystem::path& path, const std::string& text)
{
    std::ofstream file(path, std::ios::binary);
    file << text;
    if (!file.flush()) {
        std::cerr << "cannot write " << path << '\n';
        std::exit(1);
    }
}

/// About 2 KB as UTF-8: twelve Russian sentences.
json changelog(int number)
{
    json entries = json::array();
    for (int i = 0; i < 4; ++i)
        entries.push_back("Исправлена ошибка " + std::to_string(number * 4 + i) +
                          ", из-за которой показания приборов обновлялись с задержкой после "
                          "смены погоды");
    return {{"features", entries}, {"changes", entries}, {"fixes", entries}};
}

/// One version in twenty is special: it has a name, and a key that sorts last.
void addVersion(vl::Catalogue& catalogue, int number)
{
    const bool special = number % 20 == 19;
    const std::string key = (special ? "999." : "1.") + std::to_string(number / 100) + '.' +
                            std::to_string(number % 100);
    json version = {{"date", "2024-06-07"}, {"changelog", changelog(number)}};
    if (special)
        version["name"] = "Учебная " + std::to_string(number);
    const vl::Hash hash = vl::hashOf(key);
    version["manifest"] = {{"size", 1000}, {"hash", vl::toHex(hash)}};
    catalogue.versions[key] = version;
    catalogue.manifests[key] = {.size = 1000, .hash = hash};
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "usage: bench_makecatalogue COUNT ROOT\n";
        return 1;
    }
    const std::filesystem::path root = argv[2];
    std::filesystem::create_directories(root / "releases");

    vl::Catalogue catalogue;
    catalogue.repositoryId = "bench";
    catalogue.serial = 1;
    catalogue.date = "2024-06-07";
    for (int number = 0; number < std::atoi(argv[1]); ++number)
        addVersion(catalogue, number);

    const auto keys = vl::generateKeyPair();
    if (!keys) {
        std::cerr << keys.error().message << '\n';
        return 1;
    }
    const std::string text = vl::writeCatalogue(catalogue);
    write(root / "releases/catalogue.json", text);
    write(root / "releases/catalogue.json.minisig", vl::sign(text, keys->secretKey, "bench"));
    write(root / "vl.json",
          json{{"repository", "releases"}, {"publicKeys", {vl::writePublicKey(keys->publicKey)}}}
              .dump());
    return 0;
}
