#include "tests/support/httpserver.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <stdexcept>
#include <utility>
#include <vector>

namespace testsupport {

namespace {

constexpr std::size_t pieceSize = 256U << 10U;

std::string lowerCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool sendAll(int socket, const char* bytes, std::size_t size)
{
    while (size > 0) {
        const ssize_t sent = ::send(socket, bytes, size, MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        bytes += sent;
        size -= static_cast<std::size_t>(sent);
    }
    return true;
}

const char* reason(int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 206:
        return "Partial Content";
    case 302:
        return "Found";
    case 404:
        return "Not Found";
    case 416:
        return "Range Not Satisfiable";
    default:
        return "Scripted";
    }
}

} // namespace

struct HttpServer::Request
{
    std::string path;
    std::map<std::string, std::string> headers;
};

/// The file's bytes from `first` up to `end`, then `zeros` further ones.
struct HttpServer::Answer
{
    int file = -1;
    std::uint64_t first = 0;
    std::uint64_t end = 0;
    std::uint64_t zeros = 0;
    bool keepAlive = true;
};

HttpServer::HttpServer(std::filesystem::path folder) : m_folder(std::move(folder))
{
    m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(name);
    if (m_listener < 0 || ::bind(m_listener, reinterpret_cast<sockaddr*>(&name), length) != 0 ||
        ::listen(m_listener, 64) != 0 ||
        ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&name), &length) != 0)
        throw std::runtime_error("the test server cannot listen");
    m_port = ntohs(name.sin_port);
    m_acceptor = std::thread([this] { acceptConnections(); });
}

HttpServer::~HttpServer()
{
    stop();
}

std::string HttpServer::address() const
{
    return "http://127.0.0.1:" + std::to_string(m_port);
}

void HttpServer::stop()
{
    if (m_stopping.exchange(true))
        return;
    ::shutdown(m_listener, SHUT_RDWR);
    m_acceptor.join();
    ::close(m_listener);
    std::list<Connection> connections;
    {
        const std::lock_guard lock(m_mutex);
        for (const Connection& connection : m_connections)
            ::shutdown(connection.socket, SHUT_RDWR);
        connections.swap(m_connections);
    }
    m_changed.notify_all();
    for (Connection& connection : connections) {
        connection.thread.join();
        ::close(connection.socket);
    }
}

void HttpServer::misbehave(const std::string& path, Misbehaviour misbehaviour)
{
    const std::lock_guard lock(m_mutex);
    m_faults[path] = std::move(misbehaviour);
}

void HttpServer::reset()
{
    const std::lock_guard lock(m_mutex);
    m_faults.clear();
    m_counts.clear();
    m_released = false;
}

void HttpServer::release()
{
    const std::lock_guard lock(m_mutex);
    m_released = true;
    m_changed.notify_all();
}

int HttpServer::requests(const std::string& path) const
{
    const std::lock_guard lock(m_mutex);
    int sum = 0;
    for (const auto& [name, counts] : m_counts)
        sum += path.empty() || path == name ? counts.requests : 0;
    return sum;
}

std::uint64_t HttpServer::bytesSent(const std::string& path) const
{
    const std::lock_guard lock(m_mutex);
    std::uint64_t sum = 0;
    for (const auto& [name, counts] : m_counts)
        sum += path.empty() || path == name ? counts.bytes : 0;
    return sum;
}

std::map<std::string, std::string> HttpServer::lastHeaders(const std::string& path) const
{
    const std::lock_guard lock(m_mutex);
    const auto found = m_counts.find(path);
    return found == m_counts.end() ? std::map<std::string, std::string>() : found->second.headers;
}

bool HttpServer::waitForRequests(const std::string& path, int count,
                                 std::chrono::milliseconds timeout) const
{
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [&] {
        const auto found = m_counts.find(path);
        return found != m_counts.end() && found->second.requests >= count;
    });
}

bool HttpServer::waitForStall(std::chrono::milliseconds timeout) const
{
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [this] { return m_stalled > 0; });
}

void HttpServer::acceptConnections()
{
    while (!m_stopping) {
        const int socket = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0)
            continue;
        const int on = 1;
        ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        ++m_connectionCount;
        const std::lock_guard lock(m_mutex);
        // Sockets are closed only in stop(): a number that is used again would be shut down there.
        m_connections.push_back({socket, std::thread([this, socket] { serve(socket); })});
    }
}

void HttpServer::serve(int socket)
{
    std::string buffer;
    while (!m_stopping) {
        const std::optional<Request> request = readRequest(socket, buffer);
        if (!request)
            break;
        const Misbehaviour fault = count(*request);
        if (fault.delay.count() > 0) {
            std::unique_lock lock(m_mutex);
            m_changed.wait_for(lock, fault.delay, [this] { return m_stopping.load(); });
        }
        if (!answer(socket, *request, fault))
            break;
    }
    ::shutdown(socket, SHUT_RDWR);
}

std::optional<HttpServer::Request> HttpServer::readRequest(int socket, std::string& buffer) const
{
    std::size_t end = 0;
    while ((end = buffer.find("\r\n\r\n")) == std::string::npos) {
        std::array<char, 4096> bytes{};
        const ssize_t got = ::recv(socket, bytes.data(), bytes.size(), 0);
        if (got <= 0 || buffer.size() > (64U << 10U))
            return std::nullopt;
        buffer.append(bytes.data(), static_cast<std::size_t>(got));
    }
    Request request;
    std::size_t start = buffer.find("\r\n") + 2;
    const std::string first = buffer.substr(0, start - 2);
    const std::size_t space = first.find(' ');
    request.path = first.substr(space + 1, first.rfind(' ') - space - 1);
    while (start < end + 2) {
        const std::size_t lineEnd = buffer.find("\r\n", start);
        const std::size_t colon = buffer.find(':', start);
        if (colon < lineEnd) {
            std::size_t value = colon + 1;
            while (value < lineEnd && buffer[value] == ' ')
                ++value;
            request.headers[lowerCase(buffer.substr(start, colon - start))] =
                buffer.substr(value, lineEnd - value);
        }
        start = lineEnd + 2;
    }
    buffer.erase(0, end + 4);
    return request;
}

Misbehaviour HttpServer::count(const Request& request)
{
    const std::lock_guard lock(m_mutex);
    Counts& counts = m_counts[request.path];
    ++counts.requests;
    counts.headers = request.headers;
    m_changed.notify_all();

    auto found = m_faults.find(request.path);
    if (found == m_faults.end())
        found = m_faults.find("*");
    if (found == m_faults.end())
        return {};
    Misbehaviour& fault = found->second;
    if (fault.skip > 0) {
        --fault.skip;
        return {};
    }
    if (fault.times == 0)
        return {};
    fault.times -= fault.times > 0 ? 1 : 0;
    return fault;
}

bool HttpServer::answer(int socket, const Request& request, const Misbehaviour& fault)
{
    Answer answer;
    const std::filesystem::path path = m_folder / request.path.substr(1);
    const auto closeFile = [&answer] {
        if (answer.file >= 0)
            ::close(answer.file);
    };
    answer.file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status = {};
    const bool exists =
        answer.file >= 0 && ::fstat(answer.file, &status) == 0 && S_ISREG(status.st_mode);

    int code = exists ? 200 : 404;
    std::string text = fault.body.value_or("no such file\n");
    if (fault.body)
        code = 200;
    if (!fault.redirectTo.empty())
        code = 302;
    if (fault.status != 0) {
        code = fault.status;
        text = "scripted answer\n";
    }

    std::string headers;
    std::uint64_t length = 0;
    if (code == 200 && !fault.body) {
        const auto size = static_cast<std::uint64_t>(status.st_size);
        const std::uint64_t told = size + static_cast<std::uint64_t>(fault.totalError);
        const std::string etag = fault.etag.empty() ? '"' + std::to_string(size) + '-' +
                                                          std::to_string(status.st_mtime) + '"'
                                                    : fault.etag;
        headers += "ETag: " + etag + "\r\nAccept-Ranges: bytes\r\n";
        answer.end = size;
        unsigned long long first = 0;
        unsigned long long last = size == 0 ? 0 : size - 1;
        const auto range = request.headers.find("range");
        const auto ifRange = request.headers.find("if-range");
        const bool ranged =
            range != request.headers.end() && !fault.ignoreRange &&
            (ifRange == request.headers.end() || ifRange->second == etag) &&
            std::sscanf(range->second.c_str(), "bytes=%llu-%llu", &first, &last) >= 1;
        if (ranged && first >= size) {
            code = 416;
            answer.end = 0;
            headers += "Content-Range: bytes */" + std::to_string(told) + "\r\n";
        } else if (ranged) {
            code = 206;
            answer.first = first;
            answer.end = std::min<std::uint64_t>(last + 1, size);
            const std::uint64_t shift = fault.wrongContentRange ? 1 : 0;
            headers += "Content-Range: bytes " + std::to_string(answer.first + shift) + '-' +
                       std::to_string(answer.end - 1 + shift) + '/' + std::to_string(told) + "\r\n";
        }
        length = answer.end - answer.first;
        if (code == 200)
            length += static_cast<std::uint64_t>(fault.totalError);
        if (fault.bodyError < 0)
            answer.end -= static_cast<std::uint64_t>(-fault.bodyError);
        else
            answer.zeros = static_cast<std::uint64_t>(fault.bodyError);
        text.clear();
    } else {
        length = text.size();
    }
    if (!fault.redirectTo.empty())
        headers += "Location: " + fault.redirectTo + "\r\n";
    if (!fault.contentType.empty())
        headers += "Content-Type: " + fault.contentType + "\r\n";
    if (!fault.contentEncoding.empty())
        headers += "Content-Encoding: " + fault.contentEncoding + "\r\n";
    if (fault.retryAfter)
        headers += "Retry-After: " + std::to_string(*fault.retryAfter) + "\r\n";
    if (fault.untoldLength || fault.endless) {
        headers += "Connection: close\r\n";
        answer.keepAlive = false;
    } else {
        length += static_cast<std::uint64_t>(fault.lengthError);
        headers += "Content-Length: " + std::to_string(length) + "\r\n";
        answer.keepAlive = fault.lengthError == 0 && fault.bodyError == 0 && fault.totalError == 0;
    }
    const std::string head =
        "HTTP/1.1 " + std::to_string(code) + ' ' + reason(code) + "\r\n" + headers + "\r\n";
    bool goesOn = sendAll(socket, head.data(), head.size());
    if (goesOn && !text.empty())
        goesOn = sendCounted(socket, request.path, text.data(), text.size());
    else if (goesOn)
        goesOn = sendBody(socket, request, answer, fault);
    closeFile();
    return goesOn && answer.keepAlive;
}

bool HttpServer::sendBody(int socket, const Request& request, const Answer& answer,
                          const Misbehaviour& fault)
{
    const std::uint64_t fileBytes = answer.end - answer.first;
    const std::uint64_t total = fault.endless ? UINT64_MAX : fileBytes + answer.zeros;
    std::vector<char> piece(pieceSize);
    std::uint64_t sent = 0;
    while (sent < total) {
        std::uint64_t size = std::min<std::uint64_t>(piece.size(), total - sent);
        if (fault.stallAfter && sent == *fault.stallAfter && !stall(socket))
            return false;
        if (fault.stallAfter && sent < *fault.stallAfter)
            size = std::min(size, *fault.stallAfter - sent);
        if (fault.cutAfter) {
            size = std::min(size, *fault.cutAfter - sent);
            if (size == 0)
                return false;
        }
        if (sent < fileBytes) {
            size = std::min(size, fileBytes - sent);
            const std::uint64_t offset = answer.first + sent;
            if (::pread(answer.file, piece.data(), static_cast<std::size_t>(size),
                        static_cast<off_t>(offset)) != static_cast<ssize_t>(size))
                return false;
            if (fault.flipByteAt && *fault.flipByteAt >= offset &&
                *fault.flipByteAt < offset + size) {
                char& byte = piece[static_cast<std::size_t>(*fault.flipByteAt - offset)];
                byte = static_cast<char>(byte ^ 1);
            }
        } else {
            std::fill(piece.begin(), piece.end(), '\0');
        }
        if (m_stopping ||
            !sendCounted(socket, request.path, piece.data(), static_cast<std::size_t>(size)))
            return false;
        sent += size;
    }
    return true;
}

bool HttpServer::sendCounted(int socket, const std::string& path, const char* bytes,
                             std::size_t size)
{
    if (!sendAll(socket, bytes, size))
        return false;
    const std::lock_guard lock(m_mutex);
    m_counts[path].bytes += size;
    return true;
}

bool HttpServer::stall(int socket)
{
    std::unique_lock lock(m_mutex);
    ++m_stalled;
    m_changed.notify_all();
    bool hungUp = false;
    while (!m_stopping && !m_released && !hungUp) {
        lock.unlock();
        // A client that hung up frees the thread.
        pollfd watched{socket, POLLRDHUP, 0};
        hungUp = ::poll(&watched, 1, 0) > 0;
        lock.lock();
        m_changed.wait_for(lock, std::chrono::milliseconds(20));
    }
    --m_stalled;
    return !hungUp;
}

} // namespace testsupport
