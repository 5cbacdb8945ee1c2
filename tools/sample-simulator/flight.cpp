#include "tools/sample-simulator/flight.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double longestStep = 0.1;
constexpr double gravity = 9.81;
constexpr double degrees = 57.29577951308232;
constexpr double kmhToMetres = 1 / 3.6;

double approach(double value, double target, double rate, double seconds)
{
    return target + (value - target) * std::exp(-rate * seconds);
}

} // namespace

void Flight::advance(double seconds)
{
    const double step = std::clamp(seconds, 0.0, longestStep);
    time += step;
    const double wantedRoll = 14 * std::sin(time * 0.37) + 35 * stickRoll;
    const double wantedPitch = 3.5 * std::sin(time * 0.23) + 12 * stickPitch;
    roll = approach(roll, wantedRoll, 1.6, step);
    pitch = approach(pitch, wantedPitch, 1.2, step);
    speed = approach(speed, 320 - 5 * pitch, 0.4, step);

    const double metresPerSecond = speed * kmhToMetres;
    // A coordinated turn: the rate follows from bank and speed.
    const double turn = gravity * std::tan(roll / degrees) / metresPerSecond * degrees;
    heading = std::fmod(heading + turn * step + 360, 360);
    altitude = std::max(50.0, altitude + metresPerSecond * std::sin(pitch / degrees) * step);
}
