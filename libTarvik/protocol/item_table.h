// Every extension item in one table: its name, what the read and the write
// transaction do with it, the caller's record, and its retry line. The frame
// codec, the retry routines, the C interface and the tools all read this
// table; adding an item is one row here, plus a codec function in
// item_codecs.cpp when its data is not one run of bytes.
#ifndef TARVIK_ITEM_TABLE_H
#define TARVIK_ITEM_TABLE_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "item_codecs.h"
#include "libTarvik.h"
#include "tarvik_items.h"

namespace tarvik::items {

// A regular item's data: `size` bytes from frame byte `offset`.
struct Run {
    std::uint8_t offset;
    std::uint8_t size;
};

using Decode = void (*)(const frame::Frame&, void* input, void* output);
using Params = void (*)(frame::Frame&, const void* input);
using Encode = void (*)(frame::Frame&, const void* record);

struct Read {
    bool handled;           // the read transaction takes the item
    bool needsOutput;       // records checked before anything is sent
    bool needsInput;        // (also: the retry routine passes the input on)
    Run answer;             // regular items
    Decode decode;          // irregular ones (the SAM's answer is the SAM channel's)
    Params params;          // request parameters, if any
    std::size_t record;     // the caller's record: what a retry clears, what the C interface needs
    const char* retryName;  // the retry routine's line; null: not in its table
};

struct Write {
    bool handled;
    Run payload;    // regular items
    Encode encode;  // irregular ones
    std::size_t record;
    const char* retryName;
};

struct Item {
    std::uint32_t number;
    const char* name;  // as tarvikctl and the service call it
    Read read;
    Write write;
};

constexpr Read kNoRead{};
constexpr Write kNoWrite{};

constexpr Read read_run(std::uint8_t offset, std::uint8_t size, std::size_t record,
                        const char* retryName) {
    return {true, true, false, {offset, size}, nullptr, nullptr, record, retryName};
}

constexpr Write write_run(std::uint8_t offset, std::uint8_t size, std::size_t record,
                          const char* retryName) {
    return {true, {offset, size}, nullptr, record, retryName};
}

constexpr Write write_by(Encode encode, std::size_t record, const char* retryName) {
    return {true, {}, encode, record, retryName};
}

// clang-format off
inline constexpr Item kItems[] = {
    {EXT_ITEM_ET, "et",
     {true, true, false, {}, codec::et_from_answer, nullptr, sizeof(_DUAL_ET_PARAM), "ReadET"},
     write_by(codec::et_into_request, sizeof(_DUAL_ET_PARAM), "WriteET")},
    {EXT_ITEM_MJPEG_QP, "mjpeg-qp", read_run(4, 16, sizeof(_MJPEG_QP_PARAM), "ReadMJpegQp"),
     write_run(4, 16, sizeof(_MJPEG_QP_PARAM), "WriteMJpegQp")},
    {EXT_ITEM_BEEP, "beep", kNoRead, write_run(4, 4, sizeof(unsigned int), "WriteBeep")},
    {EXT_ITEM_STATUS_LED, "status-led", kNoRead,
     write_run(4, 8, sizeof(_STATUS_LED_PARAM), "WriteStatusLed")},
    {EXT_ITEM_VERSION, "version", read_run(4, 56, sizeof(_VERSION_PARAM), "ReadVersion"), kNoWrite},
    {EXT_ITEM_ROI, "roi", read_run(4, 16, sizeof(_ROI_PARAM), "ReadROI"),
     write_run(4, 16, sizeof(_ROI_PARAM), "WriteROI")},
    {EXT_ITEM_ROI_STATUS, "roi-status", read_run(4, 4, sizeof(unsigned int), "ReadRoiStatus"),
     kNoWrite},
    {EXT_ITEM_DEVICE_SN, "device-sn", read_run(4, 20, sizeof(_DEVICE_SN_PARAM), "ReadDeviceSn"),
     write_run(4, 20, sizeof(_DEVICE_SN_PARAM), "WriteDeviceSn")},
    {EXT_ITEM_DEVICE_ID, "device-id", read_run(4, 20, sizeof(_DEVICE_ID_PARAM), "ReadDeviceId"),
     write_run(4, 20, sizeof(_DEVICE_ID_PARAM), "WriteDeviceId")},
    {EXT_ITEM_DATA_BLOCK, "data-block",
     {true, false, true, {}, codec::data_block_from_answer, codec::data_block_read_params,
      sizeof(uvc_extDataBlock), nullptr},
     write_by(codec::data_block_into_request, sizeof(uvc_extDataBlock), nullptr)},
    {EXT_ITEM_UVC_MODE, "uvc-mode", kNoRead, write_run(4, 4, sizeof(int), "WriteUVCMode")},
    {EXT_ITEM_SAM, "sam",
     {true, true, true, {}, nullptr, nullptr, sizeof(_SAM_OUT_PARAM), "ReadSAM"},
     write_run(4, 0, 0, nullptr)},  // the header alone
    {EXT_ITEM_STREAM_STATE, "stream-state",
     read_run(4, 4, sizeof(unsigned int), "ReadStreamState"), kNoWrite},
    {EXT_ITEM_LAST_ID, "last-id", read_run(4, 2, sizeof(unsigned short), "ReadLastId"), kNoWrite},
    {EXT_ITEM_LED, "led", kNoRead,
     write_by(codec::led_into_request, sizeof(_LED_CONTROL_PARAM), "WriteLed")},
    {EXT_ITEM_GYRO, "gyro", read_run(4, frame::kGyroRawSize, frame::kGyroRawSize, "ReadGyro"), kNoWrite},
    {EXT_ITEM_GPIO, "gpio", kNoRead, write_run(4, 8, sizeof(_GPIO_PARAM), "WriteGPIO")},
    // Bytes 4-5 of its answer are not the value.
    {EXT_ITEM_VCM, "vcm",
     {true, true, true, {6, 2}, nullptr, codec::vcm_read_params, sizeof(unsigned short),
      "ReadVCM"},
     write_by(codec::vcm_into_request, sizeof(_VCM_PARAM), "WriteVCM")},
};
// clang-format on

// The item numbered `number`; null for none.
constexpr const Item* find(std::uint32_t number) {
    for (const Item& item : kItems) {
        if (item.number == number) return &item;
    }
    return nullptr;
}

// The item called `name` ("roi"); null for none.
inline const Item* find_named(const char* name) {
    for (const Item& item : kItems) {
        if (name != nullptr && std::strcmp(item.name, name) == 0) return &item;
    }
    return nullptr;
}

}  // namespace tarvik::items

#endif
