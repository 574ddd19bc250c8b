// The SAM exchange of a read transaction of item 12 (internal).
#ifndef TARVIK_SAM_CHANNEL_H
#define TARVIK_SAM_CHANNEL_H

#include <string>

#include "TarvikImpl.h"

namespace tarvik::sam {

// A card's sex and nation codes as the card holds them, for callers that want
// them besides their names.
struct CardCodes {
    std::wstring sex;
    std::wstring nation;
    void Wipe();
};

// A card read (command 3 or 4 in `in`) through the read transaction that also
// hands out the codes.
HRESULT read_card(TarvikImpl& impl, const _SAM_IN_PARAM* in, _SAM_OUT_PARAM* out, CardCodes* codes);

// Clears a record that held a card, in a way the compiler keeps.
void wipe(_SAM_OUT_PARAM& out);

// The exchange after the marker, with the transaction's locks held: request,
// answer frames, checks, delivery into `out` (both records present).
HRESULT read_sam_item(TarvikImpl& impl, const _SAM_IN_PARAM* in, _SAM_OUT_PARAM* out);

}  // namespace tarvik::sam

#endif
