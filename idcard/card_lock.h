// Process-wide lock for identity-card parsing: the code-table fill and the
// SAM path's construct-parse-copy of a record. Recursive, so the SAM path can
// hold it around a construction that takes it again. Internal, not exported.
#ifndef TARVIK_CARD_LOCK_H
#define TARVIK_CARD_LOCK_H

#include <mutex>

namespace tarvik {
std::recursive_mutex& card_parse_mutex();
}  // namespace tarvik

#endif
