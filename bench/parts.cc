// bench_parts: the cost of the single operations that every question passes through (Google Benchmark).
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <block.h>
#include <dns_engine.h>
#include <dns_wire.h>
#include <kavo.h>
#include <message.h>
#include <shash.h>
#include <siphash.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

std::vector<uint8_t> name(const std::string &text) {
  std::vector<uint8_t> dn(DNS_MAXDN);
  dn.resize(
      static_cast<size_t>(dns_ptodn(text.data(), static_cast<unsigned>(text.size()), dn.data(), DNS_MAXDN, nullptr)));
  return dn;
}

const char *const kName = "4.3.2.10.list.example";

// An answer with one address, its owner a pointer to the query name.
std::vector<uint8_t> answer() {
  std::vector<uint8_t> packet(512);
  packet.resize(dns::write_query(packet, 7, true, name(kName), DNS_T_A, DNS_C_IN));
  packet[2] |= 0x80;
  packet[7] = 1;
  const uint8_t record[] = {0xC0, DNS_HSIZE, 0, DNS_T_A, 0, DNS_C_IN, 0, 0, 1, 44, 0, 4, 127, 0, 0, 2};
  packet.insert(packet.end(), std::begin(record), std::end(record));
  return packet;
}

void compare_names(benchmark::State &state) {
  const auto lower = name("4.3.2.10.list.example"), upper = name("4.3.2.10.LIST.EXAMPLE");
  for (auto _ : state)
    benchmark::DoNotOptimize(dns_dnequal(lower.data(), upper.data()));
}
BENCHMARK(compare_names);

void write_query(benchmark::State &state) {
  const auto dn = name(kName);
  uint8_t buffer[300];
  for (auto _ : state)
    benchmark::DoNotOptimize(dns::write_query(buffer, 7, true, dn, DNS_T_A, DNS_C_IN));
}
BENCHMARK(write_query);

void parse_answer(benchmark::State &state) {
  const auto dn = name(kName);
  const auto packet = answer();
  size_t answers_at = 0;
  if (!dns::section_at(packet, DNS_S_AN, &answers_at)) state.SkipWithError("no answer section");
  alignas(8) uint8_t block[1024];
  for (auto _ : state)
    benchmark::DoNotOptimize(dns::lay_block(dns::Block::a4, packet, answers_at, dn.data(), block, nullptr));
}
BENCHMARK(parse_answer);

void copy_block(benchmark::State &state) {
  const auto dn = name(kName);
  const auto packet = answer();
  size_t answers_at = 0;
  if (!dns::section_at(packet, DNS_S_AN, &answers_at)) state.SkipWithError("no answer section");
  alignas(8) uint8_t block[1024];
  if (dns::lay_block(dns::Block::a4, packet, answers_at, dn.data(), block, nullptr) < 0)
    state.SkipWithError("no block");
  KAVO_RR from, to;
  from.rr_a = reinterpret_cast<dns_rr_a4 *>(block);
  to.rr_a = nullptr;
  for (auto _ : state)
    benchmark::DoNotOptimize(kavo_rr_dup(KAVOT_DNS_A, &from, &to));
  kavo_rr_free(&to);
}
BENCHMARK(copy_block);

void hash_name(benchmark::State &state) {
  const auto dn = name(kName);
  const uint8_t secret[16] = {1, 2, 3};
  for (auto _ : state)
    benchmark::DoNotOptimize(siphash_folded(secret, dn.data(), dn.size()));
}
BENCHMARK(hash_name);

void find_item(benchmark::State &state) {
  const auto count = static_cast<size_t>(state.range(0));
  std::vector<uint32_t> keys(count);
  shash_table table;
  const auto same = [](void *, const uint8_t *a, uint16_t a_size, const uint8_t *b, uint16_t b_size) {
    return a_size == b_size ? memcmp(a, b, a_size) : 1;
  };
  if (shash_init(
          &table, count, 0, same, [](void *, uint8_t *, shash_item *) {}, 2) != 0)
    state.SkipWithError("no table");
  for (size_t i = 0; i < count; ++i) {
    keys[i] = static_cast<uint32_t>(i);
    if (shash_insert(&table, reinterpret_cast<uint8_t *>(&keys[i]), sizeof keys[i], 1) == nullptr)
      state.SkipWithError("no item");
  }
  uint32_t at = 0;
  for (auto _ : state) {
    at = (at + 0x9E3779B1U) % static_cast<uint32_t>(count);
    benchmark::DoNotOptimize(shash_search(&table, reinterpret_cast<uint8_t *>(&at), sizeof at));
  }
  shash_destroy(&table);
}
BENCHMARK(find_item)->Arg(64)->Arg(1'000)->Arg(100'000);

void hit_cache(benchmark::State &state) {
  dns_cache *cache = dns_cache_init(1 << 24);
  dns_cacher *cacher = dns_cache_cacher(cache);
  dns_cdata *entry = dns_cdata_init(256);
  const auto dn = name(kName);
  in_addr address = {htonl(0x7F000002)};
  dns_rr record{};
  memcpy(record.dnsrr_dn, dn.data(), dn.size());
  record.dnsrr_cls = DNS_C_IN;
  record.dnsrr_typ = DNS_T_A;
  record.dnsrr_ttl = 300;
  record.dnsrr_dsz = sizeof address;
  record.dnsrr_dptr = reinterpret_cast<unsigned char *>(&address);
  record.dnsrr_dend = record.dnsrr_dptr + record.dnsrr_dsz;
  dns_cdata_setdn(entry, dn.data());
  dns_cdata_settyp(entry, DNS_T_A);
  dns_cdata_setttl(entry, 300);
  dns_cdata_addrr(entry, &record, nullptr);
  if (dns_cacher_put(cacher, entry, 1000) != 0) state.SkipWithError("not stored");
  for (auto _ : state)
    benchmark::DoNotOptimize(dns_cacher_get(cacher, entry, 1001));
  dns_cdata_free(entry);
  dns_cache_destroy(cache);
}
BENCHMARK(hit_cache);

void cache_get(benchmark::State &state) {
  dns_cache *cache = dns_cache_init(1 << 24);
  KAVO_CACHE cacher = dns_cache_cacher(cache);
  const auto dn = name(kName);
  const auto packet = answer();
  size_t answers_at = 0;
  alignas(8) uint8_t block[1024];
  if (!dns::section_at(packet, DNS_S_AN, &answers_at) ||
      dns::lay_block(dns::Block::a4, packet, answers_at, dn.data(), block, nullptr) < 0)
    state.SkipWithError("no block");
  KAVO_RR rr;
  rr.rr_a = reinterpret_cast<dns_rr_a4 *>(block);
  const auto size = static_cast<int>(strlen(kName));
  if (kavo_cache_put(cacher, KAVOT_DNS_A, kName, size, &rr) != KAVOE_OK) state.SkipWithError("not stored");
  KAVO_ANSWER found = {};
  for (auto _ : state) {
    if (kavo_cache_get(cacher, KAVOT_DNS_A, kName, size, &found, 0) != KAVOE_OK) state.SkipWithError("not found");
  }
  kavo_rr_free(&found.rr);
  dns_cache_destroy(cache);
}
BENCHMARK(cache_get);

}  // namespace
