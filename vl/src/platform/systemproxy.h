#pragma once

#include <string>
#include <string_view>

namespace vl {

/// What the settings of the user's system say about proxies, as they are written there (UTF-8).
struct SystemProxies
{
    /// One "host:port", or one for each scheme: "http=host:port;https=host:port".
    std::string servers{};
    /// Patterns of hosts without a proxy: "*.example.com;192.168.*"; "<local>" for plain names.
    std::string bypass{};
};

/// Asks Windows. Empty where the user has named no proxy, and on other systems, which name theirs
/// in environment variables. Configuration scripts and automatic discovery are not followed. Any
/// thread; reads a few values of the registry.
SystemProxies systemProxies();

/// The "host:port" of the HTTP proxy for requests by `scheme` ("http", "https") to `host` (IPv6 in
/// brackets), or an empty text for none, which is so for this computer itself. Both lists are split
/// at ';' and blanks, and what cannot be read in them is passed over; so are SOCKS servers, whose
/// version the settings do not tell.
std::string proxyFor(const SystemProxies& settings, std::string_view scheme, std::string_view host);

} // namespace vl
