#pragma once

#include "tests/support/httpserver.h"
#include "vl/src/transport/source.h"

#include <QTemporaryDir>

/// A repository folder, the misbehaving server in front of it and a root beside it.
class TransportFixture
{
public:
    TransportFixture();

    std::filesystem::path folder() const { return m_folder; }
    std::filesystem::path root() const { return m_root; }
    testsupport::HttpServer& server() { return *m_server; }

    void write(const std::string& path, const std::string& text) const;
    /// A source for `repository`; empty: the server.
    std::unique_ptr<vl::Source> open(const std::string& repository = {},
                                     const vl::SourceOptions& options = impatient()) const;

    /// Pauses of a few milliseconds, two retries.
    static vl::SourceOptions impatient();
    /// `size` bytes without a pattern, the same in every run.
    static std::string noise(std::size_t size);

private:
    QTemporaryDir m_directory;
    std::filesystem::path m_folder;
    std::filesystem::path m_root;
    std::unique_ptr<testsupport::HttpServer> m_server;
};

/// An operation with a log of its own.
struct LoggedOperation
{
    vl::Operation& operator*() { return operation; }

    vl::Log log;
    vl::Operation operation{log};
};
