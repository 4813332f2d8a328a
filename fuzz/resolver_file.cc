// resolver_file.cc - the system's resolver configuration file: for any contents, figures stay within their bounds and
// servers are addresses; the settings that were read, written and read again are the same.
#include <arpa/inet.h>
#include <bounds.h>
#include <dns_wire.h>
#include <resolver_file.h>

#include "fuzz.h"

namespace {

using fuzz::check;

struct Read {
  dns::Options options;
  dns::Address servers[3];
  unsigned count = 0;

  explicit Read(std::span<const uint8_t> bytes) {
    const fuzz::MemoryFile file(bytes);
    count = dns::read_resolver_file(file.path().c_str(), &options, servers, 3);
  }
};

std::string file_of(const Read &read) {
  const dns::Options &options = read.options;
  std::string text = "options timeout:" + std::to_string(options.timeout_us / dns::kUsPerSecond) +
                     " attempts:" + std::to_string(options.ntries) + " ndots:" + std::to_string(options.ndots) +
                     ((options.flags & DNS_SERVRRB) != 0 ? " rotate\n" : "\n");
  for (unsigned i = 0; i < read.count; ++i) {
    const dns::Address &server = read.servers[i];
    char address[INET6_ADDRSTRLEN];
    const int family = server.family == dns::Family::ipv6 ? AF_INET6 : AF_INET;
    text += std::string("nameserver ") + dns_ntop(family, server.octets, address, sizeof address) +
            (server.scope != 0 ? "%" + std::to_string(server.scope) : "") + "\n";
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const Read first({data, size});
  const dns::Options &options = first.options;
  check(first.count <= 3, "no more servers than there is room for");
  check(options.timeout_us >= dns::kUsPerSecond && options.timeout_us <= 30 * dns::kUsPerSecond, "a timeout in bounds");
  check(options.ntries >= 1 && options.ntries <= 5 && options.ndots <= 15, "attempts and dots in bounds");
  for (unsigned i = 0; i < first.count; ++i)
    check(first.servers[i].port == 53 && !dns::is_unspecified(first.servers[i]), "a server has an address");
  const std::string text = file_of(first);
  check(file_of(Read({reinterpret_cast<const uint8_t *>(text.data()), text.size()})) == text, "read, written and read");
  return 0;
}
