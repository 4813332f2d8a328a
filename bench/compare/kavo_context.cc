#include "kavo_context.h"

#include <arpa/inet.h>

namespace compare {
namespace {

constexpr const char *kName = "kavo";

constexpr uint32_t kTimeoutS = 5;  // a lost packet shows

int table_size(const Task &task) {
  const unsigned least = task.window() * task.threads;
  return static_cast<int>(task.table > least ? task.table : least);
}

}  // namespace

bool is_answered(const KAVO_ANSWER &answer, uint32_t address, bool from_cache) {
  if (answer.err_code != KAVOE_OK && answer.err_code != KAVOE_NXDOM) return false;
  const bool found = answer.err_code == KAVOE_OK && answer.rr.rr_a->dnsa4_nrr == 1 &&
                     ntohl(answer.rr.rr_a->dnsa4_addr[0].s_addr) == bench::kListedAnswer;
  if (found != bench::listed(address) || (answer.cache_code == KAVOCC_EXISTS) != from_cache) wrong(kName, address);
  return true;
}

Context::Context(const Task &task, uint16_t port) : server_(testbed::socket_address(task.server_address, port)) {
  const int cache_bytes = static_cast<int>(task.subjects * kCacheBytesEach);
  must(kavo_init_ext(&kavo_, table_size(task), cache_bytes, static_cast<int>(task.zones), 0), "kavo_init_ext");
  must(kavo_set_opt(kavo_, KAVOOPT_TIMEOUT, kTimeoutS), "timeout");

  for (unsigned n = 0; n < task.zones; ++n)
    must(kavo_add_zone(kavo_, KAVOT_BL_IP, bench::zone(n).c_str()), "kavo_add_zone");
  must(kavo_add_dns_server(kavo_, nullptr, 0), "kavo_add_dns_server");
  must(kavo_add_dns_server(kavo_, task.server_address.c_str(), port), "kavo_add_dns_server");
  must(kavo_open(kavo_), "kavo_open");
}

uint64_t Context::packets_sent() const {
  uint64_t sent = 0;
  must(kavo_get_serv_nqsent(kavo_, reinterpret_cast<const sockaddr *>(&server_), &sent), "kavo_get_serv_nqsent");
  return sent;
}

Context::~Context() {
  kavo_close(kavo_);
  kavo_free(kavo_);
}

std::vector<std::shared_ptr<Context>> Context::for_each_port(const Task &task) {
  std::vector<std::shared_ptr<Context>> contexts;
  for (unsigned t = 0; t < task.ports.size(); ++t) {
    const bench::Pinned pinned(task.core_of(t));
    contexts.push_back(std::make_shared<Context>(task, task.port_of(t)));
  }
  return contexts;
}

}  // namespace compare
