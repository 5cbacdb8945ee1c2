#include "tools/sample-simulator/releasedata.h"
#include "tools/utf8terminal.h"

#include <CLI/CLI.hpp>

#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>

namespace fs = std::filesystem;

namespace {

const char* const defaultSettings = R"(; Настройки учебного симулятора
[window]
width=880
height=560

[stick]
invertPitch=false
)";

fs::path utf8Path(const std::string& text)
{
    return {std::u8string(text.begin(), text.end())};
}

} // namespace

int main(int argc, char* argv[])
{
    CLI::App app("Makes the folder of one release of the sample simulator, ready for vl-publish.");
    app.allow_windows_style_options(false); // a path may begin with a slash
    std::string folder;
    std::string version;
    std::string simulator;
    unsigned revision = 0;
    app.add_option("FOLDER", folder, "Folder to make (anything in it is replaced)")->required();
    app.add_option("VERSION", version, "Version text that the simulator shows")->required();
    app.add_option("--simulator", simulator, "The sample-simulator program to pack")->required();
    app.add_option("--revision", revision, "State of the data: 0, 1, 2, ...")
        ->check(CLI::Range(0U, 100U));
    try {
        app.parse(utf8Arguments(argc, argv));
    } catch (const CLI::ParseError& error) {
        return app.exit(error);
    }

    try {
        const fs::path root = utf8Path(folder);
        fs::remove_all(root);
        fs::create_directories(root / "bin");
        const fs::path program = utf8Path(simulator);
        fs::copy_file(program, root / "bin" / program.filename());
        std::ofstream(root / "version.txt", std::ios::binary) << version << '\n';
        std::ofstream(root / "settings.ini", std::ios::binary) << defaultSettings;
        writeReleaseData(root, revision);
    } catch (const std::exception& error) {
        std::cerr << "make-sample-release: " << folder << ": " << error.what() << '\n';
        return 1;
    }
    return 0;
}
