#include "vl/src/platform/file.h"
#include "vl/src/platform/systemproxy.h"

#include <windows.h>
#include <winhttp.h>

#include <memory>

namespace vl {

namespace {

struct GlobalDeleter
{
    void operator()(wchar_t* text) const { GlobalFree(text); }
};
using GlobalText = std::unique_ptr<wchar_t, GlobalDeleter>;

std::string textOf(const GlobalText& text)
{
    return text ? toUtf8(text.get()) : std::string();
}

} // namespace

SystemProxies systemProxies()
{
    WINHTTP_CURRENT_USER_IE_PROXY_CONFIG config{};
    if (!WinHttpGetIEProxyConfigForCurrentUser(&config))
        return {};
    const GlobalText script(config.lpszAutoConfigUrl); // only to free it
    const GlobalText servers(config.lpszProxy);
    const GlobalText bypass(config.lpszProxyBypass);
    return {textOf(servers), textOf(bypass)};
}

} // namespace vl
