// The settings of `get` and `set`: one table that the command line, the commands and
// the help are made from.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "item_records.h"

namespace tarvikctl {

// How a setting's values look on the command line and in the output.
enum class SettingKind {
    kFields,      // 32-bit values, decimal or 0x.. hex
    kDeviceText,  // 20 bytes: printable ASCII, zero-padded, or 40 hex digits with --hex
    kLensMotor,   // a 16-bit value chosen by a mode byte; a write adds two leading bytes
};

// A setting's value, as the user types and reads it.
struct SettingValue {
    std::array<int32_t, 4> fields{};
    std::array<uint8_t, 20> bytes{};
    uint16_t motor = 0;
    int mode = 0;
    uint8_t ctrl0 = 0;
    uint8_t ctrl1 = 0;
};

// A setting is an extension item's record, read and written whole.
struct Setting {
    const char* name;
    const char* summary;  // for the help
    SettingKind kind;
    size_t fields;           // kFields: how many values
    const char* valueNames;  // what `set` takes, for the help
    int item;                // the extension item that holds it
    bool read;               // false: can't be read
    bool write;              // false: can't be written
};

const std::vector<Setting>& Settings();

// What a value of the kind may be, for the help.
const char* ValueHelp(SettingKind kind);

// "roi, mjpeg-qp, ..." of the settings that can be read (or written).
std::string SettingNames(bool writable);

// What `get` and `set` were given besides the setting.
struct SettingOptions {
    std::vector<std::string> values;
    bool hex = false;
    std::string mode = "0";
    std::string ctrl0 = "0";
    std::string ctrl1 = "0";
};

// Checks and converts what `set` was given. Throws ValueError.
SettingValue ParseSetting(const Setting& setting, const SettingOptions& options);
// The lens motor's mode for `get`. Throws ValueError.
int ParseMode(const SettingOptions& options);

// The item's record that holds `value` (the lens motor's: its write record).
RecordBuffer SettingRecord(const Setting& setting, const SettingValue& value);
// The value the item's read record holds (the lens motor's: its value for `mode`).
SettingValue SettingFromRecord(const Setting& setting, const RecordBuffer& record, int mode);

}  // namespace tarvikctl
