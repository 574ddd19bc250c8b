#include "set_request.h"

#include <algorithm>

#include "value_parse.h"

namespace tarvikctl {

const std::vector<std::string> kGetNames = {"roi", "mjpeg-qp", "device-id", "device-sn", "vcm"};
const std::vector<std::string> kSetNames = {"roi",       "mjpeg-qp", "device-id",
                                            "device-sn", "gpio",     "vcm"};

namespace {

std::string Joined(const std::vector<std::string>& names) {
    std::string out;
    for (const std::string& n : names) out += (out.empty() ? "" : ", ") + n;
    return out;
}

void CheckCommon(const GetSetOptions& o, const std::vector<std::string>& names, const char* verb) {
    if (std::find(names.begin(), names.end(), o.name) == names.end()) {
        throw ValueError(std::string(verb) + ": '" + o.name + "' is not one of " + Joined(names));
    }
    const bool isText = o.name == "device-id" || o.name == "device-sn";
    if (o.hex && !isText) throw ValueError("--hex applies to device-id and device-sn only");
    if (o.modeGiven && o.name != "vcm") throw ValueError("--mode applies to vcm only");
}

uint8_t Byte(const std::string& text, const std::string& what) {
    return static_cast<uint8_t>(ParseInteger(text, what, 0, 255));
}

}  // namespace

uint8_t CheckGetRequest(const GetSetOptions& options) {
    CheckCommon(options, kGetNames, "get");
    return Byte(options.mode, "--mode");
}

SetRequest ParseSetRequest(const GetSetOptions& o) {
    CheckCommon(o, kSetNames, "set");
    SetRequest r;
    r.name = o.name;
    if (o.name == "roi" || o.name == "mjpeg-qp") {
        r.fields = ParseFields32(o.values, 4, o.name);
    } else if (o.name == "gpio") {
        r.fields = ParseFields32(o.values, 2, o.name);
    } else if (o.name == "vcm") {
        if (o.values.size() != 1) {
            throw ValueError("vcm takes one value, got " + std::to_string(o.values.size()));
        }
        r.vcmValue = static_cast<uint16_t>(ParseInteger(o.values[0], "vcm value", 0, 65535));
        r.vcmMode = Byte(o.mode, "--mode");
        r.ctrl0 = Byte(o.ctrl0, "--ctrl0");
        r.ctrl1 = Byte(o.ctrl1, "--ctrl1");
    } else {  // device-id, device-sn
        if (o.values.size() != 1) {
            throw ValueError(o.name + " takes one value (quote text with spaces), got " +
                             std::to_string(o.values.size()));
        }
        r.bytes = ParseDeviceText(o.values[0], o.hex, o.name);
    }
    return r;
}

}  // namespace tarvikctl
