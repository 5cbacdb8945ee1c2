#pragma once

/// Attitude and position of the sample aircraft: a steady autopilot that wanders a little, with the
/// pilot's stick on top. Angles in degrees, altitude in metres, speed in km/h, time in seconds.
struct Flight
{
    double time = 0;
    double roll = 0;
    double pitch = 0;
    double heading = 40;
    double altitude = 1200;
    double speed = 320;
    double stickRoll = 0;  ///< -1 left to 1 right
    double stickPitch = 0; ///< -1 nose down to 1 nose up

    /// Moves the aircraft on by `seconds`, whatever their number: long gaps (a stopped process)
    /// are cut to a tenth of a second.
    void advance(double seconds);
};
