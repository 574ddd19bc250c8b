// The C interface's camera (internal): the implementation object, and what
// the C interface adds to it: knowing the camera by its serial (or its USB
// port) so that it comes back after an unplug, its events, and the settings
// it writes again when it does. Calls share `swap`; only taking the camera
// away and putting it back hold it alone, so another thread sees either the
// old connection (and LIBUSB_ERROR_NO_DEVICE) or the new one.
#ifndef TARVIK_C_CAMERA_H
#define TARVIK_C_CAMERA_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <utility>
#include <vector>

#include "TarvikImpl.h"
#include "camera_opener.h"
#include "camera_watch.h"
#include "event_queue.h"
#include "presence.h"

struct tarvik_camera {
    std::unique_ptr<TarvikImpl> impl;
    tarvik::CameraTarget target;  // the path to open it on again (its port and serial say where)
    bool reapply = false;         // write the settings again when it comes back

    std::shared_mutex swap;
    std::atomic<bool> gone{false};

    // Waiting: one dispatcher at a time; the queue has a lock of its own, so
    // that taking an event never waits for a poll.
    std::mutex dispatching;
    std::mutex queueLock;
    tarvik::EventQueue queue{64};
    tarvik::CameraWatch watch;
    bool polling = false;
    unsigned pollMs = 250;
    tarvik::presence::Tracker presence;
    std::atomic<bool> cancelled{false};

    // The last value written of each volatile item, in the order first written.
    std::mutex settingsLock;
    std::vector<std::pair<int, std::vector<std::uint8_t>>> settings;
};

namespace tarvik::capi {

// Monotonic nanoseconds, the events' clock.
std::uint64_t now_ns();

// Remembers a successful write of `item` when the item is one a power cycle
// resets (ROI, MJPEG quantisation, lens motor, GPIO, exposure).
void remember(tarvik_camera& camera, int item, const void* record, std::size_t size);

// The camera left the bus: its connection is given back, calls answer
// LIBUSB_ERROR_NO_DEVICE at once, and camera-gone is queued (once).
void mark_gone(tarvik_camera& camera);

// One card poll now (SAM command 0), its events queued: what dispatch does
// when the poll timer is due.
void poll_card(tarvik_camera& camera);

// Queues an event now.
void queue_event(tarvik_camera& camera, int type, int result = 0);

}  // namespace tarvik::capi

#endif
