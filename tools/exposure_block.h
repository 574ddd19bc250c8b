// The two eyes' exposure block (extension item 1), decoded by the tool itself: the
// library's five exposure members answer "not provided" on this camera, while the
// block is read and written as it is. The checks and the blocks sent are those the
// library's members would make.
#pragma once

#include <tarvik.h>

#include <cstdint>

namespace tarvikctl {

constexpr int kModeFlag = 4;  // flags[4]: the eye's exposure mode
constexpr int kWhatFlag = 2;  // flags[2]: what a write sets (0 the time, 1 the mode)
constexpr uint8_t kManualMode = 1;

// 0 when both times may be set on the block read: TARVIK_E_OUT_OF_RANGE when a time is
// outside its eye's inclusive range (judged first), TARVIK_E_NOT_MANUAL when an eye is
// not in manual mode.
int CheckTimes(const tarvik_exposure& current, uint32_t left, uint32_t right);

// The block that sets the times: the block read, with each eye's time, flags[2] = 0
// and flags[4] = 1.
tarvik_exposure TimesBlock(const tarvik_exposure& current, uint32_t left, uint32_t right);

// The block that sets the mode: all zero but flags[2] = 1 and flags[4] = the mode's
// low byte, in both eyes.
tarvik_exposure ModeBlock(int32_t mode);

}  // namespace tarvikctl
