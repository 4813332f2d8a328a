// resolver_file.cc - the system's resolver configuration file: for any contents, figures stay within their bounds and
// servers are addresses; the settings that were read, written and read again are the same.
#include <arpa/inet.h>
#include <bounds.h>
#include <resolver_file.h>

#include "fuzz.h"

namespace {

using fuzz::check;

struct Read {
  dns::Options options;
  sockaddr_in servers[3] = {};
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
    char address[INET_ADDRSTRLEN];
    text += std::string("nameserver ") + inet_ntop(AF_INET, &read.servers[i].sin_addr, address, sizeof address) + "\n";
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
    check(first.servers[i].sin_family == AF_INET && first.servers[i].sin_port == htons(53) &&
              first.servers[i].sin_addr.s_addr != 0,
          "a server has an address");
  const std::string text = file_of(first);
  check(file_of(Read({reinterpret_cast<const uint8_t *>(text.data()), text.size()})) == text, "read, written and read");
  return 0;
}
