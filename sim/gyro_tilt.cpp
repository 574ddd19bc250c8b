#include "gyro_tilt.h"

#include <cmath>
#include <cstdlib>

#include "byte_order.h"

namespace tarvik::sim {

namespace {

constexpr double kDegree = 3.14159265358979323846 / 180.0;
constexpr double kScale = 16000.0;

// Aim 0.4 degree past the wanted value so that truncation lands on it.
double Aim(int degrees) {
    if (degrees == 0) return 0.0;
    return (degrees + (degrees > 0 ? 0.4 : -0.4)) * kDegree;
}

// A signed axis value as its 16-bit two's-complement pattern.
uint16_t Axis(double v) { return static_cast<uint16_t>(static_cast<int16_t>(std::lround(v))); }

}  // namespace

std::optional<std::array<uint8_t, 14>> GyroSampleForTilt(int pitch, int roll,
                                                         const std::array<uint8_t, 8>& rest) {
    double x = 0, y = 0, z = 0;
    if (std::abs(pitch) == 90 && roll == 0) {
        x = pitch > 0 ? -kScale : kScale;
    } else if (std::abs(roll) == 90 && pitch == 0) {
        y = roll > 0 ? kScale : -kScale;
    } else if (std::abs(pitch) + std::abs(roll) < 90) {
        // With z = 1: x² = a²(y² + 1) and y² = b²(x² + 1), a = tan(pitch), b = tan(roll).
        const double a = std::tan(Aim(pitch));
        const double b = std::tan(Aim(roll));
        const double x2 = a * a * (1 + b * b) / (1 - a * a * b * b);
        x = -std::copysign(std::sqrt(x2), a);
        y = std::copysign(std::sqrt(b * b * (x2 + 1)), b);
        z = 1;
        const double biggest = std::fmax(std::fabs(x), std::fmax(std::fabs(y), 1.0));
        x *= kScale / biggest;
        y *= kScale / biggest;
        z *= kScale / biggest;
    } else {
        return std::nullopt;
    }
    std::array<uint8_t, 14> sample{};
    PutBe16(&sample[0], Axis(x));
    PutBe16(&sample[2], Axis(y));
    PutBe16(&sample[4], Axis(z));
    for (size_t i = 0; i < rest.size(); ++i) sample[6 + i] = rest[i];
    return sample;
}

}  // namespace tarvik::sim
