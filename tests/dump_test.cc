// dump_test.cc - caches in files: a context loads what another one saved, older by the time between, and loads nothing
// of a damaged file.
#include <arpa/inet.h>
#include <cache_entry.h>
#include <cache_image.h>
#include <dns_engine.h>
#include <dns_wire.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kavo.h>
#include <kavo_t.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>
namespace {

using namespace std::string_literals;

using testbed::Cache;
using testbed::cache_of;
using Data = testbed::Entry;
using testbed::entry_of;

constexpr dns_time kNow = 800'000'000;
constexpr int kSmall = 1 << 20;
constexpr int32_t kTtl = 3600;

// put puts an entry with so many records of the same data.
void put(dns_cache *cache, const std::string &name, int32_t ttl, const std::string &data, dns_time now = kNow,
         dns_type typ = DNS_T_A, size_t records = 1) {
  const testbed::Bytes bytes(data.begin(), data.end());
  EXPECT_EQ(testbed::put(cache, name, typ, ttl, std::vector(records, bytes), now), 0);
}

// text_of gives an entry as text: its TTL, its response code and its records with their TTLs.
std::string text_of(dns_cdata *entry) {
  std::string text = std::to_string(dns_cdata_ttl(entry)) + "/" + std::to_string(dns_cdata_rcode(entry));
  static thread_local std::vector<unsigned char> buffer(DNS_MAXPACKET);
  dns_rr rr = {};
  for (;;) {
    rr.dnsrr_dptr = buffer.data();
    rr.dnsrr_dsz = static_cast<unsigned>(buffer.size());
    if (dns_cdata_nextrr(entry, &rr) != 1) return text;
    text += " " + std::to_string(rr.dnsrr_ttl) + ":" + std::string(rr.dnsrr_dptr, rr.dnsrr_dend);
  }
}

// held gives a cache's entry as text; "" for none.
std::string held(dns_cache *cache, const std::string &name, dns_time now = kNow, dns_type typ = DNS_T_A) {
  const Data entry = entry_of(name, typ);
  return dns_cacher_get(dns_cache_cacher(cache), entry.get(), now) == 1 ? text_of(entry.get()) : "";
}

class DumpTest : public testing::Test {
 protected:
  DumpTest() {
    char name[] = "/tmp/kavo_dump_test.XXXXXX";
    directory_ = mkdtemp(name);
    path_ = directory_ + "/dump";
  }
  ~DumpTest() override {
    unlink(path_.c_str());
    rmdir(directory_.c_str());
  }

  void save(const std::vector<dns_cache *> &caches, dns_time now = kNow) {
    const int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dns_cdump *dump = dns_cdump_save_init(fd, now);
    close(fd);
    ASSERT_NE(dump, nullptr);
    for (dns_cache *cache : caches)
      EXPECT_EQ(dns_cdump_save_cache(dump, cache, "user", 4), 0);
    EXPECT_EQ(dns_cdump_save_finish(dump), 0);
  }

  // load loads every cache of the file into one; the status of the first failure, or how many there were.
  int load(dns_cache *into, dns_time now = kNow) {
    const int fd = open(path_.c_str(), O_RDONLY);
    dns_cdump *dump = dns_cdump_load_init(fd, now);
    close(fd);
    if (dump == nullptr) return DNS_E_INVAL;
    int count = 0;
    int status = dns_cdump_first_cache(dump);
    for (; status > 0; ++count) {
      char user[5] = "";
      EXPECT_GE(dns_cdump_get_udata(dump, user, 4, nullptr), 0);
      user_data_ += user;
      status = dns_cdump_load_cache(dump, into);
      if (status == 0 || status == DNS_E_NODATA) status = dns_cdump_next_cache(dump);
    }
    EXPECT_EQ(dns_cdump_load_finish(dump), 0);
    return status < 0 ? status : count;
  }

  std::string file() {
    std::ifstream in(path_, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  void write(const std::string &bytes) { std::ofstream(path_, std::ios::binary) << bytes; }

  std::string directory_, path_;
  std::string user_data_;  // of the caches that load found
};

TEST_F(DumpTest, EntriesComeBackOlderByTheTimeBetween) {
  const Cache from = cache_of(), to = cache_of();
  const std::string large(30'000, 't');
  std::string text;
  for (size_t at = 0; at < large.size(); at += 250)
    text += '\xfa' + large.substr(at, 250);
  put(from.get(), "short.example", 100, "\x7f\0\0\2"s, kNow);
  put(from.get(), "several.example", kTtl, "mmmm", kNow, DNS_T_A, 3);
  put(from.get(), "large.example", kTtl, text, kNow, DNS_T_TXT, 2);
  put(from.get(), "absent.example", kTtl, "", kNow, DNS_T_A, 0);
  put(from.get(), ".", kTtl, "root", kNow);
  put(from.get(), "gone.example", 10, "gone", kNow - 11);
  put(from.get(), "both.example", kTtl, "old ", kNow);
  put(to.get(), "both.example", kTtl, "new ", kNow + 1);
  save({from.get()});
  EXPECT_EQ(file().find("gone"), std::string::npos) << "what has expired is not even saved";
  ASSERT_EQ(load(to.get(), kNow + 60), 1);
  EXPECT_EQ(user_data_, "user");
  for (const char *name : {"short.example", "several.example", "absent.example", "."})
    EXPECT_EQ(held(to.get(), name, kNow + 70), held(from.get(), name, kNow + 70)) << name;
  EXPECT_EQ(held(to.get(), "several.example", kNow + 70), "3530/0 3530:mmmm 3530:mmmm 3530:mmmm");
  EXPECT_EQ(held(to.get(), "large.example", kNow + 70, DNS_T_TXT),
            held(from.get(), "large.example", kNow + 70, DNS_T_TXT));
  EXPECT_EQ(held(to.get(), "both.example", kNow + 1), "3600/0 3600:new ") << "what is newer stays";
  EXPECT_EQ(held(to.get(), "gone.example"), "");

  const Cache late = cache_of(), keeps = cache_of(), no_negatives = cache_of(), tiny = cache_of(1000);
  EXPECT_EQ(load(late.get(), kNow + 101), 1);
  EXPECT_EQ(held(late.get(), "short.example", kNow), "") << "expired in the file";
  uint32_t flags = DNS_CR_EXPIRED | DNS_CR_NCACHE;
  EXPECT_EQ(dns_cacher_setopt(dns_cache_cacher(keeps.get()), DNS_CROPT_FLAGS, &flags, sizeof flags), 0);
  EXPECT_EQ(load(keeps.get(), kNow + 101), 1);
  EXPECT_EQ(held(keeps.get(), "short.example", kNow + 102), "-2/0 -2:\x7f\0\0\2"s);
  put(keeps.get(), "gone.example", 10, "gone", kNow - 11);
  save({keeps.get()});
  EXPECT_NE(file().find("gone"), std::string::npos) << "a cache that returns expired entries saves them";
  flags = 0;
  EXPECT_EQ(dns_cacher_setopt(dns_cache_cacher(no_negatives.get()), DNS_CROPT_FLAGS, &flags, sizeof flags), 0);
  EXPECT_EQ(load(no_negatives.get()), 1);
  EXPECT_EQ(held(no_negatives.get(), "absent.example"), "");
  EXPECT_EQ(load(tiny.get()), 1) << "what does not fit is left out";
  EXPECT_EQ(load(late.get(), kNow + 2 * kTtl), 1);
}

TEST_F(DumpTest, EveryDamagedByteIsRefused) {
  const Cache from = cache_of(), second = cache_of(), empty = cache_of();
  put(from.get(), "first.example", kTtl, "1111");
  put(second.get(), "second.example", kTtl, "2222", kNow, DNS_T_A, 2);
  save({from.get(), second.get(), empty.get()});
  const std::string whole = file();
  // Where the sections end: a section is its head with the user data, its blocks, its totals.
  constexpr size_t kFrame = 16, kTotals = kFrame + 16, kHead = kFrame + 4, kImageHead = 20;
  const size_t first_end = whole.find("\6second") - kImageHead - kFrame - kHead;
  const size_t second_end = whole.size() - kTotals - kTotals - kHead;
  ASSERT_LT(first_end, second_end);
  const Cache good = cache_of();
  EXPECT_EQ(load(good.get()), 3);
  for (size_t i = 0; i < whole.size(); ++i) {
    SCOPED_TRACE(i);
    const Cache cut = cache_of();
    write(whole.substr(0, i));
    EXPECT_EQ(load(cut.get()), DNS_E_TFILE);
    EXPECT_EQ(held(cut.get(), "first.example"), "") << "a file without its end has nothing to give";
    for (const int flip : {0x01, 0x80, 0xff}) {
      const Cache changed = cache_of();
      std::string bytes = whole;
      bytes[i] = static_cast<char>(bytes[i] ^ flip);
      write(bytes);
      EXPECT_EQ(load(changed.get()), DNS_E_TFILE);
      EXPECT_TRUE(i >= first_end || held(changed.get(), "first.example").empty());
      EXPECT_TRUE(i >= second_end || held(changed.get(), "second.example").empty());
    }
  }
  write(whole + "more");
  EXPECT_EQ(load(good.get()), DNS_E_TFILE);
  write(std::string(4096, '\0'));
  EXPECT_EQ(load(good.get()), DNS_E_TFILE);
  write("");
  EXPECT_EQ(load(good.get()), DNS_E_TFILE);
}

// sealed gives a changed dump the checksums of a sound one, as a forger would.
std::string sealed(std::string bytes) {
  testbed::seal_dump({reinterpret_cast<uint8_t *>(bytes.data()), bytes.size()});
  return bytes;
}

TEST_F(DumpTest, EntriesThatTheTotalsDoNotCountAreRefused) {
  const Cache from = cache_of();
  put(from.get(), "text.example", kTtl, "\4text\2of", kNow, DNS_T_TXT, 2);
  save({from.get()});
  std::string hides = file();
  ASSERT_EQ(sealed(hides), hides);
  // The last byte of the count of entries, in the first of the two totals that end the file.
  constexpr size_t kTotals = 16 + 16, kCountEnd = 16 + 8;
  hides[hides.size() - 2 * kTotals + kCountEnd - 1] = 0;
  write(sealed(hides));
  EXPECT_EQ(load(cache_of().get()), DNS_E_TFILE);
}

TEST_F(DumpTest, ContextsOfAnyLayoutTakeTheirCaches) {
  const auto context = [](int cache_size, bool two) {
    KAVO kavo = nullptr;
    EXPECT_EQ(kavo_init(&kavo, 16, cache_size, 0), KAVOE_OK);
    if (two) kavo->rcache = dns_cache_init(kSmall);
    return std::unique_ptr<kavo_t, decltype(&kavo_free)>(kavo, kavo_free);
  };
  const auto none = context(0, false), shared = context(kSmall, false), two = context(kSmall, true);
  const dns_time now = dns_gettime(nullptr);
  put(shared->cache, "shared.example", kTtl, "both", now);
  put(two->cache, "answer.example", kTtl, "answ", now);
  put(two->rcache, "referral.example", kTtl, "refe", now);
  const auto has = [&](dns_cache *cache, const char *name) { return !held(cache, name, now).empty(); };

  ASSERT_EQ(kavo_cachesave(shared.get(), path_.c_str()), KAVOE_OK);
  struct stat about;
  ASSERT_EQ(stat(path_.c_str(), &about), 0);
  EXPECT_EQ(about.st_mode & 0777 & ~0644, 0U);
  const auto other_two = context(kSmall, true);
  EXPECT_EQ(kavo_cacheload(other_two.get(), path_.c_str()), KAVOE_OK);
  EXPECT_TRUE(has(other_two->cache, "shared.example") && has(other_two->rcache, "shared.example"));
  EXPECT_EQ(kavo_cacheload(none.get(), path_.c_str()), KAVOE_OK);

  ASSERT_EQ(kavo_cachesave(two.get(), path_.c_str()), KAVOE_OK);
  const auto third_two = context(kSmall, true);
  EXPECT_EQ(kavo_cacheload(third_two.get(), path_.c_str()), KAVOE_OK);
  EXPECT_TRUE(has(third_two->cache, "answer.example") && has(third_two->rcache, "referral.example"));
  EXPECT_FALSE(has(third_two->cache, "referral.example") || has(third_two->rcache, "answer.example"));

  ASSERT_EQ(kavo_cachesave(none.get(), path_.c_str()), KAVOE_OK);
  EXPECT_LT(file().size(), 100U) << "overwritten";
  EXPECT_EQ(kavo_cacheload(third_two.get(), path_.c_str()), KAVOE_OK);
}

TEST_F(DumpTest, UnusableFilesAreClearErrors) {
  KAVO kavo = nullptr;
  ASSERT_EQ(kavo_init(&kavo, 16, kSmall, 0), KAVOE_OK);
  put(kavo->cache, "a.example", kTtl, "aaaa", dns_gettime(nullptr));
  EXPECT_EQ(kavo_cachesave(nullptr, path_.c_str()), KAVOE_BADPAR);
  EXPECT_EQ(kavo_cacheload(kavo, nullptr), KAVOE_BADPAR);
  EXPECT_EQ(kavo_cachesave(kavo, (directory_ + "/no/dump").c_str()), KAVOE_FILE);
  EXPECT_EQ(kavo_cacheload(kavo, path_.c_str()), KAVOE_FILE) << "not there";
  EXPECT_EQ(kavo_cachesave(kavo, "/dev/full"), KAVOE_FILE);
  EXPECT_EQ(kavo_cacheload(kavo, "/dev/zero"), KAVOE_FAIL);
  write("zones: none\n");
  EXPECT_EQ(kavo_cacheload(kavo, path_.c_str()), KAVOE_FILE);
  // A dump whose cache has no use.
  const int fd = open(path_.c_str(), O_WRONLY | O_TRUNC);
  dns_cdump *dump = dns_cdump_save_init(fd, kNow);
  EXPECT_EQ(dns_cdump_save_cache(dump, kavo->cache, nullptr, 0), 0);
  EXPECT_EQ(dns_cdump_save_cache(dump, kavo->cache, nullptr, 4), DNS_E_INVAL);
  EXPECT_EQ(dns_cdump_load_cache(dump, kavo->cache), DNS_E_INVAL);
  EXPECT_EQ(dns_cdump_next_entry(dump, entry_of("a").get()), DNS_E_INVAL);
  EXPECT_EQ(dns_cdump_save_finish(dump), 0);
  EXPECT_EQ(dns_cdump_load_init(fd, kNow), nullptr) << "not open for reading";
  close(fd);
  EXPECT_EQ(kavo_cacheload(kavo, path_.c_str()), KAVOE_FILE);

  // A dump with more than its uses, an empty one, and one with an invalid entry.
  const auto load_with = [&](const std::string &word, dns_cache *cache) {
    const int to = open(path_.c_str(), O_WRONLY | O_TRUNC);
    dns_cdump *made = dns_cdump_save_init(to, dns_gettime(nullptr));
    close(to);
    EXPECT_EQ(dns_cdump_save_cache(made, cache, word.data(), static_cast<unsigned>(word.size())), 0);
    EXPECT_EQ(dns_cdump_save_finish(made), 0);
    return kavo_cacheload(kavo, path_.c_str());
  };
  const std::string use = "\0\0\0\x3"s;
  EXPECT_EQ(load_with(use + use, kavo->cache), kavo_convert_status(DNS_E_NOBUFS));
  EXPECT_EQ(load_with(use, cache_of().get()), KAVOE_OK);
  ASSERT_EQ(kavo_cachesave(kavo, path_.c_str()), KAVOE_OK);
  std::string bytes = file();
  bytes[bytes.find("\1a\7example")] = '\xff';
  write(sealed(bytes));
  EXPECT_EQ(kavo_cacheload(kavo, path_.c_str()), KAVOE_FILE);
  kavo_free(kavo);
}

// A saver is killed at random moments, and single bytes of its file are changed. A file of several blocks, which
// several threads load, gives all its entries or none.
TEST_F(DumpTest, LargeFilesAreLoadedWholeOrNotAtAll) {
  constexpr int kEntries = 20'000, kRounds = 30, kStep = 97;
  constexpr unsigned kPause = 2000;  // microseconds
  const auto name = [](int i) { return std::to_string(i) + ".example"; };
  std::mt19937 random(1);
  const Cache from = cache_of(64 << 20);
  for (int i = 0; i < kEntries; ++i)
    put(from.get(), name(i), kTtl, "full");
  save({from.get()});  // the first saver may be killed before it has a file
  const auto expect_all_or_nothing = [&] {
    const Cache to = cache_of(64 << 20);
    const int loaded = load(to.get());
    EXPECT_TRUE(loaded == 1 || loaded == DNS_E_TFILE) << loaded;
    for (int i = 0; i < kEntries; i += kStep)
      EXPECT_EQ(held(to.get(), name(i)), loaded == 1 ? "3600/0 3600:full" : "");
    return loaded;
  };
  for (int round = 0; round < kRounds; ++round) {
    const pid_t saver = fork();
    if (saver == 0) alarm(30);  // ends the saver if the test does not kill it
    while (saver == 0) {
      save({from.get()});
      usleep(kPause);
    }
    ASSERT_GT(saver, 0);
    usleep(random() % (4 * kPause));
    kill(saver, SIGKILL);
    ASSERT_EQ(waitpid(saver, nullptr, 0), saver);
    expect_all_or_nothing();
  }
  save({from.get()});
  EXPECT_EQ(expect_all_or_nothing(), 1);
  const std::string whole = file();
  for (int round = 0; round < kRounds; ++round) {
    std::string bytes = whole;
    bytes[random() % bytes.size()] ^= 0x10;
    write(bytes);
    EXPECT_EQ(expect_all_or_nothing(), DNS_E_TFILE);
  }
}

// Eight threads use the cache while it is saved and loaded: every dump holds the entries that were there all the while,
// and none that was never put.
TEST_F(DumpTest, ACacheInUseIsSavedWhole) {
  constexpr int kThreads = 8, kStill = 5000, kMoving = 500;
  const Cache cache = cache_of(64 << 20);
  const auto name = [](const char *kind, int i) { return std::to_string(i) + kind; };
  for (int i = 0; i < kStill; ++i)
    put(cache.get(), name(".still.example", i), kTtl, "stil");
  std::atomic<bool> stop = false;
  std::vector<std::jthread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; !stop; i = (i + 1) % kMoving) {
        const std::string moving = std::to_string(t) + name(".moving.example", i);
        put(cache.get(), moving, kTtl, "move");
        const std::string found = held(cache.get(), name(".still.example", i));
        EXPECT_EQ(found, "3600/0 3600:stil");
        if (i % 2 == 0) dns_cacher_delete(dns_cache_cacher(cache.get()), entry_of(moving).get(), kNow);
      }
    });
  }
  for (int round = 0; round < 5; ++round) {
    save({cache.get()});
    const Cache to = cache_of(64 << 20);
    EXPECT_EQ(load(to.get()), 1);
    EXPECT_EQ(load(cache.get()), 1) << "into the cache in use itself";
    for (int i = 0; i < kStill; ++i)
      ASSERT_EQ(held(to.get(), name(".still.example", i)), "3600/0 3600:stil");
    for (int i = 0; i < kThreads * kMoving; ++i) {
      const std::string found = held(to.get(), std::to_string(i % kThreads) + name(".moving.example", i / kThreads));
      ASSERT_TRUE(found.empty() || found == "3600/0 3600:move") << found;
    }
  }
  stop = true;
  threads.clear();
}

// Entries so large that hardly one bucket fits a block: the walk continues in a bucket that has changed meanwhile.
TEST_F(DumpTest, AChangingCacheOfLargeEntriesIsSavedWhole) {
  constexpr int kEntries = 400, kRecords = 40;
  constexpr dns_type kType = 65280;  // data of any form
  const Cache cache = cache_of(64 << 20);
  for (int i = 0; i < kEntries; ++i)
    put(cache.get(), std::to_string(i), kTtl, std::string(1000, 'x'), kNow, kType, kRecords);
  std::vector<uint8_t> room(dns::kImageMax);
  std::set<std::string> found;
  dns::CacheWalk walk;
  for (int left = 1; left > 0;) {
    dns::Images images = {room, 0, 0};
    left = dns::cache_walk(cache.get(), &walk, kNow, &images);
    std::span<const uint8_t> bytes = {room.data(), images.used};
    for (dns::Image image; !bytes.empty() && dns::read_image(&bytes, &image);) {
      const std::string name(image.body.begin() + 1, image.body.begin() + image.dn_size - 1);
      found.insert(name);
      EXPECT_EQ(dns_cacher_delete(dns_cache_cacher(cache.get()), entry_of(name, kType).get(), kNow), 1);
    }
  }
  EXPECT_EQ(found.size(), size_t{kEntries}) << "an entry removed after the walk passed it hides no other";
}

}  // namespace
