// The SAM exchange of a read transaction of item 12 (internal).
#ifndef TARVIK_SAM_CHANNEL_H
#define TARVIK_SAM_CHANNEL_H

#include "TarvikImpl.h"

namespace tarvik::sam {

// The exchange after the marker, with the transaction's locks held: request,
// answer frames, checks, delivery into `out` (both records present).
HRESULT read_sam_item(TarvikImpl& impl, const _SAM_IN_PARAM* in, _SAM_OUT_PARAM* out);

}  // namespace tarvik::sam

#endif
