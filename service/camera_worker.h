// One camera's own thread: it alone talks to the camera, one call at a time in
// the order they came, and between calls it does what the camera's descriptor
// says is due (card polls, the camera leaving and coming back). The bus thread
// hands it calls and takes back their outcomes and the camera's events through
// a descriptor of its own, so a slow card read on one camera never holds up the
// bus, the status calls or another camera.
#pragma once

#include <tarvik.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tarvikd {

using Clock = std::chrono::steady_clock;

// What a call came to. `fill` runs on the bus thread to append the reply's
// values; whatever it captures (a card) is wiped when the outcome goes.
struct Outcome {
    int result = 0;
    std::string message;  // why, for an error (no card data)
    std::shared_ptr<void> keep;
    bool sensitive = false;  // the reply carries card data: sd-bus wipes it when it goes
    std::function<int(void* reply)> fill;  // sd_bus_message*
};

using Task = std::function<Outcome(tarvik_camera*)>;

struct Completion {
    std::uint64_t id;
    Outcome outcome;
};

class CameraWorker {
public:
    // Takes the open camera; closes it when destroyed.
    explicit CameraWorker(tarvik_camera* camera);
    ~CameraWorker();
    CameraWorker(const CameraWorker&) = delete;
    CameraWorker& operator=(const CameraWorker&) = delete;

    // Readable when outcomes or events wait to be taken (bus thread).
    int Fd() const { return m_doneFd; }

    // Queues a call; one not begun by `deadline` is dropped with LIBUSB_ERROR_TIMEOUT.
    void Post(std::uint64_t id, Clock::time_point deadline, Task task);
    // Card polls every `intervalMs`, or none (0).
    void SetPollInterval(unsigned intervalMs);
    // How many calls wait or run.
    std::size_t Pending() const;

    // Everything that came back since the last time.
    void Take(std::vector<Completion>& done, std::vector<tarvik_event>& events);

private:
    struct Job {
        std::uint64_t id;
        Clock::time_point deadline;
        Task task;
    };

    void Run();
    void Wake(int fd);
    void Deliver(Completion completion);
    void DispatchEvents();

    tarvik_camera* m_camera;
    int m_wakeFd = -1;
    int m_doneFd = -1;
    int m_cameraFd = -1;

    mutable std::mutex m_lock;
    std::deque<Job> m_jobs;
    std::size_t m_running = 0;
    bool m_stop = false;
    int m_pollMs = -1;  // a change the thread applies; -1 none
    std::vector<Completion> m_done;
    std::vector<tarvik_event> m_events;

    std::thread m_thread;
};

}  // namespace tarvikd
