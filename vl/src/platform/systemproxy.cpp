#include "vl/src/platform/systemproxy.h"

#include <algorithm>

namespace vl {

namespace {

constexpr auto none = std::string_view::npos;

// Not std::tolower, which may take bytes of UTF-8 for letters.
std::string lowerCase(std::string_view text)
{
    std::string result(text);
    for (char& c : result)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return result;
}

/// Cuts the first entry off `list`; empty at its end.
std::string_view takeEntry(std::string_view& list)
{
    constexpr std::string_view separators = "; \t\r\n";
    list.remove_prefix(std::min(list.find_first_not_of(separators), list.size()));
    const std::string_view entry = list.substr(0, list.find_first_of(separators));
    list.remove_prefix(entry.size());
    return entry;
}

/// Where the ":port" of a server begins. That of an IPv6 address comes after its bracket.
std::size_t findPort(std::string_view server)
{
    const std::size_t colon = std::min(server.rfind(':'), server.size());
    const bool isPort = server.find_first_not_of(":0123456789", colon) == none;
    return isPort && colon < server.size() ? colon : none;
}

std::string_view withoutScheme(std::string_view server)
{
    const std::size_t end = server.find("://");
    return end == none ? server : server.substr(end + 3);
}

/// The scheme's own server before the one for all.
std::string serverFor(std::string_view list, std::string_view scheme)
{
    std::string_view own;
    std::string_view common;
    for (auto entry = takeEntry(list); !entry.empty(); entry = takeEntry(list)) {
        const std::size_t equals = entry.find('=');
        if (equals == none && common.empty())
            common = entry;
        else if (equals != none && own.empty() && entry.substr(0, equals) == scheme)
            own = entry.substr(equals + 1);
    }
    std::string_view server = own.empty() ? common : own;
    if (server.starts_with("socks") && server.find("://") != none)
        return {};
    // Windows speaks plain HTTP to a proxy even when it is written as https://.
    server = withoutScheme(server);
    server = server.substr(0, server.find('/'));
    // Settings may hold a port alone.
    const std::size_t port = findPort(server);
    if (server.empty() || port == 0)
        return {};
    // What Windows takes where there is no port; libcurl would take another.
    return std::string(server) + (port == none ? ":80" : "");
}

bool isThisComputer(std::string_view host)
{
    return host == "localhost" || host.ends_with(".localhost") || host == "[::1]" ||
           (host.starts_with("127.") && host.find_first_not_of("0123456789.") == none);
}

/// Whether `pattern`, where "*" stands for any text, is the whole of `host`.
bool matches(std::string_view pattern, std::string_view host)
{
    std::size_t star = pattern.find('*');
    if (star == none)
        return host == pattern;
    if (!host.starts_with(pattern.substr(0, star)))
        return false;
    host.remove_prefix(star);
    pattern.remove_prefix(star + 1);
    while ((star = pattern.find('*')) != none) {
        const std::size_t found = host.find(pattern.substr(0, star));
        if (found == none)
            return false;
        host.remove_prefix(found + star);
        pattern.remove_prefix(star + 1);
    }
    return host.ends_with(pattern);
}

bool isBypassed(std::string_view list, std::string_view host)
{
    const bool isPlainName = host.find_first_of(".[") == none;
    for (auto entry = takeEntry(list); !entry.empty(); entry = takeEntry(list)) {
        const std::string_view pattern = withoutScheme(entry);
        if ((entry == "<local>" && isPlainName) ||
            matches(pattern.substr(0, findPort(pattern)), host))
            return true;
    }
    return false;
}

} // namespace

std::string proxyFor(const SystemProxies& settings, std::string_view scheme, std::string_view host)
{
    const std::string name = lowerCase(host);
    if (isThisComputer(name) || isBypassed(lowerCase(settings.bypass), name))
        return {};
    return serverFor(lowerCase(settings.servers), scheme);
}

} // namespace vl
