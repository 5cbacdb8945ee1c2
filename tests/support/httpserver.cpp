#include "tests/support/httpserver.h"

#if defined(_WIN32)
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace testsupport {

namespace {

constexpr std::uint64_t pieceSize = 256U << 10U;

constexpr Socket noSocket = static_cast<Socket>(-1);

#if defined(_WIN32)
constexpr int unsignalled = 0;
using Length = int;

Socket openSocket()
{
    static const int started = [] {
        WSADATA data;
        return WSAStartup(MAKEWORD(2, 2), &data);
    }();
    return started == 0 ? ::socket(AF_INET, SOCK_STREAM, 0) : noSocket;
}

void hangUp(Socket socket)
{
    ::shutdown(socket, SD_BOTH);
    CancelIoEx(reinterpret_cast<HANDLE>(socket), nullptr); // a receive() goes on waiting otherwise
}

void closeSocket(Socket socket)
{
    ::closesocket(socket);
}

Socket acceptOne(Socket listener)
{
    return ::accept(listener, nullptr, nullptr);
}

bool isReadable(Socket socket)
{
    WSAPOLLFD watched{socket, POLLIN, 0};
    return WSAPoll(&watched, 1, 0) > 0;
}
#else
constexpr int unsignalled = MSG_NOSIGNAL;
using Length = std::size_t;

Socket openSocket()
{
    return ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

void hangUp(Socket socket)
{
    ::shutdown(socket, SHUT_RDWR);
}

void closeSocket(Socket socket)
{
    ::close(socket);
}

Socket acceptOne(Socket listener)
{
    return ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
}

bool isReadable(Socket socket)
{
    pollfd watched{socket, POLLIN, 0};
    return ::poll(&watched, 1, 0) > 0;
}
#endif

sockaddr_in loopback(std::uint16_t port)
{
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    name.sin_port = htons(port);
    return name;
}

bool sendAll(Socket socket, const std::string& bytes)
{
    for (std::size_t done = 0; done < bytes.size();) {
        const auto sent = ::send(socket, bytes.data() + done,
                                 static_cast<Length>(bytes.size() - done), unsignalled);
        if (sent <= 0)
            return false;
        done += static_cast<std::size_t>(sent);
    }
    return true;
}

} // namespace

struct HttpServer::Request
{
    /// Takes the next request off `buffer`, reading what is missing. False when there is none.
    bool read(Socket socket, std::string& buffer)
    {
        std::size_t end = 0;
        while ((end = buffer.find("\r\n\r\n")) == std::string::npos) {
            std::array<char, 4096> bytes{};
            const auto got = ::recv(socket, bytes.data(), bytes.size(), 0);
            if (got <= 0)
                return false;
            buffer.append(bytes.data(), static_cast<std::size_t>(got));
        }
        const std::string head = buffer.substr(0, end + 2);
        buffer.erase(0, end + 4);
        const std::size_t space = head.find(' ') + 1;
        path = head.substr(space, head.find(' ', space) - space);
        range = header(head, "\r\nrange: ");
        ifRange = header(head, "\r\nif-range: ");
        return true;
    }

    std::string path;
    std::string range;
    std::string ifRange;

private:
    static std::string header(const std::string& head, const std::string& name)
    {
        const auto alike = [](unsigned char a, unsigned char b) { return std::tolower(a) == b; };
        const auto found = std::search(head.begin(), head.end(), name.begin(), name.end(), alike);
        if (found == head.end())
            return {};
        const auto value = found + static_cast<std::ptrdiff_t>(name.size());
        return {value, std::find(value, head.end(), '\r')};
    }
};

/// A head, then `text` or the file's bytes from `first` up to `end` and `zeros` further ones.
struct HttpServer::Answer
{
    std::string head;
    std::string text;
    std::filesystem::path file;
    std::uint64_t first = 0;
    std::uint64_t end = 0;
    std::uint64_t zeros = 0;
    bool keepAlive = true;
};

HttpServer::HttpServer(std::filesystem::path folder) : m_folder(std::move(folder))
{
    m_listener = openSocket();
    sockaddr_in name = loopback(0);
    socklen_t length = sizeof(name);
    if (m_listener == noSocket ||
        ::bind(m_listener, reinterpret_cast<sockaddr*>(&name), length) != 0 ||
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
    // Only a connection ends the waiting for one on every system.
    const Socket last = openSocket();
    const sockaddr_in name = loopback(m_port);
    ::connect(last, reinterpret_cast<const sockaddr*>(&name), sizeof(name));
    m_acceptor.join();
    closeSocket(m_listener);
    closeSocket(last);
    for (const auto& [socket, thread] : m_connections)
        hangUp(socket);
    for (auto& [socket, thread] : m_connections) {
        thread.join();
        closeSocket(socket);
    }
    m_connections.clear();
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
    ++m_resets;
    m_changed.notify_all();
}

HttpServer::Counts HttpServer::counted(const std::string& path) const
{
    const std::lock_guard lock(m_mutex);
    Counts sum;
    for (const auto& [name, counts] : m_counts) {
        sum.requests += path.empty() || path == name ? counts.requests : 0;
        sum.bytes += path.empty() || path == name ? counts.bytes : 0;
    }
    return sum;
}

void HttpServer::acceptConnections()
{
    while (!m_stopping) {
        const Socket socket = acceptOne(m_listener);
        if (socket == noSocket)
            continue;
        const int on = 1;
        ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on),
                     sizeof(on));
        // Sockets are closed only in stop(): a number that is used again would be shut down there.
        m_connections.emplace_back(socket, [this, socket] { serve(socket); });
    }
}

void HttpServer::serve(Socket socket)
{
    std::string buffer;
    Request request;
    while (!m_stopping && request.read(socket, buffer)) {
        const Misbehaviour fault = count(request.path);
        std::this_thread::sleep_for(fault.delay);
        const Answer answer = answerFor(request, fault);
        if (!sendAll(socket, answer.head) || !sendBody(socket, request.path, answer, fault) ||
            !answer.keepAlive || fault.closes)
            break;
    }
    hangUp(socket);
}

Misbehaviour HttpServer::count(const std::string& path)
{
    const std::lock_guard lock(m_mutex);
    ++m_counts[path].requests;
    auto found = m_faults.find(path);
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

HttpServer::Answer HttpServer::answerFor(const Request& request, const Misbehaviour& fault) const
{
    Answer answer;
    if (fault.rawAnswer) {
        answer.head = *fault.rawAnswer;
        answer.keepAlive = false;
        return answer;
    }
    answer.file = m_folder / request.path.substr(1);
    std::error_code error;
    const std::uint64_t size = std::filesystem::file_size(answer.file, error);
    int code = 200;
    if (fault.status != 0)
        code = fault.status;
    else if (!fault.redirectTo.empty())
        code = 302;
    else if (error && !fault.body)
        code = 404;
    std::string headers = fault.headers;
    const auto add = [&headers](const std::string& name, const std::string& value) {
        if (!value.empty())
            headers += name + ": " + value + "\r\n";
    };
    std::int64_t length = 0;
    if (code != 200 || fault.body) {
        answer.text = code == 200 ? *fault.body : "scripted answer\n";
        answer.end = answer.text.size();
        length = static_cast<std::int64_t>(answer.end);
    } else {
        const std::string told = std::to_string(static_cast<std::int64_t>(size) + fault.totalError);
        const auto age = std::filesystem::last_write_time(answer.file, error).time_since_epoch();
        const std::string etag = !fault.entityTag.empty() ? fault.entityTag
                                                          : '"' + std::to_string(size) + '-' +
                                                                std::to_string(age.count()) + '"';
        add("ETag", etag);
        unsigned long long first = 0;
        unsigned long long last = size == 0 ? 0 : size - 1;
        const bool ranged =
            !fault.ignoreRange && (request.ifRange.empty() || request.ifRange == etag) &&
            std::sscanf(request.range.c_str(), "bytes=%llu-%llu", &first, &last) >= 1 &&
            first < size;
        answer.end = size;
        if (ranged) {
            code = 206;
            answer.first = first;
            answer.end = std::min<std::uint64_t>(last + 1, size);
            add("Content-Range",
                fault.contentRange.value_or("bytes " + std::to_string(answer.first) + '-' +
                                            std::to_string(answer.end - 1) + '/' + told));
        }
        length = static_cast<std::int64_t>(answer.end - answer.first) + fault.lengthError +
                 (code == 200 ? fault.totalError : 0);
        answer.end -= static_cast<std::uint64_t>(-std::min<std::int64_t>(fault.bodyError, 0));
        answer.zeros = fault.endless
                           ? UINT64_MAX / 2
                           : static_cast<std::uint64_t>(std::max<std::int64_t>(fault.bodyError, 0));
    }
    answer.keepAlive =
        !fault.endless && fault.lengthError == 0 && fault.bodyError == 0 && fault.totalError == 0;
    add("Location", fault.redirectTo);
    add("Content-Type", fault.contentType);
    add("Connection", answer.keepAlive ? "" : "close");
    add("Content-Length", fault.endless || fault.chunked ? "" : std::to_string(length));
    add("Transfer-Encoding", fault.chunked ? "chunked" : "");
    answer.head = "HTTP/1.1 " + std::to_string(code) + " Scripted\r\n" + headers + "\r\n";
    return answer;
}

bool HttpServer::sendBody(Socket socket, const std::string& path, const Answer& answer,
                          const Misbehaviour& fault)
{
    const std::uint64_t fileBytes = answer.end - answer.first;
    std::istringstream text(answer.text);
    std::ifstream file(answer.file, std::ios::binary);
    std::istream& bytes = answer.text.empty() ? static_cast<std::istream&>(file) : text;
    bytes.seekg(static_cast<std::streamoff>(answer.first));
    const std::uint64_t total = fileBytes + answer.zeros;
    for (std::uint64_t sent = 0; sent < total;) {
        if (m_stopping || fault.cutAfter == sent || (fault.stallAfter == sent && !stall(socket)))
            return false;
        if (fault.trickle > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const std::uint64_t most = fault.trickle > 0 ? fault.trickle : pieceSize;
        std::uint64_t end = std::min(total, sent + most);
        for (const std::uint64_t border :
             {fileBytes, fault.cutAfter.value_or(end), fault.stallAfter.value_or(end)})
            end = border > sent ? std::min(end, border) : end;
        std::string piece(static_cast<std::size_t>(end - sent), '\0');
        if (sent < fileBytes &&
            !bytes.read(piece.data(), static_cast<std::streamsize>(piece.size())))
            return false;
        const std::uint64_t offset = answer.first + sent;
        if (fault.flipByteAt && *fault.flipByteAt >= offset &&
            *fault.flipByteAt < offset + piece.size()) {
            char& byte = piece[static_cast<std::size_t>(*fault.flipByteAt - offset)];
            byte = static_cast<char>(byte ^ 1);
        }
        if (fault.chunked) {
            std::ostringstream chunk;
            chunk << std::hex << piece.size() << "\r\n" << piece << "\r\n";
            piece = chunk.str();
        }
        // Before they can have arrived: a client that has them all may look at once.
        countSent(path, end - sent);
        if (!sendAll(socket, piece)) {
            countSent(path, sent - end);
            return false;
        }
        sent = end;
    }
    return !fault.chunked || sendAll(socket, "0\r\n\r\n");
}

void HttpServer::countSent(const std::string& path, std::uint64_t bytes)
{
    const std::lock_guard lock(m_mutex);
    m_counts[path].bytes += bytes;
}

bool HttpServer::stall(Socket socket)
{
    std::unique_lock lock(m_mutex);
    const int resets = m_resets;
    do {
        m_changed.wait_for(lock, std::chrono::milliseconds(20));
        // A client that hung up frees the thread, and nothing more counts as sent to it.
        char next = 0;
        if (isReadable(socket) && ::recv(socket, &next, 1, MSG_PEEK) <= 0)
            return false;
    } while (!m_stopping && m_resets == resets);
    return !m_stopping;
}

} // namespace testsupport
