#include "wNewMutex.h"

#include <cstdlib>
#include <new>

namespace {
pthread_once_t g_attrOnce = PTHREAD_ONCE_INIT;
// Shared by every wNewMutex of the process; made once and never destroyed.
pthread_mutexattr_t* g_attr = nullptr;

void makeSharedAttribute() {
    auto* attr = static_cast<pthread_mutexattr_t*>(std::calloc(1, sizeof(pthread_mutexattr_t)));
    if (attr != nullptr) {
        pthread_mutexattr_init(attr);
    }
    g_attr = attr;  // null falls back to the default attributes, which are the same
}
}  // namespace

wNewMutex::wNewMutex() : m_owner(0), m_count(0) {
    pthread_once(&g_attrOnce, makeSharedAttribute);
    pthread_mutex_init(&m_handle, g_attr);
}

wNewMutex::~wNewMutex() { pthread_mutex_destroy(&m_handle); }

void wNewMutex::RecursiveLock() {
    const pthread_t self = pthread_self();
    if (!pthread_equal(m_owner.load(std::memory_order_relaxed), self)) {
        pthread_mutex_lock(&m_handle);
        m_owner.store(self, std::memory_order_relaxed);
    }
    ++m_count;
}

void wNewMutex::RecursiveUnlock() {
    if (!pthread_equal(m_owner.load(std::memory_order_relaxed), pthread_self())) {
        return;
    }
    if (--m_count == 0) {
        m_owner.store(0, std::memory_order_relaxed);
        pthread_mutex_unlock(&m_handle);
    }
}

int wNewMutex::RecursiveTryLock() {
    const pthread_t self = pthread_self();
    if (pthread_equal(m_owner.load(std::memory_order_relaxed), self)) {
        ++m_count;
        return 1;
    }
    if (pthread_mutex_trylock(&m_handle) != 0) {
        return 0;
    }
    m_owner.store(self, std::memory_order_relaxed);
    ++m_count;
    return 1;
}

void wNewMutex::Lock() { RecursiveLock(); }
void wNewMutex::Unlock() { RecursiveUnlock(); }
int wNewMutex::TryLock() { return RecursiveTryLock(); }
