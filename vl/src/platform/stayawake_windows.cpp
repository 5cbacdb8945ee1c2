#include "vl/src/platform/stayawake.h"

#include <windows.h>

namespace vl {

// Failure is of no interest: the work is no worse off than without.
StayAwake::StayAwake()
{
    SetThreadExecutionState(ES_CONTINUOUS | ES_SYSTEM_REQUIRED);
}

StayAwake::~StayAwake()
{
    SetThreadExecutionState(ES_CONTINUOUS);
}

} // namespace vl
