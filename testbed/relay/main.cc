// kavo-relay: a bad network on loopback, between a client and a DNS server. UDP packets are lost, late, out of order or
// there twice; TCP passes unharmed.
#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>

#include "relay.h"

namespace {

constexpr int kUsage = 64;  // EX_USAGE of sysexits.h
constexpr int kFailed = 1;
constexpr uint32_t kLoopbackNet = 127;
constexpr unsigned kNetShift = 24;
constexpr unsigned kPortMax = 65535;
constexpr unsigned kHundred = 100;
constexpr unsigned kDelayMaxMs = 60'000;

struct Arguments {
  std::string server;
  std::string address = "127.0.0.1";
  unsigned port = 0;
  unsigned loss = 0;
  unsigned duplicate = 0;
  unsigned delay_ms = 0;
  unsigned jitter_ms = 0;
  uint64_t seed = 1;
};

void describe(CLI::App *app, Arguments *arguments) {
  app->add_option("SERVER", arguments->server, "the DNS server, ADDRESS:PORT of 127.0.0.0/8")->required();
  app->add_option("--address", arguments->address, "address to listen on, of 127.0.0.0/8 only")->capture_default_str();
  app->add_option("--port", arguments->port, "UDP and TCP port; 0 takes a free one")
      ->check(CLI::Range(0U, kPortMax))
      ->capture_default_str();
  app->add_option("--loss", arguments->loss, "packets in 100 that are lost, each way")
      ->check(CLI::Range(0U, kHundred))
      ->capture_default_str();
  app->add_option("--duplicate", arguments->duplicate, "packets in 100 that arrive twice, each way")
      ->check(CLI::Range(0U, kHundred))
      ->capture_default_str();
  app->add_option("--delay", arguments->delay_ms, "milliseconds that a packet takes, each way")
      ->check(CLI::Range(0U, kDelayMaxMs))
      ->capture_default_str();
  app->add_option("--jitter", arguments->jitter_ms, "milliseconds by which the delay is off at most, either way")
      ->check(CLI::Range(0U, kDelayMaxMs))
      ->capture_default_str();
  app->add_option("--seed", arguments->seed, "of everything that is left to chance")->capture_default_str();
  app->footer(
      "Prints \"listening on ADDRESS:PORT\" when it is ready, and its counts (asked: packets from clients, answered:\n"
      "packets from the server, lost, twice, turned-away for want of room) at SIGUSR1 and when SIGTERM ends it. The\n"
      "same packets about the same question have the same fate under the same seed, from any client at any time.");
}

// Only loopback: a bad network must not reach a real one.
sockaddr_in loopback(const std::string &text, unsigned port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  if (inet_pton(AF_INET, text.c_str(), &address.sin_addr) != 1 ||
      ntohl(address.sin_addr.s_addr) >> kNetShift != kLoopbackNet)
    throw std::runtime_error("\"" + text + "\" is no address of 127.0.0.0/8");
  return address;
}

sockaddr_in server_address(const std::string &text) {
  const size_t colon = text.find(':');
  unsigned port = 0;
  if (colon == std::string::npos || !CLI::detail::lexical_cast(text.substr(colon + 1), port) || port == 0 ||
      port > kPortMax)
    throw std::runtime_error("\"" + text + "\" is not of the form ADDRESS:PORT");
  return loopback(text.substr(0, colon), port);
}

void serve(const Arguments &arguments) {
  using std::chrono::milliseconds;
  const relay::Terms terms = {arguments.loss, arguments.duplicate, milliseconds(arguments.delay_ms),
                              milliseconds(arguments.jitter_ms)};
  relay::Relay relay(terms, arguments.seed, server_address(arguments.server));
  relay.open(loopback(arguments.address, 0).sin_addr, static_cast<uint16_t>(arguments.port));
  std::printf("listening on %s:%u\n", arguments.address.c_str(), relay.port());
  std::fflush(stdout);
  relay.run();
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app("A bad network on loopback, between a client and a DNS server.", "kavo-relay");
  Arguments arguments;
  describe(&app, &arguments);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? 0 : kUsage;
  }
  try {
    serve(arguments);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "kavo-relay: %s\n", error.what());
    return kFailed;
  }
  return 0;
}
