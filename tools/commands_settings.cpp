// get, set and exposure.
#include <cstring>

#include "commands.h"
#include "text_format.h"
#include "value_parse.h"

namespace tarvikctl {

namespace {

constexpr int kModeFlag = 4;  // tarvik_eye_exposure.flags[4]: the eye's exposure mode

void ReplyValue(Session& session, const Setting& s, const SettingValue& v, bool hex) {
    Json json{{"setting", s.name}};
    std::string text;
    switch (s.kind) {
        case SettingKind::kFields: {
            const std::vector<int32_t> fields(v.fields.begin(), v.fields.begin() + s.fields);
            json["value"] = fields;
            for (int32_t f : fields) text += (text.empty() ? "" : " ") + std::to_string(f);
            break;
        }
        case SettingKind::kDeviceText:
            json["value"] = Printable(v.bytes.data(), v.bytes.size());
            json["hex"] = Hex(v.bytes.data(), v.bytes.size());
            text = hex ? Hex(v.bytes.data(), v.bytes.size())
                       : Printable(v.bytes.data(), v.bytes.size());
            break;
        case SettingKind::kLensMotor:
            json["value"] = v.motor;
            json["mode"] = v.mode;
            text = std::to_string(v.motor);
            break;
    }
    session.Out().Ok(json, text + "\n");
}

uint32_t Time(const std::string& text, const char* eye) {
    return static_cast<uint32_t>(
        ParseInteger(text, std::string(eye) + " exposure time", 0, UINT32_MAX));
}

int32_t Mode(const std::string& text, const char* eye) {
    return static_cast<int32_t>(
        ParseInteger(text, std::string(eye) + " exposure mode", INT32_MIN, INT32_MAX));
}

const char* Name(ExposureOp op) {
    static const char* const kNames[] = {"exposure get-times", "exposure set-times",
                                         "exposure get-range", "exposure get-mode",
                                         "exposure set-mode"};
    return kNames[static_cast<int>(op)];
}

void CheckCount(ExposureOp op, const std::vector<std::string>& values) {
    const bool sets = op == ExposureOp::kSetTimes || op == ExposureOp::kSetMode;
    if (sets && values.size() != 2) {
        throw ValueError(std::string(Name(op)) + " takes 2 values (left, right), got " +
                         std::to_string(values.size()));
    }
}

tarvik_exposure ReadBlock(Session& session, ExposureOp op) {
    RecordBuffer record;
    Check(session.Camera().ReadSetting(kExposureItem, 0, record), Name(op));
    tarvik_exposure block{};
    std::memcpy(&block, record.bytes, sizeof block);
    return block;
}

Json Eyes(const char* key, uint32_t left, uint32_t right) {
    return Json{{"left", {{key, left}}}, {"right", {{key, right}}}};
}

std::string EyesText(const std::string& left, const std::string& right) {
    return "left " + left + ", right " + right + "\n";
}

std::string Range(const tarvik_eye_exposure& eye) {
    return std::to_string(eye.min) + "-" + std::to_string(eye.max);
}

void ReplyBlock(Session& session, ExposureOp op, const tarvik_exposure& b) {
    const tarvik_eye_exposure& l = b.left;
    const tarvik_eye_exposure& r = b.right;
    if (op == ExposureOp::kGetTimes) {
        session.Out().Ok(Eyes("time", l.time, r.time),
                         EyesText(std::to_string(l.time), std::to_string(r.time)));
    } else if (op == ExposureOp::kGetRange) {
        session.Out().Ok(Json{{"left", {{"min", l.min}, {"max", l.max}}},
                              {"right", {{"min", r.min}, {"max", r.max}}}},
                         EyesText(Range(l), Range(r)));
    } else {
        const uint8_t lm = l.flags[kModeFlag], rm = r.flags[kModeFlag];
        session.Out().Ok(Eyes("mode", lm, rm), EyesText(std::to_string(lm), std::to_string(rm)));
    }
}

std::string Refusal(int result, const tarvik_exposure& b) {
    if (result == TARVIK_E_OUT_OF_RANGE) {
        return "an exposure time is outside its eye's range (left " + Range(b.left) + ", right " +
               Range(b.right) + ")";
    }
    return "an eye is not in manual exposure mode (modes: left " +
           std::to_string(b.left.flags[kModeFlag]) + ", right " +
           std::to_string(b.right.flags[kModeFlag]) + "; 'exposure set-mode 1 1' first)";
}

int SetTimes(Session& session, const std::vector<std::string>& values) {
    const uint32_t left = Time(values[0], "left");
    const uint32_t right = Time(values[1], "right");
    const int result = session.Camera().WriteExposureTimes(left, right);
    if (result == TARVIK_E_OUT_OF_RANGE || result == TARVIK_E_NOT_MANUAL) {
        const tarvik_exposure current = ReadBlock(session, ExposureOp::kSetTimes);
        throw ToolError(
            kExitFailed, result,
            "exposure set-times refused, nothing was written: " + Refusal(result, current));
    }
    Check(result, "exposure set-times");
    session.Out().Ok(Eyes("time", left, right), "");
    return kExitOk;
}

int SetMode(Session& session, const std::vector<std::string>& values) {
    const int32_t left = Mode(values[0], "left");
    const int32_t right = Mode(values[1], "right");
    if (left != right) {
        throw ToolError(kExitUsage, TARVIK_E_MODES_DIFFER,
                        "exposure set-mode: the two eyes' modes differ (left " +
                            std::to_string(left) + ", right " + std::to_string(right) +
                            "); they must be equal");
    }
    Check(session.Camera().WriteExposureMode(left, right), "exposure set-mode");
    const auto sent =
        static_cast<uint8_t>(static_cast<uint32_t>(left) & 0xFFu);  // the mode's low byte
    session.Out().Ok(Eyes("mode", sent, sent), "");
    return kExitOk;
}

}  // namespace

int RunGet(Session& session, const Setting& s, const SettingOptions& o) {
    const int mode = ParseMode(o);
    RecordBuffer record;
    Check(session.Camera().ReadSetting(s.item, mode, record), std::string("get ") + s.name);
    ReplyValue(session, s, SettingFromRecord(s, record, mode), o.hex);
    return kExitOk;
}

int RunSet(Session& session, const Setting& s, const SettingOptions& o) {
    const RecordBuffer record = SettingRecord(s, ParseSetting(s, o));
    Check(session.Camera().WriteSetting(s.item, record), std::string("set ") + s.name);
    session.Out().Ok(Json{{"setting", s.name}}, "");
    return kExitOk;
}

int RunExposure(Session& session, ExposureOp op, const std::vector<std::string>& values) {
    CheckCount(op, values);
    if (op == ExposureOp::kSetTimes) return SetTimes(session, values);
    if (op == ExposureOp::kSetMode) return SetMode(session, values);
    ReplyBlock(session, op, ReadBlock(session, op));
    return kExitOk;
}

}  // namespace tarvikctl
