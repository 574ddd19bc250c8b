// tarvikd's log: journald's form (journal_log.h), the library's lines
// through the same door.
#pragma once

#include "journal_log.h"

namespace tarvikd {

using namespace tarvik::journal;  // NOLINT: the service's own log

// Sends the library's lines (each with its own level, at most `priority`)
// into this log.
void RouteLibraryLog(int priority);

}  // namespace tarvikd
