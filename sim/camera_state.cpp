#include "camera_state.h"

#include <cstring>

namespace tarvik::sim {

namespace {

template <size_t N>
std::array<uint8_t, N> TextBytes(const char* text, uint8_t fillFrom) {
    std::array<uint8_t, N> out{};
    const size_t n = std::strlen(text);
    for (size_t i = 0; i < N; ++i) {
        out[i] = i < n ? static_cast<uint8_t>(text[i]) : static_cast<uint8_t>(fillFrom + i);
    }
    return out;
}

std::vector<uint8_t> Counting(size_t n, uint8_t from, uint8_t step) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(from + step * i);
    return v;
}

}  // namespace

IdentityCard DefaultIdentityCard() {
    IdentityCard card;
    card.name = "张三";
    card.sex = "1";
    card.nation = "01";
    card.birth = "19900101";
    card.address = "示例省虚构市测试路1号";
    card.idNumber = "000000199001010000";
    card.authority = "虚构市测试局";
    card.validFrom = "20200101";
    card.validTo = "20300101";
    card.reserved = "";
    card.photo = Counting(1024, 0x00, 1);
    card.fingerprint = Counting(1024, 0xFF, 0xFF);  // counts down: FF FE FD ...
    return card;
}

VcmEntry DefaultVcm(uint8_t mode) {
    return VcmEntry{mode, 0x5A, static_cast<uint16_t>(0x0200 + mode)};
}

uint8_t DefaultDataByte(uint8_t target, uint32_t address) {
    return static_cast<uint8_t>(target * 37u + address * 11u + 0x5Cu);
}

CameraState DefaultCameraState() {
    CameraState s;
    s.version = TextBytes<56>("SIMFW 1.0.0 2024-01-01", 0xA0);
    s.mjpegQp = {10, 20, 30, 0x01020304};
    s.roi = {100, 200, 640, 480};
    s.roiStatus = 0xA5A50001;
    s.deviceId = TextBytes<20>("SIMID-0123456789ABCD", 0);
    s.deviceSn = TextBytes<20>("SN2024SIMCAMERA00042", 0);
    s.gpio = {0x0F, 0x01};
    s.beep = 0;
    s.statusLed = {0, 0};
    s.uvcMode = 0;
    s.streamCode = 0x0210;
    s.autofocusState = 0x12;
    s.streamUnusedBits = 0x34;
    s.lastId = 0x4321;
    for (size_t i = 0; i < s.et[0].size(); ++i) {
        s.et[0][i] = static_cast<uint8_t>(0x01 + i);
        s.et[1][i] = static_cast<uint8_t>(0x81 + i);
    }
    // Level camera: gravity along z only; bytes 6-13 carry other sensor data.
    s.gyro = {0x00, 0x00, 0x00, 0x00, 0x40, 0x00, 0x61, 0x62, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68};
    s.plainControls[2] = {0x12, 0x34, 0x56, 0x78};
    s.plainControls[3] = {0xAB, 0xCD};
    s.plainControls[4] = Counting(16, 0xC0, 1);
    s.sam.card = DefaultIdentityCard();
    const char* number = "NUM-0123456789AB";
    s.sam.number.assign(number, number + 16);
    s.sam.commandData[1] = Counting(8, 0x31, 1);
    return s;
}

}  // namespace tarvik::sim
