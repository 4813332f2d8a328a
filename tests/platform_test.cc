// platform_test.cc - the lowest layers: threads, deadlines and logging; the hash table against a model; datagrams.
#include <arpa/inet.h>
#include <dns_io.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <hand_server.h>
#include <pelk_log.h>
#include <pelk_process.h>
#include <pelk_sync.h>
#include <pelk_thread.h>
#include <random_source.h>
#include <shash.h>
#include <signal.h>
#include <siphash.h>
#include <socket_address.h>
#include <string.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace {

constexpr int64_t kUsecPerSec = 1000000;

int64_t now_us() {
  timeval now = {};
  gettimeofday(&now, nullptr);
  return now.tv_sec * kUsecPerSec + now.tv_usec;
}

timeval moment(int64_t micros) {
  return {micros / kUsecPerSec, micros % kUsecPerSec};
}

void run_together(int count, const auto &body) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i)
    threads.emplace_back([&body, i] { body(i); });
  for (std::thread &thread : threads)
    thread.join();
}

class PelkSync : public testing::Test {
 protected:
  PelkSync() { EXPECT_EQ(pelk_mutex_init(&mutex_) | pelk_cond_init(&cond_), 0); }
  ~PelkSync() override { EXPECT_EQ(pelk_cond_destroy(&cond_) | pelk_mutex_destroy(&mutex_), 0); }
  int wait_until(const timeval &deadline) {
    const pelk_lock guard(&mutex_);
    return pelk_cond_wait_deadline(&cond_, &mutex_, &deadline);
  }
  pelk_mutex_t mutex_;
  pelk_cond_t cond_;
};

TEST_F(PelkSync, TakingAMutexTwiceIsAnErrorAndNoHang) PELK_NO_ANALYSIS {
  EXPECT_EQ(pelk_mutex_lock(&mutex_), 0);
  EXPECT_EQ(pelk_mutex_lock(&mutex_), EDEADLK);
  EXPECT_EQ(pelk_mutex_unlock(&mutex_), 0);
}

TEST_F(PelkSync, DeadlinesThatHavePassedEndAtOnce) {
  constexpr int64_t kLongestNegativeTimeoutUs = INT64_C(2147483648) * 1000;
  const int64_t start = now_us();
  const timeval now = moment(start);
  const timeval past[] = {now,
                          moment(start - kLongestNegativeTimeoutUs),
                          {0, 0},
                          {0, -1},
                          {-2147484, -500000},
                          {now.tv_sec, -kUsecPerSec},
                          {now.tv_sec, INT64_MIN},
                          {INT64_MIN, INT64_MIN},
                          {INT64_MIN, INT64_MAX},
                          {PELK_TIME_MIN, -999999}};
  for (const timeval &deadline : past) {
    EXPECT_EQ(wait_until(deadline), PELK_TIMEDOUT) << deadline.tv_sec << " s " << deadline.tv_usec << " us";
  }
  EXPECT_LT(now_us() - start, 10 * kUsecPerSec);
}

TEST_F(PelkSync, DeadlinesAheadAreKeptHoweverTheyAreWritten) {
  for (const int64_t shift : {0, 3, -3}) {
    const int64_t ahead = now_us() + 40000;
    const timeval plain = moment(ahead);
    EXPECT_EQ(wait_until({plain.tv_sec - shift, plain.tv_usec + shift * kUsecPerSec}), PELK_TIMEDOUT);
    EXPECT_GE(now_us(), ahead);
    EXPECT_LT(now_us(), ahead + kUsecPerSec);  // a wrong carry adds a second
  }
}

TEST_F(PelkSync, DeadlinesBeyondEveryClockAreWaitedFor) {
  const timeval far[] = {{PELK_TIME_MAX, kUsecPerSec}, {INT64_C(4102444800), 0}, {INT64_MAX / 1000000000, 0},
                         {INT64_MAX, 999999},          {INT64_MAX, INT64_MAX},   {0, INT64_MAX}};
  for (const timeval &deadline : far) {
    std::atomic<int> result = -1;
    std::thread waiter([&] { result = wait_until(deadline); });
    while (result == -1) {
      EXPECT_EQ(pelk_cond_broadcast(&cond_), 0);
      std::this_thread::yield();
    }
    waiter.join();
    EXPECT_EQ(result, 0) << deadline.tv_sec << " s " << deadline.tv_usec << " us";
  }
}

TEST(PelkSem, PermitsStayBetweenZeroAndTheMaximum) {
  const timeval past = {0, 0};
  pelk_sem_t sem;
  EXPECT_NE(pelk_sem_init(&sem, 1, 0), 0);
  EXPECT_NE(pelk_sem_init(&sem, 2, 1), 0);
  ASSERT_EQ(pelk_sem_init(&sem, 1, 1), 0);
  EXPECT_NE(pelk_sem_post(&sem), 0);
  EXPECT_EQ(pelk_sem_wait_deadline(&sem, &past), 0);
  EXPECT_EQ(pelk_sem_wait_deadline(&sem, &past), PELK_TIMEDOUT);
  EXPECT_EQ(pelk_sem_post(&sem), 0);
  EXPECT_EQ(pelk_sem_destroy(&sem), 0);
}

TEST(PelkSem, AnEpochEndsWithItsWaitsAndNotWithItsPermits) {
  pelk_sem_t sem;
  ASSERT_EQ(pelk_sem_init(&sem, 0, 1), 0);
  const uint32_t epoch = pelk_sem_epoch(&sem);
  std::thread breaker([&sem] {
    while (sem.waiters < 3)
      std::this_thread::yield();
    EXPECT_EQ(pelk_sem_interrupt(&sem), 0);
  });
  run_together(3, [&](int) { EXPECT_EQ(pelk_sem_wait_epoch(&sem, nullptr, epoch), ECANCELED); });
  breaker.join();
  EXPECT_EQ(pelk_sem_post(&sem), 0);
  EXPECT_EQ(pelk_sem_wait_epoch(&sem, nullptr, epoch), ECANCELED);
  EXPECT_EQ(pelk_sem_wait_epoch(&sem, nullptr, pelk_sem_epoch(&sem)), 0);
  EXPECT_EQ(pelk_sem_destroy(&sem), 0);
}

// What a process has of its own: its number, and the next numbers of a random source that its parent has used.
struct Own {
  uint64_t process = pelk_process();
  uint64_t random = 0;
};

TEST(PelkProcess, AForkedChildIsAnotherAndSoAreItsRandomNumbers) {
  dns::RandomSource source(dns::system_io());
  std::array<Own, 4> all;
  ASSERT_TRUE(source.u64(&all[0].random));
  for (size_t i = 1; i + 1 < all.size(); ++i) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
      Own own;
      const bool good =
          pelk_process() == own.process && source.u64(&own.random) && write(ends[1], &own, sizeof own) > 0;
      _exit(good ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(read(ends[0], &all[i], sizeof all[i]), static_cast<ssize_t>(sizeof all[i]));
    close(ends[0]);
    close(ends[1]);
    EXPECT_NE(all[i].process, all[0].process);
  }
  ASSERT_TRUE(source.u64(&all.back().random));
  EXPECT_EQ(all.back().process, all[0].process);
  for (size_t i = 0; i < all.size(); ++i)
    for (size_t j = 0; j < i; ++j)
      EXPECT_NE(all[i].random, all[j].random) << i << " and " << j;
}

TEST(PelkThread, NoSignalButItsOwnFaultsReachesANewThreadAndTheCreatorKeepsItsMask) {
  const auto read_mask = [](void *mask) -> void * {
    pthread_sigmask(SIG_SETMASK, nullptr, static_cast<sigset_t *>(mask));
    return nullptr;
  };
  sigset_t before, after, inside, creators;
  sigemptyset(&creators);
  sigaddset(&creators, SIGFPE);
  pthread_sigmask(SIG_BLOCK, &creators, nullptr);
  read_mask(&before);
  pelk_thread_t thread;
  ASSERT_EQ(pelk_thread_create(&thread, read_mask, &inside), 0);
  ASSERT_EQ(pelk_thread_join(thread), 0);
  read_mask(&after);
  for (const int number : {SIGHUP, SIGINT, SIGUSR1, SIGPIPE, SIGALRM, SIGTERM, SIGCHLD}) {
    EXPECT_EQ(sigismember(&inside, number), 1) << number;
    EXPECT_EQ(sigismember(&after, number), sigismember(&before, number)) << number;
  }
  for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT})
    EXPECT_EQ(sigismember(&inside, number), sigismember(&before, number)) << number;
  pthread_sigmask(SIG_UNBLOCK, &creators, nullptr);
}

// ---- logging ------------------------------------------------------------------------------------------------------

class PelkLog : public testing::Test {
 protected:
  ~PelkLog() override { pelk_set_log_sink(nullptr, nullptr); }

  // collect sends each line, its level before it, to lines_.
  void collect() {
    const auto sink = [](int level, const char *line, void *lines) {
      static_cast<std::vector<std::string> *>(lines)->push_back(std::to_string(level) + " " + line);
    };
    pelk_set_log_sink(sink, &lines_);
  }

  std::vector<std::string> lines_;
};

TEST_F(PelkLog, DefaultWritesWarningsAndAboveAndFormatsNothingElse) {
  const uintptr_t nowhere = 1;
  const char *unreadable = reinterpret_cast<const char *>(nowhere);
  testing::internal::CaptureStderr();
  pelk_syslog(PELK_LOG_CRIT, "critical %d", 1);
  pelk_syslog(PELK_LOG_DEBUG, "%s", unreadable);
  PELK_INFO("area", "function", "%s", unreadable);
  PELK_WARN("area", "function", "refused %s\n", "a\nb");
  const std::string line = std::to_string(__LINE__ - 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "critical 1\n[warning] area:function():" + line + ": refused a b\n");
}

TEST_F(PelkLog, SinkReceivesEveryLevelWithEverythingThatAnErrorIsGiven) {
  collect();
  for (int level = PELK_LOG_CRIT; level <= PELK_LOG_DEBUG; ++level)
    pelk_syslog(level, "text %d", level);
  EXPECT_EQ(lines_, (std::vector<std::string>{"1 text 1", "2 text 2", "3 text 3", "4 text 4", "5 text 5"}));
  errno = EAGAIN;
  PELK_ERROR("area", "function", ENOENT, 5, "no %s", "luck");
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(lines_.back(), "2 [error] area:function():" + std::to_string(__LINE__ - 2) + " errno " +
                               std::to_string(ENOENT) + " (No such file or directory) code 5: no luck");
  PELK_ASSERT(lines_.empty(), "area");
  EXPECT_TRUE(lines_.back().starts_with("1 [assertion at area:")) << lines_.back();
  const std::string endless(100000, 'x');
  PELK_ERROR("area", "function", 0, 5, "%s%s", endless.c_str(), endless.c_str());
  EXPECT_TRUE(lines_.back().size() < 4096 && lines_.back().ends_with("xx...")) << lines_.back();
}

TEST_F(PelkLog, ASinkMayLogAndChangeTheSink) {
  testing::internal::CaptureStderr();
  const auto sink = [](int, const char *line, void *udata) {
    pelk_syslog(PELK_LOG_ERR, "sink has %s", line);
    pelk_set_log_sink(nullptr, udata);
  };
  pelk_set_log_sink(sink, nullptr);
  pelk_syslog(PELK_LOG_DEBUG, "one");
  pelk_syslog(PELK_LOG_ERR, "two");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "sink has one\ntwo\n");
}

TEST_F(PelkLog, SinkAndDataChangeAsOne) {
  constexpr int kLoggers = 3, kLines = 2000;
  static std::atomic<int> lines, foreign;
  static int data[2];
  lines = foreign = 0;
  constexpr auto first = +[](int, const char *, void *udata) { lines += 1, foreign += udata != &data[0] ? 1 : 0; };
  constexpr auto second = +[](int, const char *, void *udata) { lines += 1, foreign += udata != &data[1] ? 1 : 0; };
  pelk_set_log_sink(first, &data[0]);
  run_together(kLoggers + 1, [&](int self) {
    for (int i = 0; i < kLines; ++i) {
      if (self != 0)
        pelk_syslog(PELK_LOG_DEBUG, "line %d", i);
      else
        pelk_set_log_sink(i % 2 == 0 ? second : first, &data[i % 2 == 0 ? 1 : 0]);
    }
  });
  EXPECT_EQ(lines, kLoggers * kLines);
  EXPECT_EQ(foreign, 0);
}

// ---- hashing ------------------------------------------------------------------------------------------------------

const uint8_t *bytes_of(const std::string &text) {
  return reinterpret_cast<const uint8_t *>(text.data());
}
uint16_t size_of(const std::string &text) {
  return static_cast<uint16_t>(text.size());
}

TEST(Siphash, KnownValuesAndFolding) {
  using secret = std::array<uint8_t, 16>;
  const secret counting = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}, zero = {};
  EXPECT_EQ(siphash(counting.data(), "", 0), 0xabac0158050fc4dcu);
  EXPECT_EQ(siphash(zero.data(), "12345678", 8), 0x3489982430560a87u);
  EXPECT_EQ(siphash(zero.data(), "bl.example.net/0123456789abcdef", 31), 0x2b64bcd1ced26a7au);
  secret one, other;
  ASSERT_EQ(siphash_secret(one.data()) | siphash_secret(other.data()), 0);
  std::mt19937 random(7);
  for (int round = 0; round < 20000; ++round) {
    std::string text(random() % 40, '\0'), lowered;
    for (char &byte : text)
      byte = static_cast<char>(random());
    for (const char byte : text)
      lowered += byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
    ASSERT_EQ(siphash_folded(one.data(), text.data(), text.size()),
              siphash(one.data(), lowered.data(), lowered.size()));
    ASSERT_NE(siphash(one.data(), text.data(), text.size()), siphash(other.data(), text.data(), text.size()));
  }
}

// table_model drives a table and a plain model of it side by side: what the index holds, and each range in order.
class table_model {
 public:
  table_model(size_t capacity, size_t names, unsigned seed) : capacity_(capacity), names_(names), random_(seed) {
    EXPECT_EQ(shash_init(&table_, capacity, sizeof(entry *), compare, release, kRanges), 0);
    table_.owner = this;
  }
  ~table_model() {
    EXPECT_EQ(shash_destroy(&table_), 0);
    for (const auto &range : ranges_)
      EXPECT_TRUE(range.empty());
  }

  void step() {
    const std::string name = "name-" + std::to_string(random_() % names_) + ".example";
    const auto range = static_cast<rindex_t>(random_() % kRanges);
    const auto found = index_.find(name);
    entry *known = found == index_.end() ? nullptr : found->second;
    ASSERT_EQ(search(name), known == nullptr ? nullptr : known->item);
    if (known == nullptr) return insert(name, range);
    const unsigned choice = random_() % 16;
    if (choice == 0) return shash_remove(&table_, known->item);
    if (choice == 1) return unindex(known);
    if (choice == 2 && !ranges_[range].empty()) return shash_remove(&table_, ranges_[range].front()->item);
    ASSERT_EQ(shash_update(&table_, known->item, range), 0);
    if (known->range != range) ranges_[range].splice(ranges_[range].end(), ranges_[known->range], known->place);
    known->range = range;
  }

  void check() {
    size_t total = 0;
    for (rindex_t number = 0; number < kRanges; ++number) {
      STAT_RANGEITEM cursor;
      const shash_item *item = range_item_first(range_find(&table_, number, &cursor));
      for (const entry *expected : ranges_[number]) {
        ASSERT_EQ(item, expected->item);
        item = item->range_next;
      }
      ASSERT_EQ(item, nullptr);
      total += ranges_[number].size();
    }
    ASSERT_EQ(table_.count, total);
    ASSERT_LE(total, capacity_);
    ASSERT_EQ(table_.index.items(), index_.size());
    ASSERT_LE(index_.size(), table_.index.buckets() * table_.index.kItemsPerBucket);
  }

  size_t evictions = 0, refusals = 0;
  static inline size_t strangers_met = 0;

 private:
  static constexpr rindex_t kRanges = 4;
  struct entry {
    std::string key;
    shash_item *item;
    rindex_t range;
    std::list<entry *>::iterator place;
  };

  // Keys meet here only when their hashes are equal, so hardly ever when they are not equal themselves.
  static int compare(void *, const uint8_t *key1, uint16_t size1, const uint8_t *key2, uint16_t size2) {
    const auto *text1 = reinterpret_cast<const char *>(key1), *text2 = reinterpret_cast<const char *>(key2);
    const bool equal = size1 == size2 && strncasecmp(text1, text2, size1) == 0;
    strangers_met += equal ? 0 : 1;
    return equal ? 0 : 1;
  }

  static void release(void *owner, uint8_t *key, shash_item *item) {
    const std::unique_ptr<entry> gone(*static_cast<entry **>(shash_item_data(item)));
    EXPECT_TRUE(gone->item == item && bytes_of(gone->key) == key && item->pKey == key);
    static_cast<table_model *>(owner)->forget(gone.get());
  }

  void forget(const entry *gone) {
    EXPECT_EQ(shash_get_item_range(&table_, gone->item), gone->range);
    if (inserting_) {
      EXPECT_EQ(gone, ranges_[0].front());
      EXPECT_EQ(table_.count, capacity_);
      evictions += 1;
    }
    ranges_[gone->range].erase(gone->place);
    const auto found = index_.find(gone->key);
    if (found != index_.end() && found->second == gone) index_.erase(found);
  }

  shash_item *search(std::string name) {
    for (char &byte : name)
      byte = static_cast<char>(random_() % 2 != 0 ? toupper(byte) : byte);
    return shash_search(&table_, bytes_of(name), size_of(name));
  }

  void insert(const std::string &name, rindex_t range) {
    auto fresh = std::make_unique<entry>(entry{name, nullptr, range, {}});
    const bool refused = table_.count == capacity_ && ranges_[0].empty();
    inserting_ = true;
    fresh->item = shash_insert(&table_, const_cast<uint8_t *>(bytes_of(fresh->key)), size_of(name), range);
    inserting_ = false;
    refusals += refused ? 1 : 0;
    ASSERT_EQ(fresh->item == nullptr, refused);
    if (refused) return;
    auto **data = static_cast<entry **>(shash_item_data(fresh->item));
    ASSERT_EQ(*data, nullptr);
    fresh->place = ranges_[range].insert(ranges_[range].end(), fresh.get());
    index_[name] = fresh.get();
    *data = fresh.release();
  }

  void unindex(const entry *one) {
    for (int twice = 0; twice < 2; ++twice)
      shash_unindex(&table_, one->item);
    index_.erase(one->key);
  }

  shash_table table_;
  size_t capacity_, names_;
  std::mt19937 random_;
  std::unordered_map<std::string, entry *> index_;
  std::array<std::list<entry *>, kRanges> ranges_;
  bool inserting_ = false;
};

TEST(Shash, BehavesLikeItsModel) {
  size_t evictions = 0, refusals = 0;
  for (unsigned seed = 1; seed <= 15; ++seed) {
    const size_t capacity = std::array{1, 4, 16, 100, 3000}[seed % 5];
    SCOPED_TRACE(testing::Message() << "capacity " << capacity << " seed " << seed);
    table_model model(capacity, capacity * 2, seed);
    for (int i = 1; i <= 20000 && !HasFailure(); ++i) {
      model.step();
      if (i % 500 == 0) model.check();
    }
    evictions += model.evictions;
    refusals += model.refusals;
  }
  EXPECT_GT(evictions, 1000u);
  EXPECT_GT(refusals, 100u);
  EXPECT_LE(table_model::strangers_met, 20u);
}

TEST(Shash, CapacityCostsNothingBeforeItemsCome) {
  const auto equal = [](void *, const uint8_t *, uint16_t, const uint8_t *, uint16_t) { return 0; };
  const auto keep = [](void *, uint8_t *, shash_item *) {};
  shash_table table;
  ASSERT_EQ(shash_init(&table, SIZE_MAX, 0, equal, keep, 2), 0);
  uint8_t key[] = {1, 2, 3};
  shash_item *item = shash_insert(&table, key, sizeof key, 1);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(shash_search(&table, key, sizeof key), item);
  EXPECT_EQ(shash_destroy(&table), 0);
}

// ---- datagrams ----------------------------------------------------------------------------------------------------

// Packets of one size leave in runs that the kernel cuts up; on a socket without checksums it refuses to.
TEST(SystemIo, DatagramsArriveAsTheyWereHoweverTheKernelTakesThem) {
  const dns::Io *io = dns::system_io();
  for (const char *host : {"127.0.0.1", "127.0.0.1 without checksums", "::1"}) {
    SCOPED_TRACE(host);
    if (*host == ':' && !testbed::ipv6_works()) continue;
    const std::string text(host, strcspn(host, " "));
    const int refuses = text != host ? 1 : 0;
    const testbed::HandServer receiver(text);
    const dns::Address peer = dns::read_address(text.c_str(), receiver.port());
    const int sender = io->udp_open(io->self, peer.family, 0, &peer);
    ASSERT_GE(sender, 0);
    ASSERT_EQ(setsockopt(sender, SOL_SOCKET, SO_NO_CHECK, &refuses, sizeof refuses), 0);

    std::mt19937 random(11);
    std::vector<std::string> sent;
    std::vector<dns::Datagram> datagrams;
    for (const uint32_t size : {30, 30, 30, 41, 30, 512, 512, 17, 17, 17, 17, 1})
      sent.emplace_back(size, static_cast<char>('a' + sent.size()));
    while (sent.size() < dns::kBatch)
      sent.emplace_back(50 + random() % 2, static_cast<char>(random()));
    for (std::string &packet : sent)
      datagrams.push_back({reinterpret_cast<uint8_t *>(packet.data()), 0, size_of(packet), peer});
    EXPECT_EQ(io->udp_send(io->self, sender, datagrams.data(), dns::kBatch, true), int{dns::kBatch});
    for (const std::string &packet : sent) {
      const std::vector<uint8_t> got = receiver.receive().packet;
      ASSERT_EQ(std::string(got.begin(), got.end()), packet);
    }
    io->udp_close(io->self, sender);
  }
}

}  // namespace
