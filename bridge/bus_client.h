// The bridge's side of D-Bus: an ordinary client of tarvikd on a thread of its
// own (sd-bus on an sd-event loop). Pages' calls come in through a queue and
// are made asynchronously, so that a slow card read holds up no other call;
// answers and the cameras' events go out through `deliver`. While at least one
// page is connected the bridge holds one watch on every camera.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "rpc.h"

namespace tarvik_bridge {

using PageId = std::uint64_t;

// A text for pages. `reply`: it answers one of the page's calls. `secret`: it
// holds card data and is wiped when the last owner lets it go.
struct Outgoing {
    std::string text;
    bool reply = false;
    bool secret = false;
    Outgoing() = default;
    Outgoing(const Outgoing&) = delete;
    Outgoing& operator=(const Outgoing&) = delete;
    ~Outgoing();
};

struct BusEvents {
    // Texts for the pages named. Called on the bus's thread.
    std::function<void(std::vector<PageId>, std::shared_ptr<Outgoing>)> deliver;
    // The connection to the bus is gone. Called on the bus's thread.
    std::function<void()> lost;
};

class BusClient {
public:
    BusClient(bool session, BusEvents events);
    ~BusClient();  // stops
    BusClient(const BusClient&) = delete;
    BusClient& operator=(const BusClient&) = delete;

    // Connects and starts the bus's thread; false and `why` when the bus cannot
    // be reached.
    bool Start(std::string& why);
    void Stop();

    // From any thread: queued for the bus's thread.
    void PageJoined(PageId page);
    void PageLeft(PageId page);
    void Submit(PageId page, Call call);

    struct State;

private:
    std::unique_ptr<State> m_state;
};

}  // namespace tarvik_bridge
