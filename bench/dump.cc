// bench_dump: saving and loading a cache of many entries beside a plain buffered write and read of the same bytes.
//
// The plain run writes and reads one record at a time with fwrite and fread, as a program without the library would;
// a second one does so in large pieces, which is as fast as the system goes.
#include <dns_engine.h>
#include <dns_wire.h>
#include <fcntl.h>
#include <kavo/dns.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

constexpr dns_time kNow = 800'000'000;
constexpr uint64_t kCacheBytes = uint64_t{1} << 30;
constexpr size_t kLargePiece = 64 * 1024;

[[noreturn]] void fail(const char *what) {
  std::perror(what);
  std::exit(EXIT_FAILURE);
}

double seconds(const std::function<void()> &work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// One address for each name of a list, as a mail filter's cache is full of.
void fill(dns_cache *cache, unsigned entries) {
  dns_cdata *entry = dns_cdata_init(64);
  unsigned char address[] = {127, 0, 0, 2};
  dns_rr rr{};
  rr.dnsrr_cls = DNS_C_IN;
  rr.dnsrr_typ = DNS_T_A;
  rr.dnsrr_ttl = 3600;
  rr.dnsrr_dptr = address;
  rr.dnsrr_dsz = sizeof address;
  rr.dnsrr_dend = address + sizeof address;
  for (unsigned i = 0; i < entries; ++i) {
    const std::string name = std::to_string(i % 250) + "." + std::to_string(i / 250 % 250) + "." +
                             std::to_string(i / 62500) + ".10.list.example";
    dns_ptodn(name.c_str(), 0, rr.dnsrr_dn, DNS_MAXDN, nullptr);
    dns_cdata_setdn(entry, rr.dnsrr_dn);
    dns_cdata_settyp(entry, DNS_T_A);
    dns_cdata_setttl(entry, rr.dnsrr_ttl);
    if (dns_cdata_addrr(entry, &rr, nullptr) != 0 || dns_cacher_put(dns_cache_cacher(cache), entry, kNow) != 0)
      fail("put");
  }
  dns_cdata_free(entry);
}

void save(dns_cache *cache, const char *path) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  dns_cdump *dump = dns_cdump_save_init(fd, kNow);
  close(fd);
  if (dns_cdump_save_cache(dump, cache, nullptr, 0) != 0 || dns_cdump_save_finish(dump) != 0) fail("save");
}

void load(dns_cache *cache, const char *path) {
  const int fd = open(path, O_RDONLY);
  dns_cdump *dump = dns_cdump_load_init(fd, kNow);
  close(fd);
  if (dns_cdump_first_cache(dump) != 1 || dns_cdump_load_cache(dump, cache) != 0) fail("load");
  if (dns_cdump_next_cache(dump) != 0 || dns_cdump_load_finish(dump) != 0) fail("load");
}

void plain_write(const std::vector<char> &bytes, size_t piece, const char *path) {
  FILE *file = fopen(path, "w");
  if (file == nullptr) fail(path);
  for (size_t at = 0; at < bytes.size(); at += piece) {
    const size_t size = std::min(piece, bytes.size() - at);
    if (fwrite(&bytes[at], 1, size, file) != size) fail("fwrite");
  }
  if (fclose(file) != 0) fail("fclose");
}

void plain_read(std::vector<char> *bytes, size_t piece, const char *path) {
  FILE *file = fopen(path, "r");
  if (file == nullptr) fail(path);
  for (size_t at = 0; at < bytes->size(); at += piece) {
    const size_t size = std::min(piece, bytes->size() - at);
    if (fread(&(*bytes)[at], 1, size, file) != size) fail("fread");
  }
  fclose(file);
}

struct Times {
  double write = 1e9;
  double read = 1e9;
  void keep(double wrote, double did_read) {
    write = std::min(write, wrote);
    read = std::min(read, did_read);
  }
  void print(const char *what, const Times &dump) const {
    std::printf("%-28s write %6.1f ms  read %6.1f ms", what, 1e3 * write, 1e3 * read);
    if (this != &dump) {
      std::printf("  speed of the dump: %.2f saving, %.2f loading, %.2f both", write / dump.write, read / dump.read,
                  (write + read) / (dump.write + dump.read));
    }
    std::printf("\n");
  }
};

}  // namespace

int main(int argc, char **argv) {
  CLI::App app("saving and loading a cache beside plain buffered input and output");
  unsigned entries = 1'000'000, rounds = 5;
  std::string directory = ".";
  app.add_option("--entries", entries, "entries of the cache")->check(CLI::PositiveNumber);
  app.add_option("--rounds", rounds, "rounds, of which the best times count")->check(CLI::PositiveNumber);
  app.add_option("--directory", directory, "where the files go")->check(CLI::ExistingDirectory);
  CLI11_PARSE(app, argc, argv);

  const std::string path = directory + "/bench_dump." + std::to_string(getpid());
  dns_cache *cache = dns_cache_init(kCacheBytes);
  fill(cache, entries);
  save(cache, path.c_str());
  FILE *file = fopen(path.c_str(), "r");
  fseek(file, 0, SEEK_END);
  std::vector<char> bytes(static_cast<size_t>(ftell(file)));
  fclose(file);

  Times dump, records, pieces;
  for (unsigned i = 0; i < rounds; ++i) {
    const double saved = seconds([&] { save(cache, path.c_str()); });
    dns_cache *fresh = dns_cache_init(kCacheBytes);
    dump.keep(saved, seconds([&] { load(fresh, path.c_str()); }));
    dns_cache_destroy(fresh);
    const auto plain = [&](size_t piece, Times *times) {
      const double wrote = seconds([&] { plain_write(bytes, piece, path.c_str()); });
      times->keep(wrote, seconds([&] { plain_read(&bytes, piece, path.c_str()); }));
    };
    plain(bytes.size() / entries, &records);
    plain(kLargePiece, &pieces);
  }
  unlink(path.c_str());
  dns_cache_destroy(cache);
  std::printf("%u entries, %zu bytes\n", entries, bytes.size());
  dump.print("dump", dump);
  records.print("plain, record by record", dump);
  pieces.print("plain, in large pieces", dump);
}
