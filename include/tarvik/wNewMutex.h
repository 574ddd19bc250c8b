// Recursive lock on a default (non-recursive) POSIX mutex: the wrapper tracks
// the holding thread and the recursion depth itself.
#ifndef TARVIK_WNEWMUTEX_H
#define TARVIK_WNEWMUTEX_H

#include <pthread.h>

#include <atomic>

#include "tarvik_export.h"

class TARVIK_API wNewMutex {
public:
    wNewMutex();
    ~wNewMutex();
    wNewMutex(const wNewMutex&) = delete;
    wNewMutex& operator=(const wNewMutex&) = delete;

    void RecursiveLock();
    void RecursiveUnlock();
    // 1 when the caller now holds the lock, 0 when another thread holds it.
    int RecursiveTryLock();

    void Lock();
    void Unlock();
    int TryLock();

private:
    pthread_mutex_t m_handle;
    // Read by other threads before they take m_handle, hence atomic.
    std::atomic<pthread_t> m_owner;
    int m_count;
};

#endif
