// list, status and metrics through tarvikd (--service).
#include <algorithm>
#include <ctime>

#include "commands.h"
#include "open_failure.h"
#include "service_client.h"
#include "value_parse.h"

namespace tarvikctl {

namespace {

ToolError NoCamera() {
    return ToolError(kExitNoCamera, TARVIK_E_NO_CAMERA,
                     std::string("no camera (") + kCameraIds + ") found: tarvikd offers none");
}

void NeedService(const Session& session, const char* command) {
    if (!session.Options().service) {
        throw ValueError(std::string(command) + " needs --service: it asks tarvikd");
    }
}

// "2026-01-31T12:00:00Z", or "never" for 0.
std::string UnixTime(int64_t seconds) {
    if (seconds <= 0) return "never";
    const time_t t = static_cast<time_t>(seconds);
    tm utc{};
    char text[32];
    gmtime_r(&t, &utc);
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

// GetStatus's values in the order shown, with their labels.
struct StatusField {
    const char* key;
    const char* label;
    enum { kText, kNumber, kYesNo, kTime } shown;
};

constexpr StatusField kStatusFields[] = {
    {"serial", "serial", StatusField::kText},
    {"path", "path", StatusField::kText},
    {"state", "state", StatusField::kText},
    {"card_present", "card present", StatusField::kYesNo},
    {"watchers", "watchers", StatusField::kNumber},
    {"watches", "watches", StatusField::kNumber},
    {"pending", "pending calls", StatusField::kNumber},
    {"calls", "calls", StatusField::kNumber},
    {"failures", "failed calls", StatusField::kNumber},
    {"reopens", "reopens", StatusField::kNumber},
    {"cards_read", "cards read", StatusField::kNumber},
    {"cards_placed", "cards placed", StatusField::kNumber},
    {"last_success", "last success", StatusField::kTime},
    {"last_failure", "last failure", StatusField::kTime},
};

std::string Line(const std::string& label, const std::string& value) {
    std::string line = "  " + label + ":";
    line.resize(std::max<size_t>(line.size() + 1, 17), ' ');
    return line + value + "\n";
}

std::string Shown(const Json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

// One camera's status: its JSON object and its lines. Values tarvikd adds
// later than this tool are shown as they come.
void AddStatus(const std::string& object, Json status, Json& cameras, std::string& text) {
    Json json{{"object", object}};
    text += (text.empty() ? "" : "\n") + object + "\n";
    for (const StatusField& f : kStatusFields) {
        if (!status.contains(f.key)) continue;
        const Json value = status[f.key];
        status.erase(f.key);
        if (f.shown == StatusField::kYesNo) {
            const bool yes = value.is_number() && value.get<int64_t>() != 0;
            json[f.key] = yes;
            text += Line(f.label, yes ? "yes" : "no");
            continue;
        }
        json[f.key] = value;
        const bool time = f.shown == StatusField::kTime && value.is_number();
        text += Line(f.label, time ? UnixTime(value.get<int64_t>()) : Shown(value));
    }
    for (const auto& [key, value] : status.items()) {
        json[key] = value;
        text += Line(key, Shown(value));
    }
    cameras.push_back(json);
}

}  // namespace

int RunServiceList(Session& session) {
    const std::vector<ServiceCamera> cameras = session.Service().Cameras();
    if (cameras.empty()) throw NoCamera();
    Json json = Json::array();
    std::string text;
    for (const ServiceCamera& c : cameras) {
        json.push_back(Json{{"object", c.object},
                            {"serial", c.serial.empty() ? Json() : Json(c.serial)},
                            {"path", c.path},
                            {"state", c.state}});
        text += "serial: " + (c.serial.empty() ? std::string("-") : c.serial) +
                "  path: " + c.path + "  state: " + c.state + "  " + c.object + "\n";
    }
    session.Out().Ok(Json{{"cameras", json}}, text);
    return kExitOk;
}

int RunStatus(Session& session) {
    NeedService(session, "status");
    ServiceClient& service = session.Service();
    std::vector<std::string> objects;
    if (!session.Options().camera.serial.empty()) {
        objects.push_back(service.Choose(session.Options().camera.serial));
    } else {
        for (const ServiceCamera& c : service.Cameras()) objects.push_back(c.object);
    }
    if (objects.empty()) throw NoCamera();
    Json cameras = Json::array();
    std::string text;
    for (const std::string& object : objects) {
        AddStatus(object, service.Status(object), cameras, text);
    }
    session.Out().Ok(Json{{"cameras", cameras}}, text);
    return kExitOk;
}

int RunMetrics(Session& session) {
    NeedService(session, "metrics");
    const std::string metrics = session.Service().Metrics();
    session.Out().Ok(Json{{"metrics", metrics}}, metrics);
    return kExitOk;
}

}  // namespace tarvikctl
