// Waiting for cards and a camera that comes back, through the C interface
// (libinput's shape: a descriptor, dispatch, next event). Dispatch does what
// is due: a card poll (SAM command 0, one exchange), a camera leaving or
// coming back (libudev's events). No thread of the library's own.
#include <poll.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include "c_camera.h"
#include "call_status.h"
#include "camera_finder.h"
#include "item_table.h"
#include "operation_runner.h"
#include "result_table.h"
#include "sam_channel.h"
#include "tarvik.h"
#include "tarvik_log.h"
#include "tarvik_private.h"

namespace tarvik::capi {
namespace {

constexpr unsigned kMinPollMs = 50;

// The items a power cycle resets; the device id and serial are kept.
constexpr int kVolatileItems[] = {EXT_ITEM_ROI, EXT_ITEM_MJPEG_QP, EXT_ITEM_VCM, EXT_ITEM_GPIO,
                                  EXT_ITEM_ET};

bool is_volatile(int item) {
    return std::find(std::begin(kVolatileItems), std::end(kVolatileItems), item) !=
           std::end(kVolatileItems);
}

// Whether a uevent is about this camera: the one that left by its port; the
// one coming back by its serial, or by its port when it shows none.
bool leaving(const tarvik_camera& c, const DeviceChange& d) {
    return !d.added && !d.videoNode && d.port == c.impl->Private().port;
}

// On the kernel path the camera is there for us once its video node is: the
// USB device comes first, its nodes after it.
bool arriving(const tarvik_camera& c, const DeviceChange& d) {
    const std::string& serial = c.impl->Private().serial;
    const bool whole = d.videoNode == (c.target.choice == Choice::kKernel);
    return d.added && whole &&
           (serial.empty() ? d.port == c.impl->Private().port : d.serial == serial);
}

// Writes again, in the order first written, what the object wrote before the
// camera left; the first failure is the result.
int write_settings_again(tarvik_camera& c) {
    std::vector<std::pair<int, std::vector<std::uint8_t>>> settings;
    {
        std::lock_guard<std::mutex> lock(c.settingsLock);
        settings = c.settings;
    }
    int result = 0;
    for (auto& [item, record] : settings) {
        const items::Item* row = items::find(static_cast<std::uint32_t>(item));
        clear_transfer_failure();
        const HRESULT r = RunWrite(*c.impl, {kWriteArrow, row->write.retryName},
                                   static_cast<UVC_EXT_ITEM_E>(item), record.data());
        if (result == 0) result = results::from_member(r, last_transfer_failure());
    }
    return result;
}

// The camera is back: opened again on the path it had, the lock taken, the
// marker sent with the first transaction; camera-back with the rewrite's result.
void try_reopen(tarvik_camera& c) {
    int rewritten = 0;
    {
        std::unique_lock<std::shared_mutex> lock(c.swap);
        if (!c.gone) return;
        // The camera in the same port first (two cameras may show one serial), else
        // the one with its serial anywhere; without a serial, only the same port.
        const std::string& port = c.impl->Private().port;
        const std::string& serial = c.impl->Private().serial;
        const std::vector<UsbCamera> all = find_cameras();
        auto it = std::find_if(all.begin(), all.end(), [&](const UsbCamera& u) {
            return u.name == port && (serial.empty() || u.serial == serial);
        });
        if (it == all.end() && !serial.empty()) {
            it = std::find_if(all.begin(), all.end(),
                              [&](const UsbCamera& u) { return u.serial == serial; });
        }
        if (it == all.end()) return;
        CameraTarget target = c.target;
        target.serial.reset();
        target.bus = it->bus;
        target.address = it->address;
        if (const int r = open_camera(*c.impl, target, InUse::kRefuse); r != 0) {
            TLOG_DEBUG("libTarvik: the camera is there again but does not open yet (%s).\n",
                       tarvik_result_name(r));
            return;  // a later uevent tries again
        }
        c.presence.Forget();
        if (c.reapply) rewritten = write_settings_again(c);
        c.gone = false;
    }
    queue_event(c, TARVIK_EVENT_CAMERA_BACK, rewritten);
}

// Polling, and listening to udev, start with the first wait, dispatch or
// descriptor asked for; a camera that left before that may be back already.
void start_polling(tarvik_camera& c) {
    if (c.polling) return;
    c.polling = true;
    c.watch.StartMonitor();
    c.watch.SetPollInterval(c.pollMs);
    if (c.gone) try_reopen(c);
}

int dispatch(tarvik_camera& c) {
    std::lock_guard<std::mutex> lock(c.dispatching);
    start_polling(c);
    const CameraWatch::Due due = c.watch.Take();
    if (due.cancelled) c.cancelled = true;
    for (const DeviceChange& d : due.changes) {
        TLOG_DEBUG("libTarvik: uevent %s %s %s.\n", d.added ? "add" : "remove",
                   d.videoNode ? "video4linux" : "usb", d.port.c_str());
        if (!c.gone && leaving(c, d)) mark_gone(c);
        if (c.gone && arriving(c, d)) try_reopen(c);
    }
    if (due.poll) poll_card(c);
    return 0;
}

int next_event(tarvik_camera& c, tarvik_event* event) {
    Event e{};
    {
        std::lock_guard<std::mutex> lock(c.queueLock);
        if (!c.queue.Pop(e)) return TARVIK_E_NO_EVENT;
    }
    *event = tarvik_event{e.type, e.result, e.sequence, e.timeNs};
    return 0;
}

int wait_event(tarvik_camera& c, tarvik_event* event, int timeoutMs) {
    const std::uint64_t deadline = now_ns() + static_cast<std::uint64_t>(timeoutMs) * 1000000u;
    dispatch(c);  // starts the polls on a first wait
    for (;;) {
        if (next_event(c, event) == 0) return 0;
        if (c.cancelled.exchange(false)) return TARVIK_E_CANCELLED;
        int waitMs = -1;
        if (timeoutMs >= 0) {
            const std::uint64_t now = now_ns();
            if (now >= deadline) return TARVIK_E_NO_EVENT;
            waitMs = static_cast<int>((deadline - now + 999999u) / 1000000u);
        }
        pollfd p{c.watch.Fd(), POLLIN, 0};
        if (::poll(&p, 1, waitMs) < 0 && errno != EINTR) return TARVIK_LIBUSB_ERROR_OTHER;
        dispatch(c);
    }
}

template <typename Call>
int with_camera(tarvik_camera* camera, bool argumentsGiven, Call call) {
    if (camera == nullptr || !argumentsGiven) return TARVIK_E_INVALID_ARGUMENT;
    try {
        return call(*camera);
    } catch (const std::bad_alloc&) {
        return TARVIK_E_NO_MEMORY;
    }
}

}  // namespace

// One card poll: SAM command 0, whose answer carries no card data.
void poll_card(tarvik_camera& c) {
    _SAM_IN_PARAM in{static_cast<unsigned char>(TARVIK_SAM_CMD_STATUS)};
    auto out = std::make_unique<_SAM_OUT_PARAM>();
    HRESULT r;
    {
        std::shared_lock<std::shared_mutex> lock(c.swap);
        if (c.gone) return;
        clear_transfer_failure();
        r = c.impl->ReadByExtItem(EXT_ITEM_SAM, &in, out.get());
        r = results::from_member(r, last_transfer_failure());
    }
    if (r == TARVIK_LIBUSB_ERROR_NO_DEVICE) {
        mark_gone(c);
        return;
    }
    if (r != 0) return;  // an answer lost: the next poll asks again
    switch (c.presence.Poll(presence::card_answered(out->result))) {
        case presence::Change::kPlaced:
            queue_event(c, TARVIK_EVENT_CARD_PLACED);
            break;
        case presence::Change::kRemoved:
            queue_event(c, TARVIK_EVENT_CARD_REMOVED);
            break;
        case presence::Change::kNone:
            break;
    }
}

std::uint64_t now_ns() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<std::uint64_t>(t.tv_sec) * 1000000000u + static_cast<std::uint64_t>(t.tv_nsec);
}

void remember(tarvik_camera& camera, int item, const void* record, std::size_t size) {
    if (!is_volatile(item)) return;
    const auto* bytes = static_cast<const std::uint8_t*>(record);
    std::lock_guard<std::mutex> lock(camera.settingsLock);
    auto& settings = camera.settings;
    const auto it = std::find_if(settings.begin(), settings.end(),
                                 [&](const auto& s) { return s.first == item; });
    if (it != settings.end()) {
        it->second.assign(bytes, bytes + size);
    } else {
        settings.emplace_back(item, std::vector<std::uint8_t>(bytes, bytes + size));
    }
}

void mark_gone(tarvik_camera& camera) {
    {
        std::unique_lock<std::shared_mutex> lock(camera.swap);
        if (camera.gone) return;
        camera.gone = true;
        camera.impl->CloseCamera();
        camera.presence.Forget();
    }
    queue_event(camera, TARVIK_EVENT_CAMERA_GONE);
}

void queue_event(tarvik_camera& camera, int type, int result) {
    std::lock_guard<std::mutex> lock(camera.queueLock);
    camera.queue.Push(type, now_ns(), result);
}

}  // namespace tarvik::capi

extern "C" {

int tarvik_get_fd(tarvik_camera* camera) {
    return tarvik::capi::with_camera(camera, true, [](tarvik_camera& c) {
        std::lock_guard<std::mutex> lock(c.dispatching);
        tarvik::capi::start_polling(c);
        return c.watch.Fd();
    });
}

int tarvik_set_poll_interval(tarvik_camera* camera, unsigned intervalMs) {
    return tarvik::capi::with_camera(
        camera, intervalMs == 0 || intervalMs >= tarvik::capi::kMinPollMs, [&](tarvik_camera& c) {
            std::lock_guard<std::mutex> lock(c.dispatching);
            c.pollMs = intervalMs;
            if (intervalMs == 0) c.presence.Forget();  // polls that start again tell of a card anew
            if (c.polling) c.watch.SetPollInterval(intervalMs);
            return 0;
        });
}

int tarvik_dispatch(tarvik_camera* camera) {
    return tarvik::capi::with_camera(camera, true, tarvik::capi::dispatch);
}

int tarvik_next_event(tarvik_camera* camera, tarvik_event* event) {
    return tarvik::capi::with_camera(camera, event != nullptr, [&](tarvik_camera& c) {
        return tarvik::capi::next_event(c, event);
    });
}

int tarvik_wait_event(tarvik_camera* camera, tarvik_event* event, int timeoutMs) {
    return tarvik::capi::with_camera(camera, event != nullptr, [&](tarvik_camera& c) {
        return tarvik::capi::wait_event(c, event, timeoutMs);
    });
}

// Async-signal-safe: one write to the camera's eventfd.
int tarvik_cancel(tarvik_camera* camera) {
    if (camera == nullptr) return TARVIK_E_INVALID_ARGUMENT;
    camera->watch.Cancel();
    return 0;
}

const char* tarvik_event_name(int type) {
    switch (type) {
        case TARVIK_EVENT_CARD_PLACED:
            return "card-placed";
        case TARVIK_EVENT_CARD_REMOVED:
            return "card-removed";
        case TARVIK_EVENT_CAMERA_GONE:
            return "camera-gone";
        case TARVIK_EVENT_CAMERA_BACK:
            return "camera-back";
        case TARVIK_EVENT_OVERFLOW:
            return "overflow";
        default:
            return "unknown";
    }
}

}  // extern "C"
