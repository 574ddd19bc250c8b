// tarvik-bridge: the cameras of tarvikd for the pages of a kiosk's browser, as
// JSON-RPC 2.0 over a WebSocket on a loopback address, for the pages whose
// origins are allowed.
#include <CLI/CLI.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "access.h"
#include "bus_client.h"
#include "log.h"
#include "server.h"

namespace {

using namespace tarvik_bridge;

constexpr char kFooter[] =
    "Serves JSON-RPC 2.0 over WebSocket on a loopback address to the pages whose origins\n"
    "are allowed: methods getCameras, readItem, writeItem, readCard and status;\n"
    "notifications cardPlaced, cardRemoved and stateChanged. An upgrade without an allowed\n"
    "Origin, or whose Host does not name the address and port listened on (or\n"
    "localhost:PORT), is answered 403; with no --allow-origin every page is. When it\n"
    "listens, the bridge prints 'listening on ADDR:PORT' on standard output. Log lines go\n"
    "to standard error with journald's priority prefixes; none carries card data.\n"
    "Exit status: 0 after SIGTERM or SIGINT, 1 when the bus or the address cannot be\n"
    "had or the bus goes away, 2 for a bad option.";

int Main(int argc, char** argv) {
    std::string listenText = "127.0.0.1:8737";
    std::vector<std::string> origins;
    bool session = false;
    std::string level = "info";
    CLI::App app{"tarvik-bridge: the dual-eye camera 0ac8:010c for kiosk pages, over WebSocket",
                 "tarvik-bridge"};
    app.footer(kFooter);
    app.set_version_flag("--version", std::string("tarvik-bridge ") + TARVIK_BRIDGE_VERSION);
    app.add_option("--listen", listenText,
                   "ADDR:PORT to listen on, a loopback address only: 127.0.0.0/8 or [::1] "
                   "(default 127.0.0.1:8737; port 0 picks a free one)")
        ->type_name("ADDR:PORT");
    app.add_option("--allow-origin", origins,
                   "A page origin allowed to connect, exactly as the browser sends it "
                   "(http://127.0.0.1:8000); repeat for more")
        ->type_name("ORIGIN");
    app.add_flag("--session", session, "Use the session bus (tests, demos)");
    app.add_option("--log-level", level, "debug, info (default), notice, warning or error")
        ->check(CLI::IsMember({"debug", "info", "notice", "warning", "error"}));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : 2;
    }
    int priority = kInfo;
    ParseLogPriority(level, priority);
    SetLogPriority(priority);

    ListenAddress listen;
    std::string why;
    if (!ParseListen(listenText, listen, why)) {
        std::fprintf(stderr, "tarvik-bridge: --listen %s: %s\n", Printable(listenText).c_str(),
                     why.c_str());
        return 2;
    }
    for (const std::string& origin : origins) {
        if (!CheckOriginSyntax(origin, why)) {
            std::fprintf(stderr, "tarvik-bridge: --allow-origin: %s\n", why.c_str());
            return 2;
        }
    }
    if (origins.empty()) {
        Log(kWarning, "no --allow-origin given: every page is refused");
    }

    boost::asio::io_context io;
    int status = 0;
    Server* server = nullptr;
    std::function<void()> stop;  // closes everything: io.run() then returns
    BusEvents events;
    events.deliver = [&io, &server](std::vector<PageId> pages, std::shared_ptr<Outgoing> out) {
        boost::asio::post(io, [&server, pages = std::move(pages), out = std::move(out)] {
            if (server != nullptr) server->Deliver(pages, out);
        });
    };
    events.lost = [&io, &stop, &status] {
        boost::asio::post(io, [&stop, &status] {
            status = 1;
            if (stop) stop();
        });
    };
    BusClient bus(session, events);
    if (!bus.Start(why)) {
        Log(kError, "%s", why.c_str());
        return 1;
    }
    Server listener(io, bus, listen, origins);
    if (!listener.Listen(why)) {
        Log(kError, "cannot listen on %s: %s", listenText.c_str(), why.c_str());
        return 1;
    }
    boost::asio::signal_set signals(io, SIGTERM, SIGINT);
    stop = [&listener, &signals] {
        listener.Stop();
        signals.cancel();
    };
    signals.async_wait([&stop](const boost::system::error_code& ec, int) {
        if (ec) return;
        Log(kNotice, "stopping");
        stop();
    });
    server = &listener;
    listener.Start();
    const std::string address = listen.v6 ? "[" + listen.address + "]" : listen.address;
    std::printf("listening on %s:%u\n", address.c_str(), static_cast<unsigned>(listener.Port()));
    std::fflush(stdout);
    Log(kNotice, "listening on %s:%u for %zu origin(s)", address.c_str(),
        static_cast<unsigned>(listener.Port()), origins.size());
    io.run();  // until stop() has closed everything
    bus.Stop();
    server = nullptr;
    stop = nullptr;
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Main(argc, argv);
    } catch (const std::exception& e) {
        tarvik_bridge::Log(tarvik_bridge::kError, "stopped: %s", e.what());
    }
    return 1;
}
