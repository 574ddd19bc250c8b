// Tilt from the motion sensor's raw sample, and the exposure-record rules.
#include "sensor_math.h"

#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <utility>

namespace tarvik {
namespace {

// The camera's own constant, not full-precision pi: a quarter turn comes out
// as 90.0000015 and truncates to 90.
constexpr double kHalfTurnDegrees = 180.0;
constexpr double kPi = 3.1415926;

constexpr std::uint8_t kManualMode = 1;
constexpr std::uint8_t kSetsTime = 0;
constexpr std::uint8_t kSetsMode = 1;
constexpr unsigned kWhatFlag = 2;
constexpr unsigned kModeFlag = 4;

// Big-endian two's-complement component at raw[at].
int component(const std::uint8_t (&raw)[14], unsigned at) {
    const int u = (raw[at] << 8) | raw[at + 1];
    return u >= 0x8000 ? u - 0x10000 : u;
}

// atan(numerator / denominator) in degrees, truncated toward zero. The
// denominator is a norm, so it is zero only when the numerator is not (the
// sample is not all zero); the quotient is then an infinity of its sign.
int degrees(int numerator, double denominator) {
    double q;
    if (denominator != 0.0) {
        q = numerator / denominator;
    } else if (numerator != 0) {
        q = numerator > 0 ? std::numeric_limits<double>::infinity()
                          : -std::numeric_limits<double>::infinity();
    } else {
        q = 0.0;
    }
    return static_cast<int>(std::atan(q) * kHalfTurnDegrees / kPi);
}

// Sums of squares are exact integers; 2 * 32768^2 needs more than 32 bits.
double norm(int a, int b) {
    const std::int64_t sum = static_cast<std::int64_t>(a) * a + static_cast<std::int64_t>(b) * b;
    return std::sqrt(static_cast<double>(sum));
}

bool in_range(unsigned value, const _ET_PARAM& eye) {
    return value >= eye.etMin && value <= eye.etMax;
}

}  // namespace

bool gyro_to_tilt(const std::uint8_t (&raw)[14], _GYRO_PARAM* out) {
    const int x = component(raw, 0);
    const int y = component(raw, 2);
    const int z = component(raw, 4);
    if (x == 0 && y == 0 && z == 0) return false;
    out->pitch = degrees(-x, norm(y, z));
    out->roll = degrees(y, norm(x, z));
    return true;
}

HRESULT check_manual_ae(const _DUAL_ET_PARAM& current, const _MAE_PARAM& wanted) {
    // The range is judged first: a time out of range is reported as such even
    // when the mode is wrong too.
    if (!in_range(wanted.leftEt, current.left) || !in_range(wanted.rightEt, current.right)) {
        return kErrOutOfRange;
    }
    if (current.left.flags[kModeFlag] != kManualMode ||
        current.right.flags[kModeFlag] != kManualMode) {
        return kErrNotManualMode;
    }
    return 0;
}

_DUAL_ET_PARAM manual_ae_record(const _DUAL_ET_PARAM& current, const _MAE_PARAM& wanted) {
    _DUAL_ET_PARAM r = current;
    for (auto [eye, et] : {std::pair{&r.left, wanted.leftEt}, {&r.right, wanted.rightEt}}) {
        eye->et = et;
        eye->flags[kWhatFlag] = kSetsTime;
        eye->flags[kModeFlag] = kManualMode;
    }
    return r;
}

_DUAL_ET_PARAM et_mode_record(const _DUAL_ET_MODE& mode) {
    _DUAL_ET_PARAM r{};
    for (auto [eye, m] : {std::pair{&r.left, mode.leftMode}, {&r.right, mode.rightMode}}) {
        eye->flags[kWhatFlag] = kSetsMode;
        eye->flags[kModeFlag] = static_cast<std::uint8_t>(static_cast<unsigned>(m) & 0xFFu);
    }
    return r;
}

}  // namespace tarvik
