#include "list_server.h"

#include <signal.h>

#include <charconv>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

namespace testbed {
namespace {

std::vector<std::string> command(std::string program, std::string first, const std::vector<std::string> &words) {
  std::vector<std::string> argv{std::move(program), std::move(first)};
  argv.insert(argv.end(), words.begin(), words.end());
  return argv;
}

}  // namespace

OwnServer::OwnServer(std::vector<std::string> argv) : process_(argv) {
  const std::optional<std::string> line = process_.wait_line("listening on ");
  if (!line) throw std::runtime_error(argv[0] + " did not start: " + process_.output().err);
  port_ = port_in(*line);
}

uint64_t OwnServer::count(std::string_view word) {
  const std::string out = process_.output().out;
  const size_t at = out.rfind(word);
  uint64_t count = 0;
  if (at == std::string::npos ||
      std::from_chars(out.data() + at + word.size(), out.data() + out.size(), count).ec != std::errc())
    throw std::runtime_error("a server printed no " + std::string(word));
  return count;
}

std::string listserver_path() {
  return KAVO_LISTSERVER;
}

ListServer::ListServer(std::string_view zones, const std::vector<std::string> &words)
    : OwnServer(command(KAVO_LISTSERVER, write("zones", zones), words)) {}

uint64_t ListServer::received() {
  constexpr int kAttempts = 6000;
  constexpr milliseconds kStep{10};
  constexpr std::string_view kWord = "received=";
  ++asked_;
  process_.signal(SIGUSR1);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const std::string out = process_.output().out;
    size_t seen = 0;
    for (size_t at = 0; (at = out.find(kWord, at)) != std::string::npos; at += kWord.size())
      ++seen;
    if (seen >= asked_ && out.back() == '\n') return count(kWord);
    std::this_thread::sleep_for(kStep);
  }
  throw std::runtime_error("the list server does not tell its counts");
}

Relay::Relay(uint16_t server_port, const std::vector<std::string> &words)
    : OwnServer(command(KAVO_RELAY, "127.0.0.1:" + std::to_string(server_port), words)) {}

}  // namespace testbed
