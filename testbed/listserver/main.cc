// kavo-listserver: an authoritative name server for list zones, on loopback, that misbehaves on request. The demo, the
// tests and the benchmarks ask it.
#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "server.h"
#include "zone_file.h"

namespace {

constexpr int kUsage = 64;  // EX_USAGE of sysexits.h
constexpr int kFailed = 1;
constexpr uint32_t kLoopbackNet = 127;
constexpr unsigned kNetShift = 24;
constexpr unsigned kPortMax = 65535;

struct Arguments {
  std::vector<std::string> files;
  std::vector<std::string> faults;
  std::string address = "127.0.0.1";
  unsigned port = 0;
  uint64_t seed = 1;
};

void describe(CLI::App *app, Arguments *arguments) {
  app->add_option("FILE", arguments->files, "zones file; several are read one after the other")->required();
  app->add_option("--address", arguments->address, "address to listen on, of 127.0.0.0/8 only")->capture_default_str();
  app->add_option("--port", arguments->port, "UDP port; 0 takes a free one")
      ->check(CLI::Range(0U, kPortMax))
      ->capture_default_str();
  app->add_option("--fault", arguments->faults, "misbehave: [ZONE:]WORD[,WORD...]; may be given again")
      ->allow_extra_args(false);
  app->add_option("--seed", arguments->seed, "of everything that is left to chance")->capture_default_str();
  app->footer(
      "Prints \"listening on ADDRESS:PORT\" when it is ready, and its counts (received, answered, dropped, broken)\n"
      "at SIGUSR1 and when SIGTERM ends it. A TXT query of class CHAOS for stats.listserver returns the same\n"
      "counts and is not counted itself.\n\nStatements of the zones file:\n" +
      std::string(listserver::kZoneFileHelp) + "\nFaults:\n" + listserver::kFaultsHelp);
}

// Only loopback: this server gives wrong answers, and no other host may ask it.
in_addr loopback(const std::string &text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1 || ntohl(address.s_addr) >> kNetShift != kLoopbackNet) {
    throw std::runtime_error("\"" + text + "\" is no address of 127.0.0.0/8");
  }
  return address;
}

void serve(const Arguments &arguments) {
  const in_addr address = loopback(arguments.address);
  listserver::Config config;
  for (const std::string &file : arguments.files)
    listserver::read_zone_file(file, &config);
  for (const std::string &fault : arguments.faults)
    listserver::add_fault_option(fault, &config);
  listserver::settle_faults(&config);
  listserver::Server server(config, arguments.seed);
  server.open(address, static_cast<uint16_t>(arguments.port));
  std::printf("listening on %s:%u\n", arguments.address.c_str(), server.port());
  std::fflush(stdout);
  server.run();
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app("An authoritative DNS server for list zones, on loopback, that misbehaves on request.",
               "kavo-listserver");
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
    std::fprintf(stderr, "kavo-listserver: %s\n", error.what());
    return kFailed;
  }
  return 0;
}
