// A camera's bounded event queue (see event_queue.h).
#include "event_queue.h"

#include "tarvik.h"

namespace tarvik {

void EventQueue::Push(int type, std::uint64_t timeNs, int result) {
    const std::uint64_t sequence = ++m_last;
    if (m_events.size() + 1 < m_capacity) {
        m_events.push_back(Event{type, sequence, timeNs, result});
    } else if (m_events.size() + 1 == m_capacity) {
        // The last place says what happened from here on: this event is lost.
        m_events.push_back(Event{TARVIK_EVENT_OVERFLOW, sequence, timeNs, 0});
    }
}

bool EventQueue::Pop(Event& out) {
    if (m_events.empty()) return false;
    out = m_events.front();
    m_events.pop_front();
    return true;
}

}  // namespace tarvik
