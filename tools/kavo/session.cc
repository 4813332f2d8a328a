#include "session.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

#include "subject.h"

namespace tool {
namespace {

constexpr unsigned kAttempts = 3;
constexpr unsigned kAttemptsMax = 50;  // the library's own bound
constexpr unsigned kSlackMs = 5000;    // beyond all attempts, before the tool gives up
constexpr unsigned kPortMax = 65534;   // the library's own bound

struct ServerAddress {
  std::string address;
  unsigned port;  // 0: the library's default
};

ServerAddress parse_server(const std::string &text) {
  const std::string name = "server " + quoted(text);
  const size_t colon = text.find(':');
  if (colon != text.rfind(':') || text.starts_with("["))
    throw Usage{name + ": only IPv4 addresses of servers are supported"};
  ServerAddress server{text.substr(0, colon), 0};
  in_addr ignored;
  if (kavo_dns_ptoa4(server.address.c_str(), &ignored) <= 0)
    throw Usage{name + ": " + quoted(server.address) + " is no IPv4 address"};
  if (colon == std::string::npos) return server;
  const char *begin = text.data() + colon + 1, *end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(begin, end, server.port);
  if (error != std::errc() || stop != end || server.port < 1 || server.port > kPortMax) {
    throw Usage{name + ": the port must be a number from 1 to " + std::to_string(kPortMax)};
  }
  return server;
}

// attempts_of returns how many attempts a query has: each server gets one at least.
unsigned attempts_of(const Network &network) {
  return std::clamp(static_cast<unsigned>(network.servers.size()), kAttempts, kAttemptsMax);
}

void set_servers(const Network &network, KAVO kavo) {
  if (network.servers.empty()) return;
  must(kavo_add_dns_server(kavo, nullptr, 0), "cannot replace the servers");
  for (const std::string &text : network.servers) {
    const ServerAddress server = parse_server(text);
    must(kavo_add_dns_server(kavo, server.address.c_str(), server.port), "cannot add a server");
  }
}

}  // namespace

Context::Context(const Room &room) {
  must(kavo_init_ext(&kavo_, room.nodes, room.cache_bytes, room.zones, 0), "cannot create the library's context");
}

Context::~Context() {
  kavo_close(kavo_);
  kavo_free(kavo_);
}

Session::Session(const Network &network, const Room &room)
    : context_(room), wait_ms_((attempts_of(network) + 1) * network.timeout_ms + kSlackMs), trace_(network.trace) {
  set_servers(network, kavo());
  must(kavo_set_opt(kavo(), KAVOOPT_TIMEOUT_MSEC, network.timeout_ms), "cannot set the timeout");
  must(kavo_set_opt(kavo(), KAVOOPT_NTRIES, attempts_of(network)), "cannot set the number of attempts");
  must(kavo_set_opt(kavo(), KAVOOPT_CLOSE_FAST, 1), "cannot set the manner of closing");
  if (!network.trace) return;
  must(kavo_set_trace(kavo(), kavo_dbgcb, nullptr), "cannot set the trace");
  // The trace goes to both streams: a whole line at a time keeps them in step where they end up in one place.
  (void)std::setvbuf(stdout, nullptr, _IOLBF, 0);
}

void Session::keep_large() {
  large_ = std::make_unique<LargeAnswers>();
  large_->observe(kavo(), trace_);
}

void Session::open() {
  must(kavo_open(kavo()), "cannot open the library's context");
}

}  // namespace tool
