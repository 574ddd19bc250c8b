// The camera as the commands see it: the few operations they need, made either
// straight through the library (a camera this process opens) or through tarvikd
// (--service). The commands parse, check and print the same way on both; only
// how a request reaches the camera differs.
//
// Every operation returns a tarvik.h result, as the library's calls do. The
// service's own conditions that are no library result (polkit refused, too many
// calls, tarvikd not running) are thrown as ToolError with their own message.
#pragma once

#include <tarvik.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "item_records.h"

namespace tarvikctl {

struct Selection;

// An event of the camera. `settingsKnown` is false when the result of writing
// the settings again after a camera came back is not told (tarvikd does not).
struct DeviceEvent {
    tarvik_event event{};
    bool settingsKnown = true;
};

class Device {
public:
    virtual ~Device() = default;

    // Any item through one transaction, with the library's record of the item:
    // tarvik_read_item and tarvik_write_item (the data block is `record`, both
    // ways; the lens motor's `input` is an int, its mode).
    virtual int ReadItem(int item, const void* input, void* record, size_t size) = 0;
    virtual int WriteItem(int item, const void* record, size_t size) = 0;

    // A setting (the exposure block, roi, mjpeg-qp, device-id, device-sn, gpio,
    // vcm) as an application reads and writes it: through the library's own
    // call for the item, with its retries. The record is the item's (the lens
    // motor's read takes `mode`; its write record is a VcmWrite).
    virtual int ReadSetting(int item, int mode, RecordBuffer& record) = 0;
    virtual int WriteSetting(int item, const RecordBuffer& record) = 0;

    // The exposure checks of tarvik_write_exposure_times (range, manual mode)
    // and tarvik_write_exposure_mode are made where the block is written.
    virtual int WriteExposureTimes(uint32_t left, uint32_t right) = 0;
    virtual int WriteExposureMode(int32_t left, int32_t right) = 0;

    virtual int ReadGyro(int32_t& pitch, int32_t& roll) = 0;
    // `number` (16 bytes) is filled by command 2.
    virtual int SamCommand(int command, int& samResult, uint8_t number[16]) = 0;
    // TARVIK_E_SAM with card.sam_result when the SAM refused.
    virtual int ReadCard(tarvik_card& card, bool third) = 0;

    // Card polls start (every `intervalMs` where this process polls); then each
    // WaitEvent returns the next event, TARVIK_E_CANCELLED after Cancel, or a
    // failure. Cancel may be called from a signal handler.
    virtual int StartWatch(unsigned intervalMs) = 0;
    virtual int WaitEvent(DeviceEvent& event) = 0;
    virtual void Cancel() = 0;
};

// The camera the selection names, opened through the library. Throws
// ToolError (no camera, exit 3) saying why it could not be opened.
std::unique_ptr<Device> OpenLocalDevice(const Selection& selection);

// The library's handle of a camera opened by OpenLocalDevice; null for any
// other device.
tarvik_camera* LibraryHandle(Device& device);

}  // namespace tarvikctl
