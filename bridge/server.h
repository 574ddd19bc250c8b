// The WebSocket side of the bridge: a loopback listener, the checks every
// upgrade passes before it is taken (Host, Origin, the number of pages), and
// one session per page that turns its JSON-RPC calls into the bus client's
// calls and sends back what the bus client delivers. Everything here runs on
// the one thread that runs the io_context.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "access.h"
#include "bus_client.h"

namespace boost::asio {
class io_context;
}

namespace tarvik_bridge {

struct Limits {
    std::size_t maxMessage = 64 * 1024;  // bytes in one message from a page, frames together
    std::size_t maxHeader = 8 * 1024;    // bytes of the upgrade request's header
    unsigned maxPages = 16;              // pages connected at once; more get 503
    unsigned maxConnections = 32;        // sockets, upgrades under way included; more are closed
    unsigned maxCallsPerPage = 4;        // calls one page waits for at once
    std::size_t maxQueuedPerPage = 64;   // texts waiting to go to one page; more close it
    unsigned handshakeSeconds = 5;       // to send the upgrade request, and to finish it
    unsigned idleSeconds = 60;           // silence (pings unanswered) before a page is dropped
};

class Server {
public:
    Server(boost::asio::io_context& io, BusClient& bus, ListenAddress listen,
           std::vector<std::string> origins, Limits limits = {});
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Binds and listens; false and `why` when the address cannot be had.
    bool Listen(std::string& why);
    unsigned short Port() const;
    // Starts taking connections.
    void Start();
    // Closes the listener and every connection.
    void Stop();

    // Sends `out` to the pages named, those still there.
    void Deliver(const std::vector<PageId>& pages, const std::shared_ptr<Outgoing>& out);

    struct Impl;

private:
    std::shared_ptr<Impl> m_impl;
};

}  // namespace tarvik_bridge
