#include "access.h"

#include <boost/asio/ip/address.hpp>
#include <cctype>

#include "log.h"

namespace tarvik_bridge {

namespace {

bool ParsePort(const std::string& text, unsigned short& port) {
    if (text.empty() || text.size() > 5) return false;
    unsigned long n = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return false;
        n = n * 10 + static_cast<unsigned long>(c - '0');
    }
    if (n > 65535) return false;
    port = static_cast<unsigned short>(n);
    return true;
}

std::string Lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

}  // namespace

bool ParseListen(const std::string& text, ListenAddress& out, std::string& why) {
    const auto colon = text.rfind(':');
    if (colon == std::string::npos) {
        why = "expected ADDR:PORT, for example 127.0.0.1:8737 or [::1]:8737";
        return false;
    }
    std::string host = text.substr(0, colon);
    const bool bracketed = host.size() >= 2 && host.front() == '[' && host.back() == ']';
    if (bracketed) host = host.substr(1, host.size() - 2);
    if (!ParsePort(text.substr(colon + 1), out.port)) {
        why = "the port must be a number from 0 to 65535";
        return false;
    }
    boost::system::error_code error;
    const auto address = boost::asio::ip::make_address(host, error);
    if (error || address.is_v6() != bracketed) {
        why = "expected an IP address (IPv6 in brackets), not " + Printable(host);
        return false;
    }
    if (!address.is_loopback()) {
        why = Printable(host) + " is not a loopback address; the bridge listens on " +
              "127.0.0.0/8 or ::1 only";
        return false;
    }
    out.address = address.to_string();
    out.v6 = address.is_v6();
    return true;
}

bool CheckOriginSyntax(const std::string& origin, std::string& why) {
    if (origin == "null") {
        why =
            "the origin null is sent by file: pages and sandboxed frames of any site; "
            "serve the page from http://127.0.0.1:PORT and allow that";
        return false;
    }
    const auto sep = origin.find("://");
    bool ok = sep != std::string::npos && sep > 0 && sep + 3 < origin.size() &&
              std::isalpha(static_cast<unsigned char>(origin[0]));
    for (std::size_t i = 0; ok && i < origin.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(origin[i]);
        if (i >= sep && i < sep + 3) continue;
        const bool scheme = i < sep;
        ok = (scheme ? (std::islower(c) || std::isdigit(c) || c == '+' || c == '-' || c == '.')
                     : (c > 0x20 && c < 0x7f && !std::isupper(c) && c != '/' && c != '?' &&
                        c != '#' && c != '*' && c != '\\'));
    }
    if (!ok) {
        why =
            "an origin is scheme://host[:port] in lower case, without a path or a slash at "
            "the end (as the browser sends it), not " +
            Printable(origin);
    }
    return ok;
}

Verdict JudgeUpgrade(const ListenAddress& listen, unsigned short port,
                     const std::vector<std::string>& allowed, const std::vector<std::string>& hosts,
                     const std::vector<std::string>& origins) {
    Verdict v;
    if (hosts.size() != 1) {
        v.status = 403;
        v.reason = hosts.empty() ? "no Host" : "more than one Host";
        return v;
    }
    const std::string address = listen.v6 ? "[" + listen.address + "]" : listen.address;
    const std::string suffix = ":" + std::to_string(port);
    const std::string host = Lower(hosts[0]);
    bool named = host == address + suffix || host == "localhost" + suffix;
    if (port == 80) named = named || host == address || host == "localhost";
    if (!named) {
        v.status = 403;
        v.reason = "Host " + Printable(hosts[0]) + " is not " + address + suffix;
        return v;
    }
    if (origins.size() != 1) {
        v.status = 403;
        v.reason = origins.empty() ? "no Origin" : "more than one Origin";
        return v;
    }
    for (const std::string& a : allowed) {
        if (origins[0] == a) return v;
    }
    v.status = 403;
    v.reason = "Origin " + Printable(origins[0]) + " is not allowed";
    return v;
}

}  // namespace tarvik_bridge
