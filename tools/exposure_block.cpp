#include "exposure_block.h"

namespace tarvikctl {

namespace {

bool InRange(uint32_t time, const tarvik_eye_exposure& eye) {
    return time >= eye.min && time <= eye.max;
}

void SetTime(tarvik_eye_exposure& eye, uint32_t time) {
    eye.time = time;
    eye.flags[kWhatFlag] = 0;
    eye.flags[kModeFlag] = kManualMode;
}

void SetMode(tarvik_eye_exposure& eye, int32_t mode) {
    eye.flags[kWhatFlag] = 1;
    eye.flags[kModeFlag] = static_cast<uint8_t>(static_cast<uint32_t>(mode) & 0xFFu);
}

}  // namespace

int CheckTimes(const tarvik_exposure& current, uint32_t left, uint32_t right) {
    if (!InRange(left, current.left) || !InRange(right, current.right)) {
        return TARVIK_E_OUT_OF_RANGE;
    }
    if (current.left.flags[kModeFlag] != kManualMode ||
        current.right.flags[kModeFlag] != kManualMode) {
        return TARVIK_E_NOT_MANUAL;
    }
    return 0;
}

tarvik_exposure TimesBlock(const tarvik_exposure& current, uint32_t left, uint32_t right) {
    tarvik_exposure out = current;
    SetTime(out.left, left);
    SetTime(out.right, right);
    return out;
}

tarvik_exposure ModeBlock(int32_t mode) {
    tarvik_exposure out{};
    SetMode(out.left, mode);
    SetMode(out.right, mode);
    return out;
}

}  // namespace tarvikctl
