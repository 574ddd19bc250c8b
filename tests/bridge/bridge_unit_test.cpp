// tarvik-bridge's pure parts: the listen address, the origins allowed, the
// upgrade's verdict, and each message from a page turned into a call or an
// error.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "access.h"
#include "rpc.h"

namespace tarvik_bridge {
namespace {

TEST(BridgeAccess, OnlyLoopbackAddressesAreListenedOn) {
    const struct {
        const char* text;
        const char* address;  // nullptr: refused
        unsigned port;
    } kCases[] = {
        {"127.0.0.1:8737", "127.0.0.1", 8737},
        {"127.4.5.6:0", "127.4.5.6", 0},
        {"[::1]:65535", "::1", 65535},
        {"0.0.0.0:8737", nullptr, 0},
        {"192.168.1.20:8737", nullptr, 0},
        {"[::]:8737", nullptr, 0},
        {"[::ffff:127.0.0.1]:8737", nullptr, 0},
        {"::1:8737", nullptr, 0},  // IPv6 without brackets
        {"[127.0.0.1]:8737", nullptr, 0},
        {"localhost:8737", nullptr, 0},
        {"127.0.0.1:65536", nullptr, 0},
        {"127.0.0.1:-1", nullptr, 0},
        {"127.0.0.1:", nullptr, 0},
        {"127.0.0.1", nullptr, 0},
        {"127.0.0.1:80x", nullptr, 0},
    };
    for (const auto& c : kCases) {
        ListenAddress listen;
        std::string why;
        const bool ok = ParseListen(c.text, listen, why);
        EXPECT_EQ(ok, c.address != nullptr) << c.text << ": " << why;
        if (ok && c.address != nullptr) {
            EXPECT_EQ(listen.address, c.address) << c.text;
            EXPECT_EQ(listen.port, c.port) << c.text;
        } else {
            EXPECT_FALSE(why.empty()) << c.text;
        }
    }
}

TEST(BridgeAccess, OriginsAreTakenAsBrowsersSendThem) {
    const struct {
        const char* origin;
        bool ok;
    } kCases[] = {
        {"http://127.0.0.1:8000", true},
        {"https://kiosk.example.org", true},
        {"http://[::1]:8000", true},
        {"null", false},
        {"http://127.0.0.1:8000/", false},
        {"https://kiosk.example.org/page", false},
        {"https://Kiosk.example.org", false},
        {"HTTPS://kiosk.example.org", false},
        {"https://*.example.org", false},
        {"kiosk.example.org", false},
        {"https://", false},
        {"://x", false},
    };
    for (const auto& c : kCases) {
        std::string why;
        EXPECT_EQ(CheckOriginSyntax(c.origin, why), c.ok) << c.origin << ": " << why;
    }
}

TEST(BridgeAccess, AnUpgradeNeedsTheBridgesHostAndAnAllowedOrigin) {
    using Fields = std::vector<std::string>;
    const std::vector<std::string> allowed = {"http://127.0.0.1:8000", "https://kiosk.example.org"};
    ListenAddress v4{"127.0.0.1", 0, false};
    ListenAddress v6{"::1", 0, true};
    const struct {
        const ListenAddress* listen;
        unsigned short port;
        Fields hosts;
        Fields origins;
        int status;
        const char* reason;  // a word of it
    } kCases[] = {
        {&v4, 8737, {"127.0.0.1:8737"}, {"http://127.0.0.1:8000"}, 0, ""},
        {&v4, 8737, {"localhost:8737"}, {"https://kiosk.example.org"}, 0, ""},
        {&v4, 8737, {"LocalHost:8737"}, {"https://kiosk.example.org"}, 0, ""},
        {&v6, 8737, {"[::1]:8737"}, {"http://127.0.0.1:8000"}, 0, ""},
        {&v4, 80, {"127.0.0.1"}, {"http://127.0.0.1:8000"}, 0, ""},
        {&v4, 80, {"evil.example"}, {"http://127.0.0.1:8000"}, 403, "Host"},
        // DNS rebinding: a name of the attacker's that resolves to loopback.
        {&v4, 8737, {"evil.example:8737"}, {"http://127.0.0.1:8000"}, 403, "Host"},
        {&v4, 8737, {"127.0.0.1:8738"}, {"http://127.0.0.1:8000"}, 403, "Host"},
        {&v4, 8737, {"127.0.0.1"}, {"http://127.0.0.1:8000"}, 403, "Host"},
        {&v4, 8737, {"127.0.0.2:8737"}, {"http://127.0.0.1:8000"}, 403, "Host"},
        {&v4, 8737, {"[::1]:8737"}, {"http://127.0.0.1:8000"}, 403, "Host"},
        {&v4, 8737, {}, {"http://127.0.0.1:8000"}, 403, "no Host"},
        {&v4, 8737, {"127.0.0.1:8737", "127.0.0.1:8737"}, {"http://127.0.0.1:8000"}, 403, "more"},
        {&v4, 8737, {"127.0.0.1:8737"}, {}, 403, "no Origin"},
        {&v4, 8737, {"127.0.0.1:8737"}, {"null"}, 403, "not allowed"},
        {&v4, 8737, {"127.0.0.1:8737"}, {"http://127.0.0.1:8000/"}, 403, "not allowed"},
        {&v4, 8737, {"127.0.0.1:8737"}, {"HTTP://127.0.0.1:8000"}, 403, "not allowed"},
        {&v4, 8737, {"127.0.0.1:8737"}, {"http://127.0.0.1:8000", "http://evil"}, 403, "more"},
    };
    for (const auto& c : kCases) {
        const Verdict v = JudgeUpgrade(*c.listen, c.port, allowed, c.hosts, c.origins);
        const std::string where =
            (c.hosts.empty() ? "-" : c.hosts[0]) + " " + (c.origins.empty() ? "-" : c.origins[0]);
        EXPECT_EQ(v.status, c.status) << where;
        EXPECT_NE(v.reason.find(c.reason), std::string::npos) << where << ": " << v.reason;
    }
    // With no origin allowed, every page is refused.
    EXPECT_EQ(JudgeUpgrade(v4, 8737, {}, {"127.0.0.1:8737"}, {"http://127.0.0.1:8000"}).status,
              403);
}

// The error code a message gets back, or kCall or kNothing.
constexpr int kCall = 1;
constexpr int kNothing = 2;
int Outcome(const std::string& text) {
    const Parsed p = ParseMessage(text);
    if (p.outcome == Parsed::kCall) return kCall;
    if (p.outcome == Parsed::kNothing) return kNothing;
    const Json reply = Json::parse(p.reply);
    EXPECT_EQ(reply["jsonrpc"], "2.0");
    return reply["error"]["code"].get<int>();
}

std::string Req(const std::string& method, const std::string& params) {
    return R"({"jsonrpc":"2.0","id":7,"method":")" + method + R"(","params":)" + params + "}";
}

TEST(BridgeRpc, EveryMessageBecomesACallOrTheRightError) {
    const std::string cam = R"("camera":"SN1")";
    const std::string big(70000, '[');
    std::string keys;  // 32 values, the most a call may carry
    for (int i = 0; i < 32; ++i) keys += "\"k" + std::to_string(i) + "\":1,";
    const std::string values32 = "{" + cam + R"(,"item":"x","values":{)" + keys;
    const struct {
        std::string text;
        int outcome;
    } kCases[] = {
        {Req("getCameras", "{}"), kCall},
        {R"({"jsonrpc":"2.0","id":"a","method":"getCameras"})", kCall},
        {Req("status", "{" + cam + "}"), kCall},
        {Req("readItem", "{" + cam + R"(,"item":"vcm","input":{"mode":1}})"), kCall},
        {Req("writeItem", "{" + cam + R"(,"item":"roi","values":{"value":[1,2,3,4]}})"), kCall},
        {Req("writeItem",
             "{" + cam + R"(,"item":"x","values":{"record":"AAECAw==","b":true,"s":"t"}})"),
         kCall},
        {Req("readCard", "{" + cam + R"(,"thirdBlock":true})"), kCall},
        {Req("writeItem", values32 + R"("k32":1}})"), kInvalidParams},
        {Req("writeItem", values32.substr(0, values32.size() - 1) + "}}"), kCall},
        // Not JSON at all.
        {"", kParseError},
        {"garbage", kParseError},
        {"{\"jsonrpc\":\"2.0\",", kParseError},
        {"\xff\xfe", kParseError},
        {big, kParseError},
        // Not a request.
        {"[]", kInvalidRequest},
        {"[" + Req("getCameras", "{}") + "]", kInvalidRequest},
        {"42", kInvalidRequest},
        {R"({"id":1,"method":"getCameras"})", kInvalidRequest},
        {R"({"jsonrpc":"1.0","id":1,"method":"getCameras"})", kInvalidRequest},
        {R"({"jsonrpc":"2.0","id":1,"method":5})", kInvalidRequest},
        {R"({"jsonrpc":"2.0","id":{},"method":"getCameras"})", kInvalidRequest},
        {R"({"jsonrpc":"2.0","id":[1],"method":"getCameras"})", kInvalidRequest},
        {R"({"jsonrpc":"2.0","id":1,"method":"status","params":"SN1"})", kInvalidRequest},
        {R"({"jsonrpc":"2.0","id":1,"method":"getCameras","extra":1})", kInvalidRequest},
        // Notifications are neither run nor answered.
        {R"({"jsonrpc":"2.0","method":"readCard","params":{"camera":"SN1"}})", kNothing},
        {R"({"jsonrpc":"2.0","method":"nope"})", kNothing},
        {Req("nope", "{}"), kMethodNotFound},
        {Req("ReadCard", "{}"), kMethodNotFound},
        // Parameters of the wrong kind.
        {Req("status", "[\"SN1\"]"), kInvalidParams},
        {Req("status", "{}"), kInvalidParams},
        {Req("status", R"({"camera":5})"), kInvalidParams},
        {Req("status", R"({"camera":""})"), kInvalidParams},
        {Req("status", R"({"camera":")" + std::string(65, 'c') + "\"}"), kInvalidParams},
        {Req("status", "{" + cam + R"(,"other":1})"), kInvalidParams},
        {Req("getCameras", R"({"camera":"SN1"})"), kInvalidParams},
        {Req("readCard", "{" + cam + R"(,"thirdBlock":1})"), kInvalidParams},
        {Req("readItem", "{" + cam + "}"), kInvalidParams},
        {Req("readItem", "{" + cam + R"(,"item":"vcm","input":[1]})"), kInvalidParams},
        {Req("writeItem", "{" + cam + R"(,"item":"roi"})"), kInvalidParams},
        {Req("writeItem", "{" + cam + R"(,"item":"roi","values":{"value":1.5}})"), kInvalidParams},
        {Req("writeItem", "{" + cam + R"(,"item":"roi","values":{"value":18446744073709551615}})"),
         kInvalidParams},
        {Req("writeItem", "{" + cam + R"(,"item":"roi","values":{"value":[1,"2"]}})"),
         kInvalidParams},
        {Req("writeItem", "{" + cam + R"(,"item":"roi","values":{"value":{"a":1}}})"),
         kInvalidParams},
        {Req("writeItem", "{" + cam + R"(,"item":"roi","values":{"value":null}})"), kInvalidParams},
        {Req("writeItem", "{" + cam + R"(,"item":"roi","values":{"record":"AAE"}})"),
         kInvalidParams},
        {Req("writeItem", "{" + cam + R"(,"item":"roi","values":{"record":[1,2]}})"),
         kInvalidParams},
        {Req("writeItem",
             "{" + cam + R"(,"item":"x","values":{"s":")" + std::string(257, 's') + "\"}}"),
         kInvalidParams},
        {Req("writeItem", "{" + cam + R"(,"item":"x","values":{"":1}})"), kInvalidParams},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(Outcome(c.text), c.outcome) << c.text.substr(0, 120);
    }
}

TEST(BridgeRpc, CallsCarryWhatTheBusNeedsAndRepliesEchoTheId) {
    const Parsed p = ParseMessage(Req(
        "writeItem",
        R"({"camera":"SN1","item":"data-block","values":{"data":"AAEC/w==","target":9223372036854775807,"on":false,"v":[-1,2]}})"));
    ASSERT_EQ(p.outcome, Parsed::kCall);
    EXPECT_EQ(p.call.method, Method::kWriteItem);
    EXPECT_EQ(p.call.camera, "SN1");
    EXPECT_EQ(p.call.item, "data-block");
    ASSERT_EQ(p.call.values.size(), 4u);
    const auto value = [&p](const std::string& key) {
        for (const auto& [k, v] : p.call.values) {
            if (k == key) return v;
        }
        return BusValue{};
    };
    EXPECT_EQ(value("data").kind, BusValue::kBytes);
    EXPECT_EQ(value("data").bytes, (std::vector<std::uint8_t>{0, 1, 2, 255}));
    EXPECT_EQ(value("target").number, INT64_MAX);
    EXPECT_EQ(value("on").kind, BusValue::kBool);
    EXPECT_EQ(value("v").numbers, (std::vector<std::int64_t>{-1, 2}));

    EXPECT_EQ(Json::parse(ResultText(p.call.id, Json{{"a", 1}})),
              Json::parse(R"({"jsonrpc":"2.0","id":7,"result":{"a":1}})"));
    EXPECT_EQ(Json::parse(ErrorText("x", kServiceError, "no card", "TARVIK_E_SAM")),
              Json::parse(R"({"jsonrpc":"2.0","id":"x","error":{"code":-32000,
                            "message":"no card","data":{"name":"TARVIK_E_SAM"}}})"));
}

TEST(BridgeRpc, Base64IsStrictAndRoundTrips) {
    std::vector<std::uint8_t> all(256);
    for (int i = 0; i < 256; ++i) all[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(i);
    for (std::size_t n = 0; n <= 5; ++n) {
        std::vector<std::uint8_t> back;
        ASSERT_TRUE(FromBase64(Base64(all.data() + 250, n), back)) << n;
        EXPECT_EQ(back, std::vector<std::uint8_t>(all.begin() + 250,
                                                  all.begin() + 250 + static_cast<long>(n)));
    }
    EXPECT_EQ(Base64(reinterpret_cast<const std::uint8_t*>("ab?"), 3), "YWI/");
    std::vector<std::uint8_t> out;
    for (const char* bad :
         {"A", "AB=", "A===", "=AAA", "AB=C", "AB==AAAA", "AB C", "AB\n=", "YWI_"}) {
        EXPECT_FALSE(FromBase64(bad, out)) << bad;
    }
}

}  // namespace
}  // namespace tarvik_bridge
