#include "server.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <chrono>
#include <deque>
#include <map>
#include <optional>

#include "log.h"

namespace tarvik_bridge {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using boost::system::error_code;

namespace {

class Session;

unsigned long long Id(std::uint64_t id) { return static_cast<unsigned long long>(id); }

const char* StatusText(unsigned status) {
    switch (status) {
        case 403:
            return "This page may not use the camera bridge.\n";
        case 426:
            return "The camera bridge speaks WebSocket only.\n";
        case 503:
            return "Too many pages use the camera bridge; try again later.\n";
        default:
            return "Bad request.\n";
    }
}

std::vector<std::string> Fields(const http::request<http::empty_body>& req, http::field field) {
    std::vector<std::string> out;
    const auto range = req.equal_range(field);
    for (auto it = range.first; it != range.second; ++it) out.emplace_back(it->value());
    return out;
}

}  // namespace

struct Server::Impl {
    asio::io_context& io;
    BusClient& bus;
    ListenAddress listen;
    std::vector<std::string> origins;
    Limits limits;
    tcp::acceptor acceptor;
    asio::steady_timer retry;
    unsigned short port = 0;
    bool stopped = false;
    std::uint64_t nextId = 0;
    std::uint64_t refusals = 0;
    std::map<std::uint64_t, std::weak_ptr<Session>> connections;  // every socket
    std::map<PageId, std::weak_ptr<Session>> pages;               // upgraded, or upgrading

    Impl(asio::io_context& context, BusClient& client, ListenAddress address,
         std::vector<std::string> allowed, Limits l)
        : io(context),
          bus(client),
          listen(std::move(address)),
          origins(std::move(allowed)),
          limits(l),
          acceptor(context),
          retry(context) {}

    void Accept();
};

namespace {

class Session : public std::enable_shared_from_this<Session> {
public:
    Session(Server::Impl& server, std::uint64_t id, tcp::socket socket)
        : m_server(server), m_id(id), m_stream(std::move(socket)) {}

    void Start() {
        m_stream.expires_after(std::chrono::seconds(m_server.limits.handshakeSeconds));
        m_parser.emplace();
        m_parser->header_limit(static_cast<std::uint32_t>(m_server.limits.maxHeader));
        http::async_read(
            m_stream, m_buffer, *m_parser,
            [self = shared_from_this()](error_code ec, std::size_t) { self->OnRequest(ec); });
    }

    // A text for the page; a reply ends one of its calls.
    void Queue(const std::shared_ptr<Outgoing>& out) {
        if (m_done || !m_ws) return;
        if (out->reply && m_calls > 0) --m_calls;
        if (m_queue.size() >= m_server.limits.maxQueuedPerPage) {
            return Finish("it does not read what it is sent");
        }
        m_queue.push_back(out);
        Write();
    }

    void Abort() { Finish("the bridge stops"); }

private:
    void OnRequest(error_code ec) {
        if (ec) return Finish(nullptr);  // closed, too slow, too long or not HTTP: no answer
        const auto& req = m_parser->get();
        Verdict v = JudgeUpgrade(m_server.listen, m_server.port, m_server.origins,
                                 Fields(req, http::field::host), Fields(req, http::field::origin));
        if (v.status == 0 && !websocket::is_upgrade(req)) v = {426, "not a WebSocket upgrade"};
        if (v.status == 0 && m_server.pages.size() >= m_server.limits.maxPages) {
            v = {503, "already " + std::to_string(m_server.limits.maxPages) + " pages"};
        }
        if (v.status != 0) {
            // A page may knock again and again: the first refusals are logged,
            // then one in a thousand.
            const std::uint64_t n = ++m_server.refusals;
            if (n <= 20 || n % 1000 == 0) {
                Log(kNotice, "connection %llu refused (%u; %llu so far): %s", Id(m_id),
                    static_cast<unsigned>(v.status), Id(n), v.reason.c_str());
            }
            return Respond(static_cast<unsigned>(v.status), req.version());
        }
        const auto origin = req[http::field::origin];
        m_origin = Printable(std::string_view(origin.data(), origin.size()));
        m_server.pages.emplace(m_id, weak_from_this());
        m_stream.expires_never();
        m_buffer.consume(m_buffer.size());  // a page speaks only after the upgrade's answer
        m_ws.emplace(std::move(m_stream));
        m_ws->read_message_max(m_server.limits.maxMessage);
        websocket::stream_base::timeout timeout{};
        timeout.handshake_timeout = std::chrono::seconds(m_server.limits.handshakeSeconds);
        timeout.idle_timeout = std::chrono::seconds(m_server.limits.idleSeconds);
        timeout.keep_alive_pings = true;
        m_ws->set_option(timeout);
        m_ws->set_option(websocket::stream_base::decorator(
            [](websocket::response_type& res) { res.set(http::field::server, "tarvik-bridge"); }));
        m_ws->async_accept(req, [self = shared_from_this()](error_code e) { self->OnAccepted(e); });
    }

    void Respond(unsigned status, unsigned version) {
        m_response.emplace(static_cast<http::status>(status), version);
        m_response->set(http::field::server, "tarvik-bridge");
        m_response->set(http::field::content_type, "text/plain; charset=utf-8");
        m_response->body() = StatusText(status);
        m_response->keep_alive(false);
        m_response->prepare_payload();
        http::async_write(m_stream, *m_response,
                          [self = shared_from_this()](error_code, std::size_t) {
                              error_code ignored;
                              self->m_stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
                              self->Finish(nullptr);
                          });
    }

    void OnAccepted(error_code ec) {
        if (ec) return Finish(nullptr);
        m_joined = true;
        m_server.bus.PageJoined(m_id);
        Log(kInfo, "page %llu connected from origin %s (%zu pages)", Id(m_id), m_origin.c_str(),
            m_server.pages.size());
        Read();
    }

    void Read() {
        m_ws->async_read(m_buffer, [self = shared_from_this()](error_code ec, std::size_t) {
            self->OnRead(ec);
        });
    }

    void OnRead(error_code ec) {
        if (m_done) return;
        if (ec) {
            return Finish(ec == websocket::error::closed ? "it closed" : ec.message().c_str());
        }
        if (!m_ws->got_text()) {
            m_buffer.consume(m_buffer.size());
            m_ws->async_close(
                websocket::close_reason(websocket::close_code::unknown_data, "text messages only"),
                [self = shared_from_this()](error_code) {
                    self->Finish("it sent a binary message");
                });
            return;
        }
        const auto data = m_buffer.cdata();
        Parsed parsed =
            ParseMessage(std::string_view(static_cast<const char*>(data.data()), data.size()));
        m_buffer.consume(m_buffer.size());
        if (parsed.outcome == Parsed::kReply) {
            auto out = std::make_shared<Outgoing>();
            out->text = std::move(parsed.reply);
            Queue(out);
        } else if (parsed.outcome == Parsed::kCall) {
            if (m_calls >= m_server.limits.maxCallsPerPage) {
                auto out = std::make_shared<Outgoing>();
                out->text = ErrorText(parsed.call.id, kServiceError,
                                      "too many calls wait for answers; wait for one first",
                                      "org.freedesktop.DBus.Error.LimitsExceeded");
                Queue(out);
            } else {
                ++m_calls;
                m_server.bus.Submit(m_id, std::move(parsed.call));
            }
        }
        if (!m_done) Read();
    }

    void Write() {
        if (m_writing || m_queue.empty() || m_done) return;
        m_writing = true;
        m_ws->text(true);
        m_ws->async_write(asio::buffer(m_queue.front()->text),
                          [self = shared_from_this()](error_code ec, std::size_t) {
                              self->m_writing = false;
                              if (!self->m_queue.empty()) self->m_queue.pop_front();
                              if (ec) return self->Finish(ec.message().c_str());
                              self->Write();
                          });
    }

    // Ends the connection (once); `why` is logged for a page.
    void Finish(const char* why) {
        if (m_done) return;
        m_done = true;
        m_queue.clear();
        m_server.connections.erase(m_id);
        if (m_server.pages.erase(m_id) != 0 && m_joined) {
            m_server.bus.PageLeft(m_id);
            Log(kInfo, "page %llu left: %s (%zu pages)", Id(m_id), why != nullptr ? why : "",
                m_server.pages.size());
        }
        error_code ignored;
        if (m_ws) {
            beast::get_lowest_layer(*m_ws).socket().close(ignored);
        } else {
            m_stream.socket().close(ignored);
        }
    }

    Server::Impl& m_server;
    const std::uint64_t m_id;
    beast::tcp_stream m_stream;
    std::optional<websocket::stream<beast::tcp_stream>> m_ws;
    beast::flat_buffer m_buffer;
    std::optional<http::request_parser<http::empty_body>> m_parser;
    std::optional<http::response<http::string_body>> m_response;
    std::deque<std::shared_ptr<Outgoing>> m_queue;
    std::string m_origin;
    unsigned m_calls = 0;
    bool m_writing = false;
    bool m_joined = false;
    bool m_done = false;
};

}  // namespace

void Server::Impl::Accept() {
    acceptor.async_accept([this](error_code ec, tcp::socket socket) {
        if (stopped) return;
        if (ec) {
            // Out of descriptors, say: try again in a moment rather than spin.
            Log(kWarning, "accept: %s", ec.message().c_str());
            retry.expires_after(std::chrono::milliseconds(200));
            retry.async_wait([this](error_code e) {
                if (!e && !stopped) Accept();
            });
            return;
        }
        if (connections.size() >= limits.maxConnections) {
            Log(kNotice, "connection refused: already %zu connections", connections.size());
            error_code ignored;
            socket.close(ignored);
        } else {
            const std::uint64_t id = ++nextId;
            auto session = std::make_shared<Session>(*this, id, std::move(socket));
            connections.emplace(id, session);
            session->Start();
        }
        Accept();
    });
}

Server::Server(asio::io_context& io, BusClient& bus, ListenAddress listen,
               std::vector<std::string> origins, Limits limits)
    : m_impl(std::make_shared<Impl>(io, bus, std::move(listen), std::move(origins), limits)) {}

Server::~Server() = default;

bool Server::Listen(std::string& why) {
    Impl& s = *m_impl;
    error_code ec;
    const tcp::endpoint endpoint(asio::ip::make_address(s.listen.address, ec), s.listen.port);
    if (!ec) s.acceptor.open(endpoint.protocol(), ec);
    if (!ec) s.acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
    if (!ec && s.listen.v6) s.acceptor.set_option(asio::ip::v6_only(true), ec);
    if (!ec) s.acceptor.bind(endpoint, ec);
    if (!ec) s.acceptor.listen(asio::socket_base::max_listen_connections, ec);
    if (ec) {
        why = ec.message();
        return false;
    }
    s.port = s.acceptor.local_endpoint().port();
    return true;
}

unsigned short Server::Port() const { return m_impl->port; }

void Server::Start() { m_impl->Accept(); }

void Server::Stop() {
    Impl& s = *m_impl;
    s.stopped = true;
    error_code ignored;
    s.acceptor.close(ignored);
    s.retry.cancel();
    std::vector<std::shared_ptr<Session>> open;
    for (auto& [id, weak] : s.connections) {
        if (auto session = weak.lock()) open.push_back(session);
    }
    for (auto& session : open) session->Abort();
}

void Server::Deliver(const std::vector<PageId>& pages, const std::shared_ptr<Outgoing>& out) {
    for (const PageId page : pages) {
        const auto it = m_impl->pages.find(page);
        if (it == m_impl->pages.end()) continue;
        if (auto session = it->second.lock()) session->Queue(out);
    }
}

}  // namespace tarvik_bridge
