// library.h - what the benchmarks that call the library share: calls that must not fail, and a block to fill caches
// with.
#ifndef KAVO_BENCH_SUPPORT_LIBRARY_H
#define KAVO_BENCH_SUPPORT_LIBRARY_H

#include <arpa/inet.h>
#include <kavo.h>
#include <questions.h>

#include <cstring>
#include <stdexcept>
#include <string>

namespace bench {

inline void must(KAVO_ERR code, const char *what) {
  if (code != KAVOE_OK) throw std::runtime_error(std::string(what) + ": " + kavo_strerror(code));
}

// check throws unless an answer of a list says what it must about an address.
inline void check(const KAVO_ANSWER &answer, bool address_listed) {
  const bool right = address_listed ? answer.err_code == KAVOE_OK && answer.rr.rr_a->dnsa4_nrr == 1 &&
                                          ntohl(answer.rr.rr_a->dnsa4_addr[0].s_addr) == kListedAnswer
                                    : answer.err_code == KAVOE_NXDOM;
  if (!right) throw std::runtime_error(std::string("a wrong or lost answer: ") + kavo_strerror(answer.err_code));
}

// ListedBlock is the record block of a listed address. The entries and names of a block follow its head.
class ListedBlock {
 public:
  ListedBlock() {
    constexpr char kName[] = "list.example";
    constexpr unsigned kSize = sizeof(dns_rr_a4) + sizeof(in_addr) + sizeof kName;
    must(kavo_rr_alloc(&block_, kSize), "kavo_rr_alloc");
    dns_rr_a4 *head = block_.rr_a;
    head->dnsa4_written = kSize;
    head->dnsa4_ttl = kTtl;
    head->dnsa4_nrr = 1;
    head->dnsa4_addr = reinterpret_cast<in_addr *>(head + 1);
    head->dnsa4_addr->s_addr = htonl(kListedAnswer);
    head->dnsa4_cname = head->dnsa4_qname = reinterpret_cast<char *>(head->dnsa4_addr + 1);
    memcpy(head->dnsa4_cname, kName, sizeof kName);
  }
  ~ListedBlock() { kavo_rr_free(&block_); }
  ListedBlock(const ListedBlock &) = delete;
  ListedBlock &operator=(const ListedBlock &) = delete;

  // put stores the block in a cache under a name.
  void put(KAVO_CACHE cache, const std::string &name) {
    must(kavo_cache_put(cache, KAVOT_DNS_A, name.data(), static_cast<int>(name.size()), &block_), "kavo_cache_put");
  }

 private:
  KAVO_RR block_ = {};
};

// get fetches an entry of a ListedBlock, and checks it.
inline void get(KAVO_CACHE cache, const std::string &name, KAVO_ANSWER *found) {
  must(kavo_cache_get(cache, KAVOT_DNS_A, name.data(), static_cast<int>(name.size()), found, 0), "kavo_cache_get");
  check(*found, true);
}

}  // namespace bench

#endif  // KAVO_BENCH_SUPPORT_LIBRARY_H
