// watch: the camera's events, one line each (with --card, each card placed
// read once), until SIGINT or SIGTERM; an unplug is an event like any other.
#include <signal.h>

#include <cstdio>

#include "commands.h"
#include "value_parse.h"

namespace tarvikctl {

namespace {

Device* volatile g_watched = nullptr;

// Cancel is safe in a signal handler: it wakes the wait, which ends.
void OnStop(int) {
    if (Device* camera = g_watched) camera->Cancel();
}

void ReplyEvent(Session& session, const DeviceEvent& event, const WatchOptions& o) {
    const tarvik_event& e = event.event;
    Json json{
        {"event", tarvik_event_name(e.type)}, {"sequence", e.sequence}, {"time_ns", e.time_ns}};
    char head[96];
    std::snprintf(head, sizeof head, "#%llu %s", static_cast<unsigned long long>(e.sequence),
                  tarvik_event_name(e.type));
    std::string text = head;
    if (e.type == TARVIK_EVENT_CAMERA_BACK && event.settingsKnown) {
        json["settings_result"] = e.result;
        json["settings_error"] = tarvik_result_name(e.result);
    }
    if (e.type == TARVIK_EVENT_CARD_PLACED && o.card) {
        try {
            const CardRecord card = ReadCard(session, false);
            const CardReply reply = DescribeCard(*card, false);
            json["card"] = reply.json;
            text += "\n" + reply.text;
        } catch (const ToolError& error) {  // lifted too soon, say: the watch goes on
            json["card_error"] = ErrorJson(error.Result(), error.what());
            text += "\nthe card could not be read: " + std::string(error.what());
        }
    }
    session.Out().Sample(json, text, false);
}

}  // namespace

int RunWatch(Session& session, const WatchOptions& o) {
    const long interval = static_cast<long>(ParseInteger(o.intervalMs, "--interval", 50, 60000));
    if (o.intervalGiven && session.Options().service) {
        throw ValueError(
            "watch --interval: tarvikd polls at its own interval (tarvikd "
            "--poll-interval)");
    }
    Device& camera = session.Camera();
    Check(camera.StartWatch(static_cast<unsigned>(interval)), "watch");
    g_watched = &camera;
    struct sigaction action {};
    action.sa_handler = OnStop;
    action.sa_flags = SA_RESTART;  // the stop is the cancel OnStop sends, not an EINTR
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    try {
        for (;;) {
            DeviceEvent e;
            const int r = camera.WaitEvent(e);
            if (r == TARVIK_E_CANCELLED) break;
            Check(r, "watch");
            ReplyEvent(session, e, o);
        }
    } catch (const OutputClosed&) {
        // The reader has gone: that ends a watch as an interrupt does.
    }
    g_watched = nullptr;
    return kExitOk;
}

}  // namespace tarvikctl
