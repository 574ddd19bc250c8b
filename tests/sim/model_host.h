// A minimal host for the model tests: the three class requests on unit 5.
#pragma once

#include <vector>

#include "camera_model.h"

namespace tarvik::sim::host {

inline Reply SetCur(CameraModel& m, uint8_t selector, const std::vector<uint8_t>& data) {
    SetupPacket s{kRequestTypeOut, kSetCur, static_cast<uint16_t>(selector << 8), kUnitIndex,
                  static_cast<uint16_t>(data.size())};
    return m.Handle(s, data);
}

inline Reply Get(CameraModel& m, uint8_t request, uint8_t selector, uint16_t length) {
    SetupPacket s{kRequestTypeIn, request, static_cast<uint16_t>(selector << 8), kUnitIndex,
                  length};
    return m.Handle(s, {});
}

inline Reply GetCur(CameraModel& m, uint8_t selector, uint16_t length) {
    return Get(m, kGetCur, selector, length);
}

// A read request frame for `item` (header 00 10 00 00, item at 4-7).
inline Frame ReadRequest(uint32_t item) {
    Frame f{};
    f[1] = 0x10;
    PutLe32(&f[4], item);
    return f;
}

// A write request frame for `item`, payload from byte 4 left to the caller.
inline Frame WriteRequest(uint16_t item) {
    Frame f{};
    PutLe16(&f[0], static_cast<uint16_t>(0x1000 | (item & 0x0FFF)));
    return f;
}

inline std::vector<uint8_t> Bytes(const Frame& f) { return {f.begin(), f.end()}; }

// SET_CUR of the request, then GET_CUR of the answer frame.
inline std::vector<uint8_t> Transact(CameraModel& m, const Frame& request) {
    SetCur(m, kSelectorChannel, Bytes(request));
    return GetCur(m, kSelectorChannel, kFrameLength).data;
}

}  // namespace tarvik::sim::host
