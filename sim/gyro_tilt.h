// A raw motion-sensor sample that reports a chosen tilt.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

namespace tarvik::sim {

// Bytes 0-5 of the 14-byte sample: x, y, z as signed 16-bit big-endian values, chosen so that
// pitch = atan(-x / sqrt(y² + z²)) and roll = atan(y / sqrt(x² + z²)), in degrees truncated
// toward zero, come out as asked. Bytes 6-13 are `rest`. Reachable tilts: |pitch| + |roll| < 90,
// or ±90 with the other angle 0; others give nullopt.
std::optional<std::array<uint8_t, 14>> GyroSampleForTilt(int pitch, int roll,
                                                         const std::array<uint8_t, 8>& rest = {});

}  // namespace tarvik::sim
