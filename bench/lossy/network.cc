#include "network.h"

#include <charconv>
#include <stdexcept>
#include <string>

#include "client.h"

namespace lossy {
namespace {

constexpr unsigned kBits = 8;
constexpr uint32_t kByte = 255;

std::string dotted(uint32_t address) {
  std::string text;
  for (unsigned shift = 4 * kBits; shift > 0;) {
    shift -= kBits;
    text += std::to_string(address >> shift & kByte) + (shift > 0 ? "." : "");
  }
  return text;
}

uint16_t port_of(support::Process *process, const char *what) {
  const uint16_t port = support::port_in(process->wait_line("listening on").value_or(""));
  if (port == 0) throw std::runtime_error(std::string(what) + " did not start: " + process->output().err);
  return port;
}

// count_in returns the figure behind `word` in the counts that a relay prints.
uint64_t count_in(const std::string &text, const std::string &word) {
  const size_t at = text.rfind(word);
  uint64_t count = 0;
  if (at == std::string::npos ||
      std::from_chars(text.data() + at + word.size(), text.data() + text.size(), count).ec != std::errc())
    throw std::runtime_error("the relay printed no " + word);
  return count;
}

}  // namespace

Server::Server(unsigned questions) {
  std::string zone = std::string("zone ") + kZone + "\n";
  for (unsigned n = 0; n < questions; ++n)
    zone += "record " + name_of(n) + ". A " + dotted(address_of(n)) + "\n";
  process_ = std::make_unique<support::Process>(
      std::vector<std::string>{std::string(KAVO_TOOLS_DIR) + "/kavo-listserver", directory_.write("zones", zone)});
  port_ = port_of(process_.get(), "the list server");
}

Network::Network(const Server &server, const std::vector<Path> &paths, uint64_t seed) {
  for (const Path &path : paths) {
    relays_.push_back(std::make_unique<support::Process>(std::vector<std::string>{
        std::string(KAVO_BENCH_DIR) + "/kavo-relay", "127.0.0.1:" + std::to_string(server.port()), "--loss",
        std::to_string(path.loss), "--delay", std::to_string(kDelayMs), "--jitter", std::to_string(kJitterMs),
        "--duplicate", std::to_string(kTwiceIn100), "--seed", std::to_string(seed++)}));
    ports_.push_back(port_of(relays_.back().get(), "a relay"));
  }
}

uint64_t Network::stop() {
  uint64_t sent = 0;
  for (const auto &relay : relays_) {
    if (relay->stop() != 0) throw std::runtime_error("a relay failed: " + relay->output().err);
    const std::string counts = relay->output().out;
    if (count_in(counts, "turned-away=") != 0) throw std::runtime_error("a relay was too small: " + counts);
    sent += count_in(counts, "asked=");
  }
  return sent;
}

}  // namespace lossy
