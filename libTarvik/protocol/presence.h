// Whether a card lies on the camera, from the SAM's answers to command 0
// (internal, pure). A card answered when the SAM's code is 0 or 1; it was
// removed when two polls in a row found none, so that one lost answer does
// not read as a card lifted and laid down again.
#ifndef TARVIK_PRESENCE_H
#define TARVIK_PRESENCE_H

namespace tarvik::presence {

enum class Change { kNone, kPlaced, kRemoved };

// Whether the SAM's code says a card answered.
constexpr bool card_answered(int samCode) { return samCode == 0 || samCode == 1; }

class Tracker {
public:
    // One poll's answer. The first poll that finds a card says it was placed.
    Change Poll(bool cardAnswered);
    // The camera left: what it had on its reader is unknown until polled again.
    void Forget();
    bool Present() const { return m_present; }

private:
    bool m_present = false;
    int m_misses = 0;
};

}  // namespace tarvik::presence

#endif
