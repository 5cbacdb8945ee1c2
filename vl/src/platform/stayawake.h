#pragma once

namespace vl {

/// Keeps a computer that nobody touches from falling asleep, as long as it lives; the display may
/// switch off, and the user may still send the computer to sleep. Made and destroyed on the same
/// thread, one at a time on each. Windows only: elsewhere it does nothing.
class StayAwake final
{
public:
    StayAwake();
    ~StayAwake();
    StayAwake(const StayAwake&) = delete;
    StayAwake& operator=(const StayAwake&) = delete;
};

} // namespace vl
