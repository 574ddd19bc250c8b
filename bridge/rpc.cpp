#include "rpc.h"

#include <limits>

namespace tarvik_bridge {

namespace {

constexpr std::size_t kMaxName = 64;    // camera, item, a value's key
constexpr std::size_t kMaxKeys = 32;    // values in one call
constexpr std::size_t kMaxText = 256;   // one text value
constexpr std::size_t kMaxList = 1024;  // numbers in a list, bytes in a value

struct Refusal {
    int code;
    std::string message;
};

bool IsId(const Json& id) { return id.is_string() || id.is_number() || id.is_null(); }

bool Refuse(Refusal& r, int code, std::string message) {
    r = {code, std::move(message)};
    return false;
}

bool Name(const Json& params, const char* key, std::string& out, Refusal& r) {
    const auto it = params.find(key);
    if (it == params.end()) return Refuse(r, kInvalidParams, std::string(key) + " is missing");
    if (!it->is_string() || it->get_ref<const std::string&>().empty() ||
        it->get_ref<const std::string&>().size() > kMaxName) {
        return Refuse(r, kInvalidParams,
                      std::string(key) + " must be a name of 1 to 64 characters");
    }
    out = it->get<std::string>();
    return true;
}

bool Integer(const Json& j, std::int64_t& out) {
    if (j.is_number_integer() && !j.is_number_unsigned()) {
        out = j.get<std::int64_t>();
        return true;
    }
    if (j.is_number_unsigned() &&
        j.get<std::uint64_t>() <=
            static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        out = static_cast<std::int64_t>(j.get<std::uint64_t>());
        return true;
    }
    return false;
}

bool Value(const std::string& key, const Json& j, BusValue& v, Refusal& r) {
    const std::string what = "value " + key + ": ";
    if (key == "record" || key == "data") {
        v.kind = BusValue::kBytes;
        if (!j.is_string() || !FromBase64(j.get_ref<const std::string&>(), v.bytes) ||
            v.bytes.size() > kMaxList) {
            return Refuse(r, kInvalidParams, what + "bytes in base64 (at most 1024) expected");
        }
        return true;
    }
    if (j.is_boolean()) {
        v.kind = BusValue::kBool;
        v.number = j.get<bool>() ? 1 : 0;
        return true;
    }
    if (j.is_number()) {
        if (!Integer(j, v.number)) return Refuse(r, kInvalidParams, what + "not a 64-bit integer");
        return true;
    }
    if (j.is_string()) {
        if (j.get_ref<const std::string&>().size() > kMaxText) {
            return Refuse(r, kInvalidParams, what + "text over 256 bytes");
        }
        v.kind = BusValue::kText;
        v.text = j.get<std::string>();
        return true;
    }
    if (j.is_array()) {
        if (j.size() > kMaxList) return Refuse(r, kInvalidParams, what + "over 1024 numbers");
        v.kind = BusValue::kNumbers;
        for (const Json& n : j) {
            std::int64_t number = 0;
            if (!Integer(n, number)) {
                return Refuse(r, kInvalidParams, what + "a list of 64-bit integers expected");
            }
            v.numbers.push_back(number);
        }
        return true;
    }
    return Refuse(r, kInvalidParams,
                  what + "a number, a boolean, text or a list of numbers expected");
}

bool Values(const Json& params, const char* key, Call& call, Refusal& r) {
    const Json& values = params.at(key);
    if (!values.is_object())
        return Refuse(r, kInvalidParams, std::string(key) + " must be an object");
    if (values.size() > kMaxKeys)
        return Refuse(r, kInvalidParams, std::string(key) + ": over 32 keys");
    for (const auto& [name, value] : values.items()) {
        if (name.empty() || name.size() > kMaxName) {
            return Refuse(r, kInvalidParams, std::string(key) + ": a key of 1 to 64 characters");
        }
        BusValue v;
        if (!Value(name, value, v, r)) return false;
        call.values.emplace_back(name, std::move(v));
    }
    call.hasValues = true;
    return true;
}

struct MethodInfo {
    const char* name;
    Method method;
    std::vector<const char*> keys;  // parameters taken
};

const std::vector<MethodInfo>& Methods() {
    static const std::vector<MethodInfo> kMethods = {
        {"getCameras", Method::kGetCameras, {}},
        {"readItem", Method::kReadItem, {"camera", "item", "input"}},
        {"writeItem", Method::kWriteItem, {"camera", "item", "values"}},
        {"readCard", Method::kReadCard, {"camera", "thirdBlock"}},
        {"status", Method::kStatus, {"camera"}},
    };
    return kMethods;
}

bool Params(const MethodInfo& m, const Json& params, Call& call, Refusal& r) {
    for (const auto& [key, value] : params.items()) {
        bool known = false;
        for (const char* k : m.keys) known = known || key == k;
        if (!known) {
            return Refuse(
                r, kInvalidParams,
                std::string(m.name) + " takes no parameter '" + key.substr(0, kMaxName) + "'");
        }
    }
    switch (m.method) {
        case Method::kGetCameras:
            return true;
        case Method::kStatus:
            return Name(params, "camera", call.camera, r);
        case Method::kReadCard:
            if (!Name(params, "camera", call.camera, r)) return false;
            if (params.contains("thirdBlock")) {
                if (!params["thirdBlock"].is_boolean()) {
                    return Refuse(r, kInvalidParams, "thirdBlock must be true or false");
                }
                call.thirdBlock = params["thirdBlock"].get<bool>();
            }
            return true;
        case Method::kReadItem:
            if (!Name(params, "camera", call.camera, r) || !Name(params, "item", call.item, r)) {
                return false;
            }
            return !params.contains("input") || Values(params, "input", call, r);
        case Method::kWriteItem:
            if (!Name(params, "camera", call.camera, r) || !Name(params, "item", call.item, r)) {
                return false;
            }
            if (!params.contains("values")) return Refuse(r, kInvalidParams, "values is missing");
            return Values(params, "values", call, r);
    }
    return false;
}

}  // namespace

Parsed ParseMessage(std::string_view text) {
    Parsed out;
    const Json request = Json::parse(text.begin(), text.end(), nullptr, false);
    if (request.is_discarded()) {
        out.outcome = Parsed::kReply;
        out.reply = ErrorText(nullptr, kParseError, "not JSON");
        return out;
    }
    const auto invalid = [&out](const Json& id, const char* why) {
        out.outcome = Parsed::kReply;
        out.reply = ErrorText(id, kInvalidRequest, why);
        return out;
    };
    if (request.is_array()) return invalid(nullptr, "batches are not taken: one call a message");
    if (!request.is_object()) return invalid(nullptr, "a call is a JSON object");
    const bool notification = !request.contains("id");
    const Json id = notification ? Json() : request["id"];
    if (!IsId(id)) return invalid(nullptr, "id must be a string, a number or null");
    for (const auto& [key, value] : request.items()) {
        if (key != "jsonrpc" && key != "method" && key != "params" && key != "id") {
            return invalid(id, "a call has jsonrpc, method, params and id only");
        }
    }
    if (!request.contains("jsonrpc") || request["jsonrpc"] != "2.0") {
        return invalid(id, "jsonrpc must be \"2.0\"");
    }
    if (!request.contains("method") || !request["method"].is_string()) {
        return invalid(id, "method must be a string");
    }
    const Json params = request.contains("params") ? request["params"] : Json::object();
    if (!params.is_object() && !params.is_array()) {
        return invalid(id, "params must be an object");
    }
    if (notification) return out;  // neither run nor answered

    const std::string& name = request["method"].get_ref<const std::string&>();
    const MethodInfo* method = nullptr;
    for (const MethodInfo& m : Methods()) {
        if (name == m.name) method = &m;
    }
    if (method == nullptr) {
        out.outcome = Parsed::kReply;
        out.reply = ErrorText(id, kMethodNotFound, "no such method");
        return out;
    }
    Refusal refusal{0, ""};
    if (params.is_array()) {
        refusal = {kInvalidParams, "params by name: an object"};
    } else {
        out.call.method = method->method;
        if (Params(*method, params, out.call, refusal)) {
            out.outcome = Parsed::kCall;
            out.call.id = id;
            return out;
        }
    }
    out.outcome = Parsed::kReply;
    out.reply = ErrorText(id, refusal.code, refusal.message);
    return out;
}

namespace {

std::string Dump(const Json& j) { return j.dump(-1, ' ', false, Json::error_handler_t::replace); }

}  // namespace

std::string ResultText(const Json& id, const Json& result) {
    return Dump(Json{{"jsonrpc", "2.0"}, {"id", id}, {"result", result}});
}

std::string ErrorText(const Json& id, int code, std::string_view message, std::string_view name) {
    Json error{{"code", code}, {"message", message}};
    if (!name.empty()) error["data"] = Json{{"name", name}};
    return Dump(Json{{"jsonrpc", "2.0"}, {"id", id}, {"error", std::move(error)}});
}

std::string NotificationText(std::string_view method, const Json& params) {
    return Dump(Json{{"jsonrpc", "2.0"}, {"method", method}, {"params", params}});
}

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int Sextet(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

}  // namespace

std::string Base64(const std::uint8_t* data, std::size_t size) {
    std::string out;
    out.reserve((size + 2) / 3 * 4);
    for (std::size_t i = 0; i < size; i += 3) {
        const std::uint32_t n = std::uint32_t{data[i]} << 16 |
                                (i + 1 < size ? std::uint32_t{data[i + 1]} << 8 : 0u) |
                                (i + 2 < size ? std::uint32_t{data[i + 2]} : 0u);
        out += kAlphabet[n >> 18 & 63];
        out += kAlphabet[n >> 12 & 63];
        out += i + 1 < size ? kAlphabet[n >> 6 & 63] : '=';
        out += i + 2 < size ? kAlphabet[n & 63] : '=';
    }
    return out;
}

bool FromBase64(std::string_view text, std::vector<std::uint8_t>& out) {
    out.clear();
    if (text.size() % 4 != 0) return false;
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        const int pad =
            last ? (text[i + 3] == '=') + (text[i + 2] == '=' && text[i + 3] == '=') : 0;
        std::uint32_t n = 0;
        for (std::size_t k = 0; k < 4; ++k) {
            const int s = k >= 4u - static_cast<unsigned>(pad) ? 0 : Sextet(text[i + k]);
            if (s < 0) return false;
            n = n << 6 | static_cast<std::uint32_t>(s);
        }
        out.push_back(static_cast<std::uint8_t>(n >> 16));
        if (pad < 2) out.push_back(static_cast<std::uint8_t>(n >> 8 & 0xff));
        if (pad < 1) out.push_back(static_cast<std::uint8_t>(n & 0xff));
    }
    return true;
}

}  // namespace tarvik_bridge
