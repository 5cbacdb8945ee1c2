#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace testsupport {

/// How the server misbehaves on one path. The fields combine; those left alone change nothing.
struct Misbehaviour
{
    int skip = 0;   ///< requests answered well before it begins
    int times = -1; ///< requests it then lasts for; -1: for ever

    int status = 0;                    ///< this status and a short text in place of the file
    std::optional<int> retryAfter{};   ///< seconds, the Retry-After header
    std::string redirectTo{};          ///< a 302 to this address or path
    std::optional<std::string> body{}; ///< 200 with this text in place of the file, no ranges
    std::string contentType{};
    std::string contentEncoding{};
    std::string etag{}; ///< in place of the file's own, in quotes as it is to be sent

    bool ignoreRange = false;       ///< 200 and the whole file for a Range request
    bool wrongContentRange = false; ///< 206 that names bytes one further on
    std::int64_t lengthError = 0;   ///< added to the Content-Length, the body stays right
    std::int64_t totalError = 0;    ///< added to the size of the file that headers tell
    bool untoldLength = false;      ///< no Content-Length: the end of the connection ends the body
    std::int64_t bodyError = 0;     ///< bytes the body has too many (zeros) or too few
    bool endless = false;           ///< zeros behind the file until the client hangs up
    std::optional<std::uint64_t> flipByteAt{}; ///< offset in the file of a byte sent wrong

    std::optional<std::uint64_t> cutAfter{};   ///< hang up after so many body bytes
    std::optional<std::uint64_t> stallAfter{}; ///< nothing more after so many body bytes
    std::chrono::milliseconds delay{0};        ///< before the answer
};

/// A small HTTP/1.1 server on 127.0.0.1 and a free port: serves a folder with Range, If-Range and
/// keep-alive, misbehaves as told, and counts. Every function may be called from any thread.
class HttpServer final
{
public:
    /// Starts to serve `folder`.
    explicit HttpServer(std::filesystem::path folder);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// "http://127.0.0.1:PORT"
    std::string address() const;
    /// Ends every connection and serves no more. The port refuses connections from then on.
    void stop();

    /// Replaces what was set for `path` ("/catalogue.json"; "*": every path without its own).
    void misbehave(const std::string& path, Misbehaviour misbehaviour);
    /// Serves everything well again; the counters start anew.
    void reset();
    /// Lets transfers that stall, now or later, go on.
    void release();

    /// Requests for `path` that were read whole; an empty path: all.
    int requests(const std::string& path = {}) const;
    /// Body bytes sent for `path`; an empty path: all.
    std::uint64_t bytesSent(const std::string& path = {}) const;
    /// The header lines of the latest request for `path`, names in lower case.
    std::map<std::string, std::string> lastHeaders(const std::string& path) const;
    /// Connections accepted.
    int connections() const { return m_connectionCount; }

    /// Waits until `count` requests for `path` were read. False after `timeout`.
    bool waitForRequests(const std::string& path, int count,
                         std::chrono::milliseconds timeout = std::chrono::seconds(20)) const;
    /// Waits until a transfer stalls. False after `timeout`.
    bool waitForStall(std::chrono::milliseconds timeout = std::chrono::seconds(20)) const;

private:
    struct Request;
    struct Answer;
    struct Counts
    {
        int requests = 0;
        std::uint64_t bytes = 0;
        std::map<std::string, std::string> headers;
    };
    struct Connection
    {
        int socket = -1;
        std::thread thread;
    };

    void acceptConnections();
    void serve(int socket);
    std::optional<Request> readRequest(int socket, std::string& buffer) const;
    Misbehaviour count(const Request& request);
    bool answer(int socket, const Request& request, const Misbehaviour& fault);
    bool sendBody(int socket, const Request& request, const Answer& answer,
                  const Misbehaviour& fault);
    bool sendCounted(int socket, const std::string& path, const char* bytes, std::size_t size);
    /// False when the client hung up meanwhile.
    bool stall(int socket);

    std::filesystem::path m_folder;
    int m_listener = -1;
    std::uint16_t m_port = 0;
    std::atomic<bool> m_stopping{false};
    std::atomic<int> m_connectionCount{0};
    std::thread m_acceptor;

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::list<Connection> m_connections;
    std::map<std::string, Misbehaviour> m_faults;
    std::map<std::string, Counts> m_counts;
    int m_stalled = 0;
    bool m_released = false;
};

} // namespace testsupport
