#include "card_lock.h"

namespace tarvik {
std::recursive_mutex& card_parse_mutex() {
    // Constructed on first use, so static initialisers elsewhere may already take it.
    static std::recursive_mutex mutex;
    return mutex;
}
}  // namespace tarvik
