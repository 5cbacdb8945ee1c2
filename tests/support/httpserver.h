#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace testsupport {

#if defined(_WIN32)
using Socket = std::uintptr_t;
#else
using Socket = int;
#endif

/// How the server misbehaves on one path. The fields combine; those left alone change nothing.
struct Misbehaviour
{
    int skip = 0;   ///< requests answered well before it begins
    int times = -1; ///< requests it then lasts for; -1: for ever

    std::chrono::milliseconds delay{0}; ///< before the answer
    int status = 0;                     ///< this status and a short text in place of the file
    std::string redirectTo{};           ///< a 302 to this address or path
    std::optional<std::string> body{};  ///< 200 with this text in place of the file, no ranges
    std::string contentType{};
    std::string headers{};                  ///< further header lines, each with its line end
    std::optional<std::string> rawAnswer{}; ///< these bytes in place of any answer, then hang up

    bool ignoreRange = false;                  ///< 200 and the whole file for a Range request
    std::optional<std::string> contentRange{}; ///< told in place of the right one; empty: none
    std::string entityTag{};                   ///< told and compared in place of the right one
    std::int64_t lengthError = 0; ///< added to the Content-Length, the body stays right
    std::int64_t totalError = 0;  ///< added to the size of the file that headers tell
    std::int64_t bodyError = 0;   ///< bytes the body has too many (zeros) or too few
    bool endless = false;         ///< no length, and zeros behind the file for ever
    bool chunked = false;         ///< no length, the body comes in chunks
    std::optional<std::uint64_t> flipByteAt{}; ///< offset in the file of a byte sent wrong

    std::optional<std::uint64_t> cutAfter{};   ///< hang up after so many body bytes
    std::optional<std::uint64_t> stallAfter{}; ///< nothing more after so many body bytes
    std::uint64_t trickle = 0;                 ///< so many body bytes every tenth of a second
    bool closes = false;                       ///< hangs up behind the answer, unannounced
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
    /// Ends every connection; the port refuses connections from then on.
    void stop();

    /// Replaces what was set for `path` ("/catalogue.json"; "*": every path without its own).
    void misbehave(const std::string& path, Misbehaviour misbehaviour);
    /// Serves everything well again, transfers that stall go on, the counters start anew.
    void reset();

    /// Requests for `path` that were read whole; an empty path: all.
    int requests(const std::string& path = {}) const { return counted(path).requests; }
    /// Body bytes sent for `path`; an empty path: all.
    std::uint64_t bytesSent(const std::string& path = {}) const { return counted(path).bytes; }

private:
    struct Request;
    struct Answer;
    struct Counts
    {
        int requests = 0;
        std::uint64_t bytes = 0;
    };

    void acceptConnections();
    void serve(Socket socket);
    Counts counted(const std::string& path) const;
    Misbehaviour count(const std::string& path);
    Answer answerFor(const Request& request, const Misbehaviour& fault) const;
    bool sendBody(Socket socket, const std::string& path, const Answer& answer,
                  const Misbehaviour& fault);
    void countSent(const std::string& path, std::uint64_t bytes);
    /// False when the client hung up meanwhile.
    bool stall(Socket socket);

    std::filesystem::path m_folder;
    Socket m_listener = static_cast<Socket>(-1);
    std::uint16_t m_port = 0;
    std::atomic<bool> m_stopping{false};
    std::thread m_acceptor;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::pair<Socket, std::thread>> m_connections;
    std::map<std::string, Misbehaviour> m_faults;
    std::map<std::string, Counts> m_counts;
    int m_resets = 0;
};

} // namespace testsupport
