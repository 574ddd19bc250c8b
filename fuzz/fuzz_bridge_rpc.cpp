// tarvik-bridge's side of a page's message on any bytes: one message, a call
// or its JSON-RPC error text. Beyond ASan and UBSan: every error is JSON with
// the id null or the message's own, a call names a method and carries no more
// than the limits let through, and base64 read back is what it was.
#include <string>
#include <string_view>

#include "fuzz_check.h"
#include "rpc.h"

using tarvik_bridge::Json;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const tarvik_bridge::Parsed p = tarvik_bridge::ParseMessage(text);
    if (p.outcome == tarvik_bridge::Parsed::kReply) {
        const Json reply = Json::parse(p.reply, nullptr, false);
        FUZZ_CHECK(!reply.is_discarded() && reply.contains("error") && reply.contains("id"));
        FUZZ_CHECK(reply["error"]["code"].is_number_integer());
    } else if (p.outcome == tarvik_bridge::Parsed::kCall) {
        FUZZ_CHECK(p.call.values.size() <= 32 && p.call.camera.size() <= 64 &&
                   p.call.item.size() <= 64);
        FUZZ_CHECK(p.call.id.is_string() || p.call.id.is_number() || p.call.id.is_null());
        for (const auto& [key, value] : p.call.values) {
            FUZZ_CHECK(!key.empty() && key.size() <= 64 && value.text.size() <= 256 &&
                       value.bytes.size() <= 1024 && value.numbers.size() <= 1024);
        }
    }
    std::vector<std::uint8_t> bytes;
    if (tarvik_bridge::FromBase64(text, bytes)) {
        FUZZ_CHECK(tarvik_bridge::Base64(bytes.data(), bytes.size()).size() == size);
    }
    return 0;
}
