// Gyro conversion and exposure checks: pure functions over records.
#ifndef TARVIK_SENSOR_MATH_H
#define TARVIK_SENSOR_MATH_H

#include <cstdint>

#include "libTarvik.h"

namespace tarvik {

// Tilt from a raw sample (x, y, z big-endian signed 16-bit at bytes 0-5).
// Returns false, leaving `out` untouched, when the first six bytes are zero.
bool gyro_to_tilt(const std::uint8_t (&raw)[14], _GYRO_PARAM* out);

// Checks a manual exposure request against the block the camera answered:
// -102 when a time is outside its eye's inclusive range (tested first),
// -101 when an eye is not in manual mode, else 0.
HRESULT check_manual_ae(const _DUAL_ET_PARAM& current, const _MAE_PARAM& wanted);

// The record zq_WriteManualAE sends: `current` with each eye's et set to the
// wanted time, flags[2] = 0 and flags[4] = 1.
_DUAL_ET_PARAM manual_ae_record(const _DUAL_ET_PARAM& current, const _MAE_PARAM& wanted);

// The record zq_WriteETMode sends: all zero but flags[2] = 1 and flags[4] =
// the low byte of each eye's mode.
_DUAL_ET_PARAM et_mode_record(const _DUAL_ET_MODE& mode);

constexpr HRESULT kErrNotManualMode = -101;
constexpr HRESULT kErrOutOfRange = -102;
constexpr HRESULT kErrModeMismatch = -103;

}  // namespace tarvik

#endif
