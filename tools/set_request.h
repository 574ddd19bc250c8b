// `get NAME` and `set NAME VALUES...`: the names, and the values checked and converted
// into what the camera is sent, before anything is sent.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace tarvikctl {

struct GetSetOptions {
    std::string name;
    std::vector<std::string> values;
    bool hex = false;
    bool modeGiven = false;
    std::string mode = "0";   // vcm
    std::string ctrl0 = "0";  // vcm set: the two leading bytes, sent unchanged
    std::string ctrl1 = "0";
};

extern const std::vector<std::string> kGetNames;  // roi mjpeg-qp device-id device-sn vcm
extern const std::vector<std::string> kSetNames;  // the same and gpio

struct SetRequest {
    std::string name;
    std::vector<int32_t> fields;      // roi, mjpeg-qp (4), gpio (2)
    std::array<uint8_t, 20> bytes{};  // device-id, device-sn
    uint16_t vcmValue = 0;
    uint8_t vcmMode = 0;
    uint8_t ctrl0 = 0;
    uint8_t ctrl1 = 0;
};

// Checks a `get`: the name, and options that apply to it. Returns the VCM mode.
uint8_t CheckGetRequest(const GetSetOptions& options);

// Checks a `set` and converts its values. Throws ValueError.
SetRequest ParseSetRequest(const GetSetOptions& options);

}  // namespace tarvikctl
