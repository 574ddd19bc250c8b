#include "authority.h"

#include <cstring>

#include "service_log.h"

namespace tarvikd {

namespace {

constexpr auto kKeep = std::chrono::seconds(5);
constexpr std::uint64_t kPolkitTimeoutUs = 5'000'000;

int Deny(sd_bus_message* call, const char* action, const char* why) {
    return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_ACCESS_DENIED, "not authorized for %s%s",
                                      action, why);
}

}  // namespace

struct Authority::Request {
    Authority* owner;
    sd_bus_message* call;
    std::string action;
    std::function<void()> allowed;
};

Authority::~Authority() {
    // The bus goes after this: its floating slots never call back.
    for (Request* request : m_inFlight) {
        sd_bus_message_unref(request->call);
        delete request;
    }
}

void Authority::Forget(const std::string& sender) {
    for (auto it = m_cache.begin(); it != m_cache.end();) {
        it = it->first.first == sender ? m_cache.erase(it) : std::next(it);
    }
}

void Authority::Check(sd_bus_message* call, const char* action, std::function<void()> allowed) {
    if (!m_ask) {
        allowed();
        return;
    }
    const char* sender = sd_bus_message_get_sender(call);
    if (sender == nullptr) {
        Deny(call, action, " (no sender)");
        return;
    }
    const Key key{sender, action};
    const auto now = std::chrono::steady_clock::now();
    const auto cached = m_cache.find(key);
    if (cached != m_cache.end() && cached->second.second > now) {
        if (cached->second.first) {
            allowed();
        } else {
            Deny(call, action, "");
        }
        return;
    }
    auto* request = new Request{this, sd_bus_message_ref(call), action, std::move(allowed)};
    sd_bus_message* ask = nullptr;
    int r = sd_bus_message_new_method_call(
        m_bus, &ask, "org.freedesktop.PolicyKit1", "/org/freedesktop/PolicyKit1/Authority",
        "org.freedesktop.PolicyKit1.Authority", "CheckAuthorization");
    if (r >= 0) {
        r = sd_bus_message_append(ask, "(sa{sv})sa{ss}us", "system-bus-name", 1, "name", "s",
                                  sender, action, 0, 0u, "");
    }
    if (r >= 0) r = sd_bus_call_async(m_bus, nullptr, ask, OnReply, request, kPolkitTimeoutUs);
    sd_bus_message_unref(ask);
    if (r < 0) {
        Log(kWarning, "polkit could not be asked: %s", std::strerror(-r));
        Deny(call, action, " (polkit could not be asked)");
        sd_bus_message_unref(request->call);
        delete request;
        return;
    }
    m_inFlight.insert(request);
}

int Authority::OnReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    auto* request = static_cast<Request*>(userdata);
    Authority& self = *request->owner;
    int authorized = 0;
    int challenge = 0;
    const sd_bus_error* error = sd_bus_message_get_error(reply);
    const bool decided = error == nullptr &&
                         sd_bus_message_enter_container(reply, 'r', "bba{ss}") >= 0 &&
                         sd_bus_message_read(reply, "bb", &authorized, &challenge) >= 0;
    if (!decided) {
        Log(kWarning, "polkit did not decide for %s: %s", request->action.c_str(),
            error != nullptr && error->message != nullptr ? error->message : "a broken answer");
        Deny(request->call, request->action.c_str(), " (polkit did not decide)");
    } else {
        const char* sender = sd_bus_message_get_sender(request->call);
        self.m_cache[{sender != nullptr ? sender : "", request->action}] = {
            authorized != 0, std::chrono::steady_clock::now() + kKeep};
        if (authorized != 0) {
            request->allowed();
        } else {
            Deny(request->call, request->action.c_str(), "");
        }
    }
    self.m_inFlight.erase(request);
    sd_bus_message_unref(request->call);
    delete request;
    return 0;
}

}  // namespace tarvikd
