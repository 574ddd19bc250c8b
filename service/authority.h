// Who may do what: polkit's CheckAuthorization for the caller's bus name,
// asked without blocking the bus thread, each decision kept for a few seconds
// per caller and action. On a session bus the bus admits its user alone and
// polkit is not asked.
#pragma once

#include <systemd/sd-bus.h>

#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

namespace tarvikd {

constexpr char kActionReadCard[] = "org.tarvik.tarvik1.read-card";
constexpr char kActionConfigure[] = "org.tarvik.tarvik1.configure";
constexpr char kActionStatus[] = "org.tarvik.tarvik1.status";

class Authority {
public:
    // `ask`: false on a session bus (everyone on it is allowed).
    Authority(sd_bus* bus, bool ask) : m_bus(bus), m_ask(ask) {}
    ~Authority();
    Authority(const Authority&) = delete;
    Authority& operator=(const Authority&) = delete;

    // Calls `allowed` when the sender of `call` may do `action`; otherwise
    // answers the call with org.freedesktop.DBus.Error.AccessDenied itself.
    void Check(sd_bus_message* call, const char* action, std::function<void()> allowed);

    // A client left the bus: its decisions go.
    void Forget(const std::string& sender);

private:
    struct Request;
    static int OnReply(sd_bus_message* reply, void* userdata, sd_bus_error* error);

    using Key = std::pair<std::string, std::string>;  // sender, action
    sd_bus* m_bus;
    bool m_ask;
    std::map<Key, std::pair<bool, std::chrono::steady_clock::time_point>> m_cache;
    std::set<Request*> m_inFlight;  // asked, not yet answered
};

}  // namespace tarvikd
