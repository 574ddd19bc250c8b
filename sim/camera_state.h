// The simulated camera's data: everything its extension unit answers and remembers.
// Plain values, copied in and out of the model under its lock.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tarvik::sim {

inline constexpr uint16_t kCameraVendorId = 0x0AC8;
inline constexpr uint16_t kCameraProductId = 0x010C;
inline constexpr uint8_t kUnitId = 5;
inline constexpr uint8_t kInterface = 0;
inline constexpr uint16_t kUnitIndex = (kUnitId << 8) | kInterface;  // wIndex 0x0500

inline constexpr uint8_t kSelectorMarker = 1;
inline constexpr uint8_t kSelectorChannel = 14;
inline constexpr size_t kMarkerLength = 8;
inline constexpr size_t kFrameLength = 60;
inline constexpr size_t kSamChunk = 52;  // packet bytes per answer frame, at frame bytes 8-59

using Frame = std::array<uint8_t, kFrameLength>;

// Extension items as they travel in bytes 4-7 of a read request or bits 0-11 of a write header.
enum Item : uint16_t {
    kItemEt = 1,
    kItemMjpegQp = 2,
    kItemBeep = 3,
    kItemStatusLed = 4,
    kItemVersion = 5,
    kItemRoi = 6,
    kItemRoiStatus = 7,
    kItemDeviceSn = 8,
    kItemDeviceId = 9,
    kItemDataBlock = 10,
    kItemUvcMode = 11,
    kItemSam = 12,
    kItemStreamState = 13,
    kItemLastId = 14,
    kItemLed = 15,
    kItemGyro = 16,
    kItemGpio = 17,
    kItemVcm = 18,
};

// One eye's exposure block as it sits on the wire (22 bytes: three 32-bit values, one 16-bit
// value and eight single bytes, little-endian).
using EtBlock = std::array<uint8_t, 22>;

// One lens-motor slot. Writes carry two leading bytes, the value and the mode; reads ask by mode
// and get the value back at answer bytes 6-7 (the two leading bytes come back at 4-5).
struct VcmEntry {
    uint8_t lead0 = 0;
    uint8_t lead1 = 0;
    uint16_t value = 0;
    bool operator==(const VcmEntry& o) const {
        return lead0 == o.lead0 && lead1 == o.lead1 && value == o.value;
    }
};

// The identity card the SAM presents for commands 3 and 4. Text fields are UTF-8 here and go on
// the wire as UCS-2 little-endian, blank-padded to their field widths; sex and nation are the
// code digits ("1", "01"), not names.
struct IdentityCard {
    std::string name;
    std::string sex;
    std::string nation;
    std::string birth;
    std::string address;
    std::string idNumber;
    std::string authority;
    std::string validFrom;
    std::string validTo;
    std::string reserved;
    std::vector<uint8_t> photo;        // 1024 bytes go on the wire (padded with zeros / cut)
    std::vector<uint8_t> fingerprint;  // third block of command 4, 1024 bytes likewise
};

// What the SAM answers. The overrides let a test present any packet.
struct SamState {
    IdentityCard card;
    // Whether a card lies on the reader. Without one, commands 0, 1, 3 and 4 answer the status
    // bytes 00 00 80 ("no card") and no data, whatever the fields below say; command 2 (the
    // SAM's own number) does not need a card.
    bool cardPresent = true;
    std::vector<uint8_t> number;  // data of command 2
    uint8_t sw1 = 0x00;
    uint8_t sw2 = 0x00;
    uint8_t sw3 = 0x90;
    int16_t samResult = 0;  // device result in answer bytes 6-7; non-zero: no packet follows
    // When set, the packet's length field; the data are cut or padded (with a counting
    // pattern) to dataLen - 4 bytes, and the checksum is computed over what is sent.
    std::optional<uint16_t> dataLen;
    std::map<uint8_t, std::vector<uint8_t>>
        commandData;                             // data of commands 0 and 1 (and overrides)
    std::map<uint8_t, int16_t> resultOfCommand;  // samResult of commands 6 and 7
};

struct CameraState {
    std::array<uint8_t, 56> version{};
    std::array<uint32_t, 4> mjpegQp{};
    std::array<uint32_t, 4> roi{};
    uint32_t roiStatus = 0;
    std::array<uint8_t, 20> deviceId{};
    std::array<uint8_t, 20> deviceSn{};
    std::array<uint32_t, 2> gpio{};
    uint32_t beep = 0;
    std::array<uint32_t, 2> statusLed{};
    uint32_t uvcMode = 0;
    std::array<uint8_t, 26> led{};  // write-request bytes 4-29 of the last LED write
    // Lens-motor values by mode (the low byte of the mode). Modes never written answer
    // DefaultVcm(mode).
    std::map<uint8_t, VcmEntry> vcm;
    uint16_t streamCode = 0;
    uint8_t autofocusState = 0;
    uint8_t streamUnusedBits = 0;  // bits 16-23 of the stream state
    uint16_t lastId = 0;           // transaction id of the last data-block request seen
    std::array<EtBlock, 2> et{};   // [0] left eye, [1] right eye
    std::array<uint8_t, 14> gyro{};
    std::array<uint8_t, kMarkerLength> marker{};
    unsigned markerWrites = 0;
    // Data-block memory, byte by byte: (target, address) -> value. Bytes never written read as
    // DefaultDataByte(target, address).
    std::map<std::pair<uint8_t, uint32_t>, uint8_t> dataMemory;
    // Further plain selectors of the unit and their current bytes (length = the control's length).
    std::map<uint8_t, std::vector<uint8_t>> plainControls;
    SamState sam;
};

// The content a fresh camera starts with. Every item has its own recognisable bytes.
CameraState DefaultCameraState();
IdentityCard DefaultIdentityCard();
VcmEntry DefaultVcm(uint8_t mode);
uint8_t DefaultDataByte(uint8_t target, uint32_t address);

}  // namespace tarvik::sim
