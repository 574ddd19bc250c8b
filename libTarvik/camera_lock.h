// The lock that keeps one camera's transactions whole across processes: the
// kernel serialises single requests, not a request and its answer. Every
// process derives the same lock file from the camera's port. Internal.
#ifndef TARVIK_CAMERA_LOCK_H
#define TARVIK_CAMERA_LOCK_H

#include <string>

#include "wNewMutex.h"

namespace tarvik {

class CameraLock {
public:
    CameraLock() = default;
    ~CameraLock();
    CameraLock(const CameraLock&) = delete;
    CameraLock& operator=(const CameraLock&) = delete;

    // Opens the lock file of the camera whose sysfs name is `port`; false,
    // with `why` said, when none can be made (transactions then go unguarded
    // against other processes).
    bool Open(const std::string& port, std::string& why);
    void Close();

    // Nested calls count; only the outermost takes and gives back the file
    // lock. Called with the object's mutex held.
    void Acquire();
    void Release();

private:
    int m_fd = -1;
    int m_depth = 0;
};

// A whole transaction: the object's mutex, then the camera's lock.
class TransactionLock {
public:
    TransactionLock(wNewMutex& mutex, CameraLock& camera) : m_mutex(mutex), m_camera(camera) {
        m_mutex.RecursiveLock();
        m_camera.Acquire();
    }
    ~TransactionLock() {
        m_camera.Release();
        m_mutex.RecursiveUnlock();
    }
    TransactionLock(const TransactionLock&) = delete;
    TransactionLock& operator=(const TransactionLock&) = delete;

private:
    wNewMutex& m_mutex;
    CameraLock& m_camera;
};

}  // namespace tarvik

#endif
