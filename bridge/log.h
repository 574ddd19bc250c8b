// tarvik-bridge's log: journald's form (journal_log.h). Text that came from a
// page or a header goes through Printable() first.
#pragma once

#include "journal_log.h"

namespace tarvik_bridge {
using namespace tarvik::journal;  // NOLINT: the bridge's own log
}  // namespace tarvik_bridge
