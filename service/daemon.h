// tarvikd's bus side: the manager object, one object per camera, the calls
// handed to the cameras' threads with a deadline each, their events as
// signals, the watches clients hold, polkit's decisions and the counters.
// Everything here runs on the bus thread.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <tarvik.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "authority.h"
#include "bus_names.h"
#include "camera_worker.h"
#include "metrics.h"

namespace tarvikd {

using namespace tarvik::bus;  // NOLINT: the names are the service's own

struct Options {
    bool session = false;  // the session bus; polkit is not asked
    tarvik_transport transport = TARVIK_TRANSPORT_AUTO;
    unsigned pollMs = 250;           // card polls while someone watches
    unsigned callTimeoutMs = 20000;  // a call's deadline
    unsigned forgetAfterS = 300;     // a camera gone this long leaves the list (0: never)
    unsigned maxPendingPerCamera = 64;
    unsigned maxPendingPerClient = 8;
    std::string metricsFile;
};

class Daemon {
public:
    explicit Daemon(const Options& options);
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // Connects, takes the name and serves until SIGTERM or SIGINT. The exit status.
    int Run();

private:
    struct Camera;
    struct Pending;

    // Calls.
    static int OnGetCameras(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int OnGetMetrics(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int OnReadItem(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int OnWriteItem(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int OnReadCard(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int OnSamCommand(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int OnWatch(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int OnUnwatch(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int OnGetStatus(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int OnProperty(sd_bus* bus, const char* path, const char* interface,
                          const char* property, sd_bus_message* reply, void* userdata,
                          sd_bus_error* error);
    static const sd_bus_vtable* CameraVtable();
    static const sd_bus_vtable* ManagerVtable();

    // Bus and loop.
    static int OnNameOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int OnWorkerDone(sd_event_source* s, int fd, std::uint32_t revents, void* userdata);
    static int OnDeadline(sd_event_source* s, std::uint64_t usec, void* userdata);
    static int OnUdev(sd_event_source* s, int fd, std::uint32_t revents, void* userdata);
    static int OnRescan(sd_event_source* s, std::uint64_t usec, void* userdata);
    static int OnMetricsDue(sd_event_source* s, std::uint64_t usec, void* userdata);

    int Connect();
    void Scan();
    void ScheduleRescan(std::uint64_t delayUs);
    bool AddCamera(const tarvik_camera_info& info);
    void RemoveCamera(const std::string& key);
    void ForgetLongGone();

    // Hands `call` to the camera's thread once polkit allows `action`; the
    // reply comes from `outcome` (or an error) when it is done, or
    // LIBUSB_ERROR_TIMEOUT at the deadline, whichever is first.
    void Submit(Camera& asked, sd_bus_message* m, const char* action, Task task);
    void WhenAllowed(const Camera& asked, sd_bus_message* m, const char* action,
                     std::function<void(Camera&, const std::string&)> then);
    void Finish(Camera& camera, Completion& done);
    void Event(Camera& camera, const tarvik_event& event);
    void SetWatched(Camera& camera);
    void DropClient(const std::string& name);
    void MetricsChanged();

    Options m_options;
    sd_event* m_event = nullptr;
    sd_bus* m_bus = nullptr;
    std::unique_ptr<Authority> m_authority;
    std::map<std::string, std::unique_ptr<Camera>> m_cameras;  // by key (serial)
    std::map<std::uint64_t, std::unique_ptr<Pending>> m_pending;
    std::map<std::string, unsigned> m_pendingByClient;
    std::map<std::string, CameraCounters> m_counters;  // outlive a camera's object
    std::map<std::string, int> m_openFailures;         // the last said, per camera
    std::uint64_t m_nextId = 0;
    sd_event_source* m_rescan = nullptr;
    sd_event_source* m_metricsDue = nullptr;
    void* m_udev = nullptr;     // struct udev*
    void* m_monitor = nullptr;  // struct udev_monitor*
};

}  // namespace tarvikd
