#include "camera_worker.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "service_log.h"

namespace tarvikd {

namespace {

void Drain(int fd) {
    std::uint64_t count = 0;
    const ssize_t ignored = ::read(fd, &count, sizeof count);
    (void)ignored;  // nothing to read is fine: the counter was drained already
}

}  // namespace

CameraWorker::CameraWorker(tarvik_camera* camera)
    : m_camera(camera),
      m_wakeFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_doneFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    tarvik_set_poll_interval(m_camera, 0);  // no card polls until someone watches
    m_cameraFd = tarvik_get_fd(m_camera);
    m_thread = std::thread([this] { Run(); });
}

CameraWorker::~CameraWorker() {
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_stop = true;
    }
    Wake(m_wakeFd);
    m_thread.join();
    tarvik_close(m_camera);
    ::close(m_wakeFd);
    ::close(m_doneFd);
}

void CameraWorker::Wake(int fd) {
    const std::uint64_t one = 1;
    const ssize_t ignored = ::write(fd, &one, sizeof one);
    (void)ignored;  // a full counter is still readable
}

void CameraWorker::Post(std::uint64_t id, Clock::time_point deadline, Task task) {
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_jobs.push_back(Job{id, deadline, std::move(task)});
    }
    Wake(m_wakeFd);
}

void CameraWorker::SetPollInterval(unsigned intervalMs) {
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_pollMs = static_cast<int>(intervalMs);
    }
    Wake(m_wakeFd);
}

std::size_t CameraWorker::Pending() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_jobs.size() + m_running;
}

void CameraWorker::Take(std::vector<Completion>& done, std::vector<tarvik_event>& events) {
    Drain(m_doneFd);
    std::lock_guard<std::mutex> lock(m_lock);
    for (Completion& c : m_done) done.push_back(std::move(c));
    m_done.clear();
    events.insert(events.end(), m_events.begin(), m_events.end());
    m_events.clear();
}

void CameraWorker::Deliver(Completion completion) {
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_done.push_back(std::move(completion));
        --m_running;
    }
    Wake(m_doneFd);
}

void CameraWorker::DispatchEvents() {
    tarvik_dispatch(m_camera);
    std::vector<tarvik_event> events;
    tarvik_event e{};
    while (tarvik_next_event(m_camera, &e) == 0) events.push_back(e);
    if (events.empty()) return;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_events.insert(m_events.end(), events.begin(), events.end());
    }
    Wake(m_doneFd);
}

void CameraWorker::Run() {
    bool more = false;  // calls wait: look at the descriptors without waiting
    for (;;) {
        pollfd fds[2] = {{m_wakeFd, POLLIN, 0}, {m_cameraFd, POLLIN, 0}};
        const int n = ::poll(fds, m_cameraFd >= 0 ? 2 : 1, more ? 0 : -1);
        if (n < 0 && errno != EINTR) {
            Log(kError, "camera thread: poll failed: %s", std::strerror(errno));
            return;
        }
        if (fds[0].revents != 0) Drain(m_wakeFd);

        Job job{};
        bool haveJob = false;
        int pollMs = -1;
        {
            std::lock_guard<std::mutex> lock(m_lock);
            if (m_stop) return;
            std::swap(pollMs, m_pollMs);
            if (!m_jobs.empty()) {
                job = std::move(m_jobs.front());
                m_jobs.pop_front();
                ++m_running;
                haveJob = true;
            }
            more = m_jobs.size() > 0;
        }
        if (pollMs >= 0) tarvik_set_poll_interval(m_camera, static_cast<unsigned>(pollMs));
        if (m_cameraFd >= 0 && (fds[1].revents & POLLIN) != 0) DispatchEvents();
        if (!haveJob) continue;

        Completion done{job.id, {}};
        if (Clock::now() >= job.deadline) {
            done.outcome.result = TARVIK_LIBUSB_ERROR_TIMEOUT;  // its caller was answered
        } else {
            done.outcome = job.task(m_camera);
        }
        Deliver(std::move(done));
    }
}

}  // namespace tarvikd
