// Card presence from the SAM's command 0 (see presence.h).
#include "presence.h"

namespace tarvik::presence {
namespace {
constexpr int kMissesForRemoved = 2;
}  // namespace

Change Tracker::Poll(bool cardAnswered) {
    if (cardAnswered) {
        m_misses = 0;
        if (m_present) return Change::kNone;
        m_present = true;
        return Change::kPlaced;
    }
    if (!m_present || ++m_misses < kMissesForRemoved) return Change::kNone;
    m_present = false;
    m_misses = 0;
    return Change::kRemoved;
}

void Tracker::Forget() {
    m_present = false;
    m_misses = 0;
}

}  // namespace tarvik::presence
