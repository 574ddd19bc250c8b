// A camera's events, in order, bounded (internal). Every event takes the
// camera's next sequence number, also one the queue has no room for: a gap in
// the numbers is a lost event, never a silent one, and the queue says so with
// an overflow event of its own in the last free place.
#ifndef TARVIK_EVENT_QUEUE_H
#define TARVIK_EVENT_QUEUE_H

#include <cstddef>
#include <cstdint>
#include <deque>

namespace tarvik {

struct Event {
    int type;               // TARVIK_EVENT_*
    std::uint64_t sequence;  // from 1, per camera
    std::uint64_t timeNs;    // CLOCK_MONOTONIC
    int result;             // camera back: the result of writing the settings again
};

class EventQueue {
public:
    explicit EventQueue(std::size_t capacity) : m_capacity(capacity < 2 ? 2 : capacity) {}

    void Push(int type, std::uint64_t timeNs, int result = 0);
    // The oldest event; false when there is none.
    bool Pop(Event& out);
    bool Empty() const { return m_events.empty(); }

private:
    std::size_t m_capacity;
    std::uint64_t m_last = 0;  // the last sequence number given
    std::deque<Event> m_events;
};

}  // namespace tarvik

#endif
