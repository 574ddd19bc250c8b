// Holds a wNewMutex for a scope (internal).
#ifndef TARVIK_SCOPED_LOCK_H
#define TARVIK_SCOPED_LOCK_H

#include "wNewMutex.h"

namespace tarvik {

class ScopedLock {
public:
    explicit ScopedLock(wNewMutex& mutex) : m_mutex(mutex) { m_mutex.RecursiveLock(); }
    ~ScopedLock() { m_mutex.RecursiveUnlock(); }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    wNewMutex& m_mutex;
};

}  // namespace tarvik

#endif
