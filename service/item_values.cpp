#include "item_values.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

namespace tarvikd {

namespace {

constexpr std::size_t kMaxKeys = 32;
constexpr std::size_t kMaxText = 256;
constexpr std::size_t kMaxArray = 1024;
constexpr std::size_t kMaxRecord = 256;
constexpr std::size_t kDeviceText = 20;
constexpr std::size_t kBlockData = sizeof(tarvik_data_block::data);

int Refuse(std::string& why, const std::string& text) {
    why = text;
    return -EINVAL;
}

bool IntegerType(char type) { return std::strchr("ynqiuxtb", type) != nullptr && type != '\0'; }

int ReadInteger(sd_bus_message* m, char type, std::int64_t& out) {
    union {
        std::uint8_t y;
        std::int16_t n;
        std::uint16_t q;
        std::int32_t i;
        std::uint32_t u;
        std::int64_t x;
        std::uint64_t t;
        int b;
    } v{};
    const char signature[2] = {type, '\0'};
    const int r = sd_bus_message_read_basic(m, signature[0], &v);
    if (r < 0) return r;
    switch (type) {
        case 'y':
            out = v.y;
            break;
        case 'n':
            out = v.n;
            break;
        case 'q':
            out = v.q;
            break;
        case 'i':
            out = v.i;
            break;
        case 'u':
            out = v.u;
            break;
        case 'x':
            out = v.x;
            break;
        case 'b':
            out = v.b != 0;
            break;
        default:
            if (v.t > static_cast<std::uint64_t>(INT64_MAX)) return -ERANGE;
            out = static_cast<std::int64_t>(v.t);
    }
    return 0;
}

// One variant's contents, already entered.
int ReadValue(sd_bus_message* m, const std::string& key, const char* contents, Value& value,
              std::string& why) {
    const std::string type = contents;
    if (type.size() == 1 && IntegerType(type[0])) {
        value.kind = Value::kNumber;
        const int r = ReadInteger(m, type[0], value.number);
        return r == -ERANGE ? Refuse(why, "value of " + key + ": out of range") : r;
    }
    if (type == "s") {
        const char* text = nullptr;
        const int r = sd_bus_message_read_basic(m, 's', &text);
        if (r < 0) return r;
        if (std::strlen(text) > kMaxText) return Refuse(why, "value of " + key + ": text too long");
        value.kind = Value::kText;
        value.text = text;
        return 0;
    }
    if (type == "ay") {
        const void* data = nullptr;
        std::size_t size = 0;
        const int r = sd_bus_message_read_array(m, 'y', &data, &size);
        if (r < 0) return r;
        if (size > kMaxArray) return Refuse(why, "value of " + key + ": too many bytes");
        value.kind = Value::kBytes;
        const auto* bytes = static_cast<const std::uint8_t*>(data);
        value.bytes.assign(bytes, bytes + size);
        return 0;
    }
    if (type.size() == 2 && type[0] == 'a' && IntegerType(type[1])) {
        int r = sd_bus_message_enter_container(m, 'a', type.c_str() + 1);
        if (r < 0) return r;
        value.kind = Value::kNumbers;
        while ((r = sd_bus_message_at_end(m, false)) == 0) {
            if (value.numbers.size() == kMaxArray) {
                return Refuse(why, "value of " + key + ": too many numbers");
            }
            std::int64_t n = 0;
            r = ReadInteger(m, type[1], n);
            if (r == -ERANGE) return Refuse(why, "value of " + key + ": out of range");
            if (r < 0) return r;
            value.numbers.push_back(n);
        }
        if (r < 0) return r;
        return sd_bus_message_exit_container(m);
    }
    return Refuse(why, "value of " + key + ": type '" + type.substr(0, 16) +
                           "' not taken (numbers, text, bytes or a list of numbers)");
}

}  // namespace

int ReadValues(sd_bus_message* m, Values& values, std::string& why) {
    int r = sd_bus_message_enter_container(m, 'a', "{sv}");
    if (r < 0) return Refuse(why, "expected a dictionary a{sv}");
    while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
        const char* key = nullptr;
        if ((r = sd_bus_message_read_basic(m, 's', &key)) < 0) return r;
        if (std::strlen(key) > 64) return Refuse(why, "a key is too long");
        if (values.count(key) != 0) return Refuse(why, std::string("key ") + key + " given twice");
        if (values.size() == kMaxKeys) return Refuse(why, "too many keys");
        const char* contents = nullptr;
        if ((r = sd_bus_message_peek_type(m, nullptr, &contents)) < 0) return r;
        if ((r = sd_bus_message_enter_container(m, 'v', contents)) < 0) return r;
        Value value;
        if ((r = ReadValue(m, key, contents, value, why)) < 0) return r;
        if ((r = sd_bus_message_exit_container(m)) < 0) return r;
        if ((r = sd_bus_message_exit_container(m)) < 0) return r;
        values.emplace(key, std::move(value));
    }
    if (r < 0) return r;
    return sd_bus_message_exit_container(m);
}

int AppendValues(sd_bus_message* m, const Values& values) {
    int r = sd_bus_message_open_container(m, 'a', "{sv}");
    for (auto it = values.begin(); r >= 0 && it != values.end(); ++it) {
        const Value& v = it->second;
        r = sd_bus_message_open_container(m, 'e', "sv");
        if (r >= 0) r = sd_bus_message_append_basic(m, 's', it->first.c_str());
        switch (v.kind) {
            case Value::kNumber:
                if (r >= 0) r = sd_bus_message_append(m, "v", "x", v.number);
                break;
            case Value::kText:
                if (r >= 0) r = sd_bus_message_append(m, "v", "s", v.text.c_str());
                break;
            case Value::kBytes:
                if (r >= 0) r = sd_bus_message_open_container(m, 'v', "ay");
                if (r >= 0) r = sd_bus_message_append_array(m, 'y', v.bytes.data(), v.bytes.size());
                if (r >= 0) r = sd_bus_message_close_container(m);
                break;
            case Value::kNumbers:
                if (r >= 0) r = sd_bus_message_open_container(m, 'v', "ax");
                if (r >= 0) {
                    r = sd_bus_message_append_array(m, 'x', v.numbers.data(),
                                                    v.numbers.size() * sizeof(std::int64_t));
                }
                if (r >= 0) r = sd_bus_message_close_container(m);
                break;
        }
        if (r >= 0) r = sd_bus_message_close_container(m);
    }
    if (r >= 0) r = sd_bus_message_close_container(m);
    return r;
}

namespace {

Value Number(std::int64_t n) {
    Value v;
    v.number = n;
    return v;
}

Value Bytes(const std::uint8_t* data, std::size_t size) {
    Value v;
    v.kind = Value::kBytes;
    v.bytes.assign(data, data + size);
    return v;
}

Value Text(std::string text) {
    Value v;
    v.kind = Value::kText;
    v.text = std::move(text);
    return v;
}

std::string Hex(const std::uint8_t* data, std::size_t size) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (std::size_t i = 0; i < size; ++i) {
        out += kDigits[data[i] >> 4];
        out += kDigits[data[i] & 15];
    }
    return out;
}

// Text up to its first zero byte; bytes that are not printable ASCII show as '.'.
std::string Printable(const std::uint8_t* data, std::size_t size) {
    std::string out;
    for (std::size_t i = 0; i < size && data[i] != 0; ++i) {
        out += data[i] >= 0x20 && data[i] < 0x7f ? static_cast<char>(data[i]) : '.';
    }
    return out;
}

// The keys a call takes: anything else is refused by name.
int OnlyKeys(const Values& values, const std::set<std::string>& keys, const std::string& item,
             std::string& why) {
    for (const auto& [key, value] : values) {
        if (keys.count(key) != 0) continue;
        std::string list;
        for (const std::string& k : keys) list += (list.empty() ? "" : ", ") + k;
        return Refuse(why, "item " + item + " takes no value " + key +
                               (list.empty() ? " (it takes none)" : " (it takes: " + list + ")"));
    }
    return 0;
}

int Integer(const Values& values, const std::string& key, std::int64_t low, std::int64_t high,
            std::int64_t& out, std::string& why, bool required = true) {
    const auto it = values.find(key);
    if (it == values.end()) {
        return required ? Refuse(why, "value " + key + " is missing") : 0;
    }
    if (it->second.kind != Value::kNumber) return Refuse(why, "value " + key + " is not a number");
    if (it->second.number < low || it->second.number > high) {
        return Refuse(why, "value " + key + " is out of range (" + std::to_string(low) + "-" +
                               std::to_string(high) + ")");
    }
    out = it->second.number;
    return 0;
}

constexpr std::int64_t kInt32Low = INT32_MIN;
constexpr std::int64_t kWord = UINT32_MAX;  // 32-bit values: signed or unsigned

int Fields(const Values& values, std::size_t count, std::vector<std::int32_t>& out,
           std::string& why) {
    const auto it = values.find("value");
    if (it == values.end()) return Refuse(why, "value value is missing");
    std::vector<std::int64_t> numbers = it->second.numbers;
    if (it->second.kind == Value::kNumber) numbers = {it->second.number};
    if (it->second.kind != Value::kNumbers && it->second.kind != Value::kNumber) {
        return Refuse(why, "value value is not a list of numbers");
    }
    if (numbers.size() != count) {
        return Refuse(why, "value takes " + std::to_string(count) + " numbers, got " +
                               std::to_string(numbers.size()));
    }
    for (std::int64_t n : numbers) {
        if (n < kInt32Low || n > kWord) return Refuse(why, "value: a number is not 32-bit");
        out.push_back(static_cast<std::int32_t>(static_cast<std::uint32_t>(n)));
    }
    return 0;
}

struct Eyes {
    tarvik_eye_exposure tarvik_exposure::*eye;
    const char* prefix;
};
constexpr Eyes kEyes[] = {{&tarvik_exposure::left, "left_"}, {&tarvik_exposure::right, "right_"}};
constexpr int kModeFlag = 4;

void DescribeRecord(const std::string& item, const std::uint8_t* record, std::size_t size,
                    Values& out) {
    out["record"] = Bytes(record, size);
    if (item == "et" && size >= sizeof(tarvik_exposure)) {
        tarvik_exposure e{};
        std::memcpy(&e, record, sizeof e);
        for (const Eyes& eyes : kEyes) {
            const tarvik_eye_exposure& eye = e.*(eyes.eye);
            const std::string p = eyes.prefix;
            out[p + "time"] = Number(eye.time);
            out[p + "min"] = Number(eye.min);
            out[p + "max"] = Number(eye.max);
            out[p + "mode"] = Number(eye.flags[kModeFlag]);
        }
    } else if (item == "mjpeg-qp" || item == "roi") {
        Value v;
        v.kind = Value::kNumbers;
        for (std::size_t at = 0; at + 4 <= size; at += 4) {
            std::int32_t n = 0;
            std::memcpy(&n, record + at, 4);
            v.numbers.push_back(n);
        }
        out["value"] = v;
    } else if ((item == "roi-status" || item == "stream-state") && size == 4) {
        std::uint32_t n = 0;
        std::memcpy(&n, record, 4);
        out["value"] = Number(n);
    } else if ((item == "last-id" || item == "vcm") && size == 2) {
        std::uint16_t n = 0;
        std::memcpy(&n, record, 2);
        out["value"] = Number(n);
    } else if (item == "version" || item == "device-sn" || item == "device-id") {
        out["value"] = Text(Printable(record, size));
        out["hex"] = Text(Hex(record, size));
    }
}

}  // namespace

int MakeRead(const std::string& item, const Values& input, ItemCall& call, std::string& why) {
    tarvik_item_info info{};
    if (tarvik_item_by_name(item.c_str(), &info) != 0) {
        why = "no item named '" + item.substr(0, 32) + "'";
        return TARVIK_E_INVALID_ARGUMENT;
    }
    if (info.number == 12) {
        why = "item sam is read with SamCommand and ReadCard";
        return TARVIK_E_NOT_HANDLED;
    }
    if (info.read_size < 0 || static_cast<std::size_t>(info.read_size) > kMaxRecord) {
        why = "item " + item + " is not read";
        return TARVIK_E_NOT_HANDLED;
    }
    const std::size_t size = static_cast<std::size_t>(info.read_size);
    if (item == "gyro") {
        if (OnlyKeys(input, {}, item, why) < 0) return TARVIK_E_INVALID_ARGUMENT;
        call = [](tarvik_camera* c, Values& out) {
            std::int32_t pitch = 0;
            std::int32_t roll = 0;
            const int r = tarvik_read_gyro(c, &pitch, &roll);
            if (r == 0) {
                out["pitch"] = Number(pitch);
                out["roll"] = Number(roll);
            }
            return r;
        };
        return 0;
    }
    if (item == "data-block") {
        std::int64_t target = 0, offset = 0, length = static_cast<std::int64_t>(kBlockData);
        if (OnlyKeys(input, {"target", "offset", "length"}, item, why) < 0 ||
            Integer(input, "target", 0, 255, target, why, false) < 0 ||
            Integer(input, "offset", 0, 65535, offset, why, false) < 0 ||
            Integer(input, "length", 0, kBlockData, length, why, false) < 0) {
            return TARVIK_E_INVALID_ARGUMENT;
        }
        call = [target, offset, length](tarvik_camera* c, Values& out) {
            tarvik_data_block block{};
            block.target = static_cast<std::uint8_t>(target);
            block.offset = static_cast<std::uint16_t>(offset);
            block.length = static_cast<std::uint8_t>(length);
            const int r = tarvik_read_item(c, 10, nullptr, &block, sizeof block);
            if (r == 0) {
                out["record"] = Bytes(reinterpret_cast<const std::uint8_t*>(&block), sizeof block);
                out["target"] = Number(block.target);
                out["offset"] = Number(block.offset);
                out["data"] = Bytes(block.data, std::min<std::size_t>(block.length, kBlockData));
            }
            return r;
        };
        return 0;
    }
    std::int64_t mode = 0;
    const bool lens = item == "vcm";
    if (OnlyKeys(input, lens ? std::set<std::string>{"mode"} : std::set<std::string>{}, item, why) <
            0 ||
        Integer(input, "mode", 0, 255, mode, why, false) < 0) {
        return TARVIK_E_INVALID_ARGUMENT;
    }
    const int number = info.number;
    call = [item, number, size, lens, mode](tarvik_camera* c, Values& out) {
        alignas(8) std::uint8_t record[kMaxRecord] = {};
        const int m = static_cast<int>(mode);
        const int r = tarvik_read_item(c, number, lens ? &m : nullptr, record, size);
        if (r == 0) DescribeRecord(item, record, size, out);
        if (r == 0 && lens) out["mode"] = Number(mode);
        return r;
    };
    return 0;
}

namespace {

ItemCall WriteRecord(int number, std::vector<std::uint8_t> record) {
    return [number, record](tarvik_camera* c, Values&) {
        alignas(8) std::uint8_t aligned[kMaxRecord] = {};
        std::copy(record.begin(), record.end(), aligned);
        return tarvik_write_item(c, number, aligned, record.size());
    };
}

int MakeExposureWrite(const Values& v, ItemCall& call, std::string& why) {
    const bool times = v.count("left_time") != 0 || v.count("right_time") != 0;
    const char* what = times ? "time" : "mode";
    if (OnlyKeys(v, {std::string("left_") + what, std::string("right_") + what}, "et", why) < 0) {
        return TARVIK_E_INVALID_ARGUMENT;
    }
    std::int64_t left = 0, right = 0;
    const std::int64_t low = times ? 0 : kInt32Low;
    const std::int64_t high = times ? kWord : INT32_MAX;
    if (Integer(v, std::string("left_") + what, low, high, left, why) < 0 ||
        Integer(v, std::string("right_") + what, low, high, right, why) < 0) {
        return TARVIK_E_INVALID_ARGUMENT;
    }
    if (times) {
        call = [left, right](tarvik_camera* c, Values&) {
            return tarvik_write_exposure_times(c, static_cast<std::uint32_t>(left),
                                               static_cast<std::uint32_t>(right));
        };
    } else {
        call = [left, right](tarvik_camera* c, Values&) {
            return tarvik_write_exposure_mode(c, static_cast<std::int32_t>(left),
                                              static_cast<std::int32_t>(right));
        };
    }
    return 0;
}

int MakeDeviceText(const std::string& item, int number, const Values& v, ItemCall& call,
                   std::string& why) {
    if (OnlyKeys(v, {"value"}, item, why) < 0) return TARVIK_E_INVALID_ARGUMENT;
    const auto it = v.find("value");
    if (it == v.end() || it->second.kind != Value::kText) {
        why = "value value is missing or not text";
        return TARVIK_E_INVALID_ARGUMENT;
    }
    const std::string& text = it->second.text;
    const bool printable =
        std::all_of(text.begin(), text.end(), [](char ch) { return ch >= 0x20 && ch < 0x7f; });
    if (text.size() > kDeviceText || !printable) {
        why = "value: at most 20 printable ASCII characters";
        return TARVIK_E_INVALID_ARGUMENT;
    }
    std::vector<std::uint8_t> record(kDeviceText, 0);
    std::copy(text.begin(), text.end(), record.begin());
    call = WriteRecord(number, record);
    return 0;
}

}  // namespace

int MakeWrite(const std::string& item, const Values& v, ItemCall& call, std::string& why) {
    tarvik_item_info info{};
    if (tarvik_item_by_name(item.c_str(), &info) != 0) {
        why = "no item named '" + item.substr(0, 32) + "'";
        return TARVIK_E_INVALID_ARGUMENT;
    }
    if (info.write_size < 0 || static_cast<std::size_t>(info.write_size) > kMaxRecord) {
        why = "item " + item + " is not written";
        return TARVIK_E_NOT_HANDLED;
    }
    const std::size_t size = static_cast<std::size_t>(info.write_size);
    const int number = info.number;
    if (v.count("record") != 0) {
        const Value& record = v.at("record");
        if (OnlyKeys(v, {"record"}, item, why) < 0) return TARVIK_E_INVALID_ARGUMENT;
        if (record.kind != Value::kBytes || record.bytes.size() != size) {
            why = "record of " + item + ": " + std::to_string(size) + " bytes";
            return TARVIK_E_INVALID_ARGUMENT;
        }
        call = WriteRecord(number, record.bytes);
        return 0;
    }
    std::vector<std::int32_t> fields;
    std::int64_t a = 0, b = 0, c = 0, d = 0;
    if (item == "et") return MakeExposureWrite(v, call, why);
    if (item == "device-sn" || item == "device-id")
        return MakeDeviceText(item, number, v, call, why);
    if (item == "roi" || item == "mjpeg-qp" || item == "gpio" || item == "status-led" ||
        item == "beep" || item == "uvc-mode") {
        if (OnlyKeys(v, {"value"}, item, why) < 0 || Fields(v, size / 4, fields, why) < 0) {
            return TARVIK_E_INVALID_ARGUMENT;
        }
        std::vector<std::uint8_t> record(size);
        std::memcpy(record.data(), fields.data(), size);
        call = WriteRecord(number, record);
        return 0;
    }
    if (item == "vcm") {
        if (OnlyKeys(v, {"value", "mode", "ctrl0", "ctrl1"}, item, why) < 0 ||
            Integer(v, "value", 0, 65535, a, why) < 0 ||
            Integer(v, "mode", 0, 255, b, why, false) < 0 ||
            Integer(v, "ctrl0", 0, 255, c, why, false) < 0 ||
            Integer(v, "ctrl1", 0, 255, d, why, false) < 0) {
            return TARVIK_E_INVALID_ARGUMENT;
        }
        call = [a, b, c, d](tarvik_camera* cam, Values&) {
            return tarvik_write_vcm(cam, static_cast<int>(b), static_cast<std::uint16_t>(a),
                                    static_cast<std::uint8_t>(c), static_cast<std::uint8_t>(d));
        };
        return 0;
    }
    if (item == "data-block") {
        const auto data = v.find("data");
        if (OnlyKeys(v, {"target", "offset", "data"}, item, why) < 0 ||
            Integer(v, "target", 0, 255, a, why, false) < 0 ||
            Integer(v, "offset", 0, 65535, b, why, false) < 0) {
            return TARVIK_E_INVALID_ARGUMENT;
        }
        if (data == v.end() || data->second.kind != Value::kBytes ||
            data->second.bytes.size() > kBlockData) {
            why = "value data: at most 48 bytes";
            return TARVIK_E_INVALID_ARGUMENT;
        }
        tarvik_data_block block{};
        block.target = static_cast<std::uint8_t>(a);
        block.offset = static_cast<std::uint16_t>(b);
        block.length = static_cast<std::uint8_t>(data->second.bytes.size());
        std::copy(data->second.bytes.begin(), data->second.bytes.end(), block.data);
        const auto* raw = reinterpret_cast<const std::uint8_t*>(&block);
        call = WriteRecord(number, std::vector<std::uint8_t>(raw, raw + sizeof block));
        return 0;
    }
    why = "item " + item + " is written as its record (value record, " + std::to_string(size) +
          " bytes)";
    return TARVIK_E_INVALID_ARGUMENT;
}

}  // namespace tarvikd
