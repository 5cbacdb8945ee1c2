#include "vl/src/platform/stayawake.h"

namespace vl {

StayAwake::StayAwake() = default;

StayAwake::~StayAwake() = default;

} // namespace vl
