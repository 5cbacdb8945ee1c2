#include "vl/src/platform/systemproxy.h"

namespace vl {

SystemProxies systemProxies()
{
    return {};
}

} // namespace vl
