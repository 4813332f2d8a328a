// fork_test - processes: a context in a child that is forked while the context runs or is closed, and the standard
// streams' descriptors where the host has closed them. A child reports in words what was wrong.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <host_test.h>
#include <kavo.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace testbed;

// In a child: ends it with the failed condition.
#define CHECKED(expression) \
  if (!(expression)) return "line " + std::to_string(__LINE__) + ": " #expression

// in_child runs `body` in a forked child and returns its report; nothing when all was well.
std::string in_child(const std::function<std::string()> &body) {
  int ends[2];
  EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const pid_t child = fork();
  if (child == 0) {
    close(ends[0]);
    alarm(kLongMs / 1000);
    const std::string words = body();
    _exit(write(ends[1], words.data(), words.size()) == static_cast<ssize_t>(words.size()) ? 0 : 1);
  }
  close(ends[1]);
  std::string words;
  char buffer[256];
  for (ssize_t got; (got = read(ends[0], buffer, sizeof buffer)) > 0;)
    words.append(buffer, static_cast<size_t>(got));
  close(ends[0]);
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return status == 0 ? words : words + " status " + std::to_string(status);
}

using ForkTest = LiveAndDeadTest;

// refused checks that every call of a child on a context that runs in its parent ends at once.
std::string refused(KAVO kavo, KAVO_QUERY_NODE node, KAVO_QUERY_NODE bell, KAVO_ANSWER_ITERATOR iterator) {
  const TempDir directory;
  const std::string path = directory.file("any");
  KAVO_QUERY_NODE other = nullptr, both[] = {node, bell};
  unsigned char dn[DNS_MAXDN] = {};
  const sockaddr_in server = loopback(1);
  const auto *address = reinterpret_cast<const sockaddr *>(&server);
  sockaddr servers[4];
  unsigned count = 4;
  int value = 0;
  uint64_t big = 0;
  Answers answers;
  CHECKED(kavo_srv_is_running(kavo) == 0);
  CHECKED(kavo_node_type(kavo, node) == KAVOT_INVALID);
  CHECKED(kavo_get_answer(kavo, iterator) == nullptr);
  CHECKED(kavo_get_ext_cache(kavo, KAVOCT_ANS) == nullptr);
  CHECKED(kavo_zonesmap_zone(kavo, 1) == nullptr);
  kavo_add_args(kavo, 1);
  kavo_free_args(kavo);
  kavo_free_zones(kavo);
  const KAVO_ERR results[] = {kavo_open(kavo),
                              kavo_subscribe_node_p(kavo, KAVOT_BL_IP, "192.0.2.9", 0, nullptr, &other),
                              kavo_subscribe_syncnode(kavo, nullptr, &other),
                              kavo_signal_syncnode(kavo, bell),
                              kavo_unsubscribe_node(kavo, node),
                              kavo_wait_node(kavo, node, KAVOWT_FULL, nullptr),
                              kavo_wait_multiple_nodes(kavo, both, 2, KAVOWT_FULL, 1, nullptr, nullptr),
                              kavo_node_qdn(kavo, node, dn, sizeof dn, nullptr),
                              static_cast<KAVO_ERR>(kavo_nactive(kavo)),
                              kavo_set_answer_iterator(kavo, node, iterator),
                              answers.copy(kavo, node),
                              answers.query(kavo, KAVOT_BL_IP, address_bytes("192.0.2.9")),
                              kavo_get_serv_avgrtt(kavo, address, &value),
                              kavo_get_ndropped(kavo, &big),
                              kavo_cachesave(kavo, path.c_str()),
                              kavo_cacheload(kavo, path.c_str()),
                              kavo_set_opt(kavo, KAVOOPT_NTRIES, 1),
                              kavo_get_dns_servers(kavo, servers, &count),
                              kavo_get_dns_servers_ss(kavo, nullptr, &count),
                              kavo_add_dns_server(kavo, "127.0.0.1", 1),
                              kavo_add_expserv_s(kavo, address),
                              kavo_dns_status(kavo),
                              kavo_add_zone(kavo, KAVOT_BL_IP, "x"),
                              kavo_zonesmap_save_cfg(kavo, path.c_str()),
                              kavo_set_cookies(kavo, 1)};
  for (const KAVO_ERR &result : results)
    if (result != KAVOE_SRV) return "call " + std::to_string(&result - results) + ": " + std::to_string(result);
  return "";
}

// works checks that a context opens, asks and closes.
std::string works(KAVO kavo) {
  CHECKED(kavo_open(kavo) == KAVOE_OK);
  Answers answers;
  CHECKED(answers.query(kavo, KAVOT_BL_IP, address_bytes("192.0.2.1")) == KAVOE_OK);
  CHECKED(answers.texts() == Texts{"127.0.0.2"});
  CHECKED(kavo_close(kavo) == KAVOE_OK);
  return "";
}

TEST_F(ForkTest, ARunningContextStaysItsParentsAndAChildMakesItsOwn) {
  const HandServer slow;
  const size_t descriptors = open_descriptors();
  Host host(2, 1 << 16), resting;
  resting.server(server_.port()).zone(KAVOT_BL_IP, "live.list");
  const size_t with_resting = open_descriptors() - 2;  // without the running one's pipe
  host.server(slow.port()).zone(KAVOT_BL_IP, "slow.list").long_timeout().open();
  Node node(host, KAVOT_BL_IP, "192.0.2.1"), bell(host);
  KAVO_ANSWER_ITERATOR iterator = kavo_alloc_answer_iterator();
  const HandServer::Query query = slow.receive();
  std::thread waiter([&] { EXPECT_EQ(kavo_wait_node(host, node, KAVOWT_FULL, nullptr), KAVOE_OK); });
  KAVO_QUERY_NODE late = nullptr;
  std::thread guest([&] { EXPECT_EQ(kavo_subscribe_syncnode(host, nullptr, &late), KAVOE_OK); });
  std::this_thread::sleep_for(std::chrono::milliseconds(kShortMs));
  const std::string words_of_child = in_child([&]() -> std::string {
    std::string words = refused(host, node, bell, iterator);
    if (!words.empty()) return words;
    CHECKED(kavo_close(host) == KAVOE_OK);
    CHECKED(open_descriptors() == with_resting + 1);  // and the one for the report
    CHECKED(kavo_nactive(host) == KAVOE_SRV);
    CHECKED(kavo_free(host) == KAVOE_OK);
    words = works(resting);
    if (!words.empty()) return words;
    CHECKED(kavo_free(resting) == KAVOE_OK);
    CHECKED(open_descriptors() == descriptors + 1);
    Host own;
    own.server(server_.port()).zone(KAVOT_BL_IP, "live.list");
    return works(own);
  });
  EXPECT_EQ(words_of_child, "");
  slow.deny(query);
  waiter.join();
  EXPECT_EQ(in_place(host, node), Texts{"NXDOM"});
  bell.drop();
  guest.join();
  EXPECT_EQ(kavo_unsubscribe_node(host, late), KAVOE_OK);
  kavo_free_answer_iterator(iterator);
  EXPECT_EQ(works(resting), "");
}

// A context that has asked before, so that a good part of the random bytes that it has fetched is left.
TEST_F(ForkTest, WorkersThatOpenOneContextRepeatNothing) {
  const HandServer server;
  Host host;
  host.server(server.port()).zone(KAVOT_BL_DOM, "hand.list");
  const auto ask = [&]() -> std::string {
    CHECKED(kavo_open(host) == KAVOE_OK);
    Answers answers;
    CHECKED(answers.query(host, KAVOT_BL_DOM, "worker.example") == KAVOE_OK);
    CHECKED(kavo_close(host) == KAVOE_OK);
    return "";
  };
  std::vector<HandServer::Query> queries;
  for (int worker = 0; worker < 4; ++worker) {
    std::thread answering([&] {
      queries.push_back(server.receive());
      server.deny(queries.back());
    });
    EXPECT_EQ(worker % 3 == 0 ? ask() : in_child(ask), "") << worker;
    answering.join();
  }
  for (size_t i = 0; i < queries.size(); ++i)
    for (size_t j = 0; j < i; ++j)
      EXPECT_FALSE(queries[i].packet == queries[j].packet &&
                   testbed::port_of(queries[i].from) == testbed::port_of(queries[j].from))
          << i << " and " << j;
}

TEST_F(ForkTest, AContextAtRestRunsInParentAndChildAtOnce) {
  constexpr int kQuestions = 200;
  Host host;
  host.server(server_.port()).zone(KAVOT_BL_IP, "live.list");
  const auto ask = [&host]() -> std::string {
    CHECKED(kavo_open(host) == KAVOE_OK);
    Answers answers;
    for (int i = 0; i < kQuestions; ++i)
      CHECKED(answers.query(host, KAVOT_BL_IP, address_bytes("192.0.2.1"), 0, kLongMs / 4) == KAVOE_OK);
    CHECKED(kavo_close(host) == KAVOE_OK);
    return "";
  };
  int forked[2];
  ASSERT_EQ(pipe2(forked, O_CLOEXEC), 0);
  std::string words;
  std::thread child([&] { words = in_child([&] { return write(forked[1], "", 1) == 1 ? ask() : "no start"; }); });
  char byte;
  EXPECT_EQ(read(forked[0], &byte, 1), 1);
  EXPECT_EQ(ask(), "");
  child.join();
  EXPECT_EQ(words, "");
  close(forked[0]);
  close(forked[1]);
}

TEST_F(ForkTest, ALineIsLoggedInAChildWhateverThreadWasChoosingASink) {
  std::atomic<bool> over = false;
  std::thread chooser([&over] {
    while (!over)
      kavo_set_log_cb([](int, const char *, void *) {}, nullptr);
  });
  for (int i = 0; i < 100; ++i) {
    const std::string words = in_child([]() -> std::string {
      CHECKED(kavo_convert_type(KAVOT_SYNC) == DNS_T_INVALID);  // with a warning
      return "";
    });
    EXPECT_EQ(words, "");
    if (!words.empty()) break;
  }
  over = true;
  chooser.join();
}

TEST_F(ForkTest, ClosedStandardStreamsStayClosed) {
  const TempDir directory;
  const std::string zones = directory.write("zones", "#IP\nlive.list\n\n"), dump = directory.file("dump");
  const auto closed = [] {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
      if (fcntl(descriptor, F_GETFD) != -1 || errno != EBADF) return false;
    return true;
  };
  constexpr int kLines = 2000;  // more than a pipe takes
  const std::string words = in_child([&]() -> std::string {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
      close(descriptor);
    kavo_set_log_cb(nullptr, nullptr);
    Host host(4, 1 << 16);
    host.server(server_.port());
    CHECKED(kavo_zonesmap_init_cfg(host, zones.c_str()) == KAVOE_OK);
    CHECKED(kavo_open(host) == KAVOE_OK);
    Answers answers;
    CHECKED(answers.query(host, KAVOT_BL_IP, address_bytes("192.0.2.1")) == KAVOE_OK);
    CHECKED(closed());
    for (int i = 0; i < kLines; ++i)
      CHECKED(kavo_open(host) == KAVOE_OK);
    CHECKED(kavo_cachesave(host, dump.c_str()) == KAVOE_OK);
    CHECKED(kavo_cacheload(host, dump.c_str()) == KAVOE_OK);
    CHECKED(answers.query(host, KAVOT_BL_IP, address_bytes("192.0.2.2")) == KAVOE_OK);
    CHECKED(kavo_close(host) == KAVOE_OK);
    CHECKED(closed());
    return "";
  });
  EXPECT_EQ(words, "");
}

}  // namespace
