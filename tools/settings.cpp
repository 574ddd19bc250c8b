#include "settings.h"

#include <cstring>

#include "value_parse.h"

namespace tarvikctl {

namespace {

const std::vector<Setting> kSettings = {
    {"roi", "The region of interest: four 32-bit values", SettingKind::kFields, 4, "V1 V2 V3 V4",
     kRoiItem, true, true},
    {"mjpeg-qp", "The MJPEG quantisation: four 32-bit values", SettingKind::kFields, 4,
     "V1 V2 V3 V4", kMjpegQpItem, true, true},
    {"device-id", "The device id: 20 bytes", SettingKind::kDeviceText, 0, "TEXT", kDeviceIdItem,
     true, true},
    {"device-sn", "The device's serial number: 20 bytes", SettingKind::kDeviceText, 0, "TEXT",
     kDeviceSnItem, true, true},
    {"gpio", "The two GPIO values (written only)", SettingKind::kFields, 2, "V1 V2", kGpioItem,
     false, true},
    {"vcm", "The lens motor: a 16-bit value, chosen by --mode", SettingKind::kLensMotor, 0, "VALUE",
     kVcmItem, true, true},
};

uint8_t Byte(const std::string& text, const std::string& what) {
    return static_cast<uint8_t>(ParseInteger(text, what, 0, 255));
}

std::string OneValue(const Setting& s, const SettingOptions& o, const char* hint) {
    if (o.values.size() != 1) {
        throw ValueError(std::string(s.name) + " takes one value" + hint + ", got " +
                         std::to_string(o.values.size()));
    }
    return o.values[0];
}

}  // namespace

const std::vector<Setting>& Settings() { return kSettings; }

const char* ValueHelp(SettingKind kind) {
    switch (kind) {
        case SettingKind::kFields:
            return "32-bit values, decimal or 0x.. hex";
        case SettingKind::kDeviceText:
            return "Printable ASCII, at most 20 characters, zero-padded (with --hex: 40 hex "
                   "digits)";
        case SettingKind::kLensMotor:
            break;
    }
    return "0-65535";
}

std::string SettingNames(bool writable) {
    std::string out;
    for (const Setting& s : kSettings) {
        if (writable ? s.write : s.read) {
            out += (out.empty() ? "" : ", ") + std::string(s.name);
        }
    }
    return out;
}

int ParseMode(const SettingOptions& o) { return Byte(o.mode, "--mode"); }

SettingValue ParseSetting(const Setting& s, const SettingOptions& o) {
    SettingValue v;
    switch (s.kind) {
        case SettingKind::kFields: {
            const std::vector<int32_t> fields = ParseFields32(o.values, s.fields, s.name);
            std::copy(fields.begin(), fields.end(), v.fields.begin());
            break;
        }
        case SettingKind::kDeviceText:
            v.bytes = ParseDeviceText(OneValue(s, o, " (quote text with spaces)"), o.hex, s.name);
            break;
        case SettingKind::kLensMotor:
            v.motor = static_cast<uint16_t>(
                ParseInteger(OneValue(s, o, ""), std::string(s.name) + " value", 0, 65535));
            v.mode = ParseMode(o);
            v.ctrl0 = Byte(o.ctrl0, "--ctrl0");
            v.ctrl1 = Byte(o.ctrl1, "--ctrl1");
            break;
    }
    return v;
}

RecordBuffer SettingRecord(const Setting& s, const SettingValue& v) {
    RecordBuffer record;
    switch (s.kind) {
        case SettingKind::kFields:
            std::memcpy(record.bytes, v.fields.data(), s.fields * sizeof(int32_t));
            break;
        case SettingKind::kDeviceText:
            std::memcpy(record.bytes, v.bytes.data(), v.bytes.size());
            break;
        case SettingKind::kLensMotor: {
            const VcmWrite motor{v.ctrl0, v.ctrl1, v.motor, v.mode};
            std::memcpy(record.bytes, &motor, sizeof motor);
            break;
        }
    }
    return record;
}

SettingValue SettingFromRecord(const Setting& s, const RecordBuffer& record, int mode) {
    SettingValue v;
    v.mode = mode;
    switch (s.kind) {
        case SettingKind::kFields:
            std::memcpy(v.fields.data(), record.bytes, s.fields * sizeof(int32_t));
            break;
        case SettingKind::kDeviceText:
            std::memcpy(v.bytes.data(), record.bytes, v.bytes.size());
            break;
        case SettingKind::kLensMotor:
            std::memcpy(&v.motor, record.bytes, sizeof v.motor);
            break;
    }
    return v;
}

}  // namespace tarvikctl
