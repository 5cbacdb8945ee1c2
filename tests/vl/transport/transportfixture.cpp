#include "tests/vl/transport/transportfixture.h"

#include "vl/src/platform/file.h"

#include <random>
#include <stdexcept>

TransportFixture::TransportFixture()
    : m_folder(vl::fromUtf8(m_directory.filePath(QStringLiteral("repository")).toStdString())),
      m_root(vl::fromUtf8(m_directory.filePath(QStringLiteral("root")).toStdString()))
{
    std::filesystem::create_directories(m_folder);
    std::filesystem::create_directories(m_root);
    m_server = std::make_unique<testsupport::HttpServer>(m_folder);
}

void TransportFixture::write(const std::string& path, const std::string& text) const
{
    const std::filesystem::path file = m_folder / vl::fromUtf8(path);
    if (!vl::makeDirectories(file.parent_path()) || !vl::writeWholeFile(file, text))
        throw std::runtime_error("the fixture cannot write");
}

std::unique_ptr<vl::Source> TransportFixture::open(const std::string& repository,
                                                   const vl::SourceOptions& options) const
{
    vl::Config config;
    config.repository = repository.empty() ? m_server->address() : repository;
    return vl::openSource(config, m_root, options).value();
}

vl::SourceOptions TransportFixture::impatient()
{
    return {.stallTimeout = std::chrono::seconds(2),
            .firstPause = std::chrono::milliseconds(1),
            .longestPause = std::chrono::milliseconds(5),
            .rangeRetries = 2};
}

std::string TransportFixture::noise(std::size_t size)
{
    std::mt19937 generator(1);
    std::string text(size, '\0');
    for (char& byte : text)
        byte = static_cast<char>(generator());
    return text;
}
