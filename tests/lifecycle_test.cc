// lifecycle_test - a context's life as a host sees it: the order of calls, which calls each state allows, how nodes are
// held and shared, how waits end, and that nothing leaks. Names that must stay unanswered go to a list zone that is
// dead on request.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <host_test.h>
#include <kavo.h>
#include <packet.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace testbed;

using Step = std::pair<KAVO_SRV_STATE, KAVO_SRV_STATE>;

void note_step(KAVO, KAVO_SRV_STATE before, KAVO_SRV_STATE after, void *steps) {
  static_cast<std::vector<Step> *>(steps)->emplace_back(before, after);
}

using LifecycleTest = LiveAndDeadTest;

TEST_F(LifecycleTest, StatesAreToldInPairsAndContextsReopen) {
  std::vector<Step> steps;
  Host host;
  host.server(server_.port()).zone(KAVOT_BL_IP, "live.list");
  ASSERT_EQ(kavo_set_srvstate_chg_cb(host, note_step, &steps), 0);
  const std::vector<Step> expected{{KAVOSS_STOPPED, KAVOSS_STARTING},
                                   {KAVOSS_STARTING, KAVOSS_RUNNING},
                                   {KAVOSS_RUNNING, KAVOSS_STOPPING},
                                   {KAVOSS_STOPPING, KAVOSS_STOPPED}};
  const size_t descriptors = open_descriptors();
  for (int round = 0; round < 3; ++round) {
    steps.clear();
    ASSERT_EQ(kavo_open(host), KAVOE_OK);
    EXPECT_EQ(kavo_srv_is_running(host), 1);
    EXPECT_EQ(kavo_open(host), KAVOE_OK) << "a running context stays as it is";
    EXPECT_EQ(Answers().ask(host, KAVOT_BL_IP, address_bytes("192.0.2.9")), Texts{"127.0.0.2"});
    ASSERT_EQ(kavo_close(host), KAVOE_OK);
    EXPECT_EQ(kavo_srv_is_running(host), 0);
    EXPECT_EQ(kavo_close(host), KAVOE_OK) << "a stopped context is fine";
    EXPECT_EQ(steps, expected);
    EXPECT_EQ(open_descriptors(), descriptors) << "a closed context keeps no sockets";
  }
  ASSERT_EQ(kavo_set_srvstate_chg_cb(host, nullptr, nullptr), 0);
  steps.clear();
  ASSERT_EQ(kavo_open(host), KAVOE_OK);
  EXPECT_TRUE(steps.empty());
}

TEST_F(LifecycleTest, CreationChecksItsArguments) {
  KAVO const untouched = reinterpret_cast<KAVO>(&server_);
  KAVO kavo = untouched;
  expect_all(KAVOE_BADPAR, {kavo_init_ext(&kavo, 0, 0, 8, 0), kavo_init_ext(&kavo, 8, 0, 0, 0),
                            kavo_init_ext(&kavo, 8, 0, -1, 0), kavo_init_ext(nullptr, 8, 0, 8, 0)});
  EXPECT_EQ(kavo, untouched) << "nothing was created, the handle is not written";
  EXPECT_NE(kavo_init_ext(&kavo, -1, 0, 8, 0), KAVOE_OK);
  ASSERT_EQ(kavo_init(&kavo, 8, -1, 1), KAVOE_OK);
  EXPECT_EQ(kavo_srv_is_running(kavo), 1);
  EXPECT_EQ(kavo_get_ext_cache(kavo, KAVOCT_ANS), nullptr);
  EXPECT_EQ(kavo_free(kavo), KAVOE_SRV) << "a running context is left whole";
  EXPECT_EQ(kavo_srv_is_running(kavo), 1);
  EXPECT_EQ(kavo_close(kavo), KAVOE_OK);
  EXPECT_EQ(kavo_free(kavo), KAVOE_OK);
}

TEST_F(LifecycleTest, StoppedContextRefusesQuestions) {
  Host host;
  host.server(server_.port()).zone(KAVOT_BL_IP, "live.list").open();
  Node node(host, KAVOT_BL_IP, "192.0.2.1");
  ASSERT_EQ(node.wait(KAVOWT_FULL), KAVOE_OK);
  ASSERT_EQ(kavo_close(host), KAVOE_OK);

  KAVO_QUERY_NODE other = nullptr;
  EXPECT_EQ(kavo_subscribe_node_p(host, KAVOT_BL_IP, "192.0.2.2", 0, nullptr, &other), KAVOE_SRV);
  EXPECT_EQ(kavo_subscribe_node_p(host, KAVOT_BL_MX, "example", 0, nullptr, &other), KAVOE_SRV)
      << "the state is looked at before the zones";
  KAVO_QUERY_NODE held = node;
  EXPECT_EQ(node.wait(KAVOWT_FULL), KAVOE_SRV);
  EXPECT_EQ(kavo_wait_multiple_nodes(host, &held, 1, KAVOWT_FULL, 1, nullptr, nullptr), KAVOE_SRV);
  EXPECT_EQ(kavo_node_type(host, held), KAVOT_INVALID);
  Answers answers;
  EXPECT_EQ(answers.copy(host, held), KAVOE_OK) << "what was resolved stays readable";
  EXPECT_EQ(answers.texts(), Texts{"127.0.0.2"});
  EXPECT_EQ(kavo_nactive(host), 1u);
  node.drop();
  EXPECT_EQ(kavo_nactive(host), 0u);
}

TEST_F(LifecycleTest, FastCloseFailsWhatIsInFlightAndWakesItsWaiters) {
  Host host(4);
  host.server(server_.port()).zone(KAVOT_BL_IP, "dead.list").long_timeout();
  const size_t descriptors = open_descriptors();
  host.open();
  Node node(host, KAVOT_BL_IP, "192.0.2.1");
  std::array<KAVO_ERR, 3> results{};
  std::vector<std::jthread> waiters;
  for (KAVO_ERR &result : results)
    waiters.emplace_back([&node, &result] { result = node.wait(KAVOWT_FULL); });
  ASSERT_EQ(node.wait(KAVOWT_NONE), KAVOE_OK);
  // Time for the waiters to sleep; a waiter that comes too late is refused, which is as good.
  std::this_thread::sleep_for(std::chrono::milliseconds(kShortMs));
  ASSERT_EQ(kavo_close(host), KAVOE_OK);
  EXPECT_EQ(open_descriptors(), descriptors);
  waiters.clear();
  for (const KAVO_ERR result : results)
    EXPECT_TRUE(result == KAVOE_OK || result == KAVOE_SRV) << result;
  Answers answers;
  EXPECT_EQ(answers.copy(host, node), KAVOE_SRV);

  // The failed node is still held; the same question asked again gets a node of its own.
  ASSERT_EQ(kavo_zonesmap_init(host), KAVOE_OK);
  host.zone(KAVOT_BL_IP, "live.list").open();
  Node again(host, KAVOT_BL_IP, "192.0.2.1");
  ASSERT_EQ(again.wait(KAVOWT_FULL), KAVOE_OK);
  EXPECT_NE(static_cast<KAVO_QUERY_NODE>(again), static_cast<KAVO_QUERY_NODE>(node));
  EXPECT_EQ(answers.copy(host, again), KAVOE_OK);
  EXPECT_EQ(answers.texts(), Texts{"127.0.0.2"});
  EXPECT_EQ(answers.copy(host, node), KAVOE_SRV);
  EXPECT_EQ(kavo_nactive(host), 2u);
  node.drop();
  EXPECT_EQ(kavo_nactive(host), 1u);
  again.drop();
  EXPECT_EQ(kavo_nactive(host), 0u);
}

TEST_F(LifecycleTest, SlowCloseWaitsForTheOutcome) {
  Host host;
  host.server(server_.port()).zone(KAVOT_BL_IP, "dead.list").zone(KAVOT_BL_IP, "live.list");
  host.option(KAVOOPT_TIMEOUT_MSEC, 100).option(KAVOOPT_NTRIES, 2).open();
  Node node(host, KAVOT_BL_IP, "192.0.2.1");
  ASSERT_EQ(node.wait(KAVOWT_NONE), KAVOE_OK);
  ASSERT_EQ(kavo_close(host), KAVOE_OK);
  Answers answers;
  ASSERT_EQ(answers.copy(host, node), KAVOE_OK) << "every question in flight has got its outcome";
  ASSERT_EQ(answers.size(), 2);
  EXPECT_EQ(answers[0].err_code, KAVOE_TIMEOUT);
  EXPECT_EQ(render(answers[1]), "127.0.0.2");
  const sockaddr_in place = loopback(server_.port());
  const auto *server = reinterpret_cast<const sockaddr *>(&place);
  uint64_t sent = 0, used = 0, timed_out = 0;
  expect_all(KAVOE_OK, {kavo_get_serv_nqsent(host, server, &sent), kavo_get_serv_nused(host, server, &used),
                        kavo_get_serv_ntimeout(host, server, &timed_out)});
  EXPECT_TRUE(used == 1 && timed_out >= 2 && sent > timed_out) << sent << " " << used << " " << timed_out;
}

TEST_F(LifecycleTest, SubscriptionsCheckTheirArguments) {
  Host host;
  host.server(server_.port()).zone(KAVOT_BL_IP, "live.list").open();
  const unsigned char root[] = {0};
  const char four[] = {1, 2, 0, 127, 0};
  KAVO_QUERY_NODE node = nullptr;
  const auto text = [&](KAVO_TYPE type, const char *subject, unsigned flags = 0) {
    return kavo_subscribe_node_p(host, type, subject, flags, Deadline(kLongMs), &node);
  };
  EXPECT_EQ(text(KAVOT_BL_DOM, "example"), KAVOE_NOZONES);
  expect_all(KAVOE_NOPARSER, {text(KAVOT_DNS_SOA, "example"), text(KAVOT_DNS_A6, "example")});
  for (const KAVO_TYPE type : {KAVOT_INVALID, KAVOT_PKT, static_cast<KAVO_TYPE>(INT_MAX)})
    EXPECT_EQ(text(type, "example", KAVOQF_PKT), KAVOE_BADPAR) << type;
  for (const char *no_address : {"example", "1.2.3", "0x1.2.3.4", "1.2.3.4.5", "1.2.3.256", "", "1.2.3.4 "})
    EXPECT_EQ(text(KAVOT_BL_IP, no_address), KAVOE_BADPAR) << no_address;
  const std::string label(DNS_MAXLABEL, 'a'), too_long = label + "." + label + "." + label + "." + label;
  for (const int length : {-1, 0, 3, 5, 256, INT_MAX})
    EXPECT_EQ(kavo_subscribe_node(host, KAVOT_BL_IP, four, length, 0, nullptr, &node), KAVOE_BADPAR) << length;
  for (const int length : {INT_MIN, 0, 256, INT_MAX})
    EXPECT_EQ(kavo_subscribe_node(host, KAVOT_DNS_A, "a", length, 0, nullptr, &node), KAVOE_BADPAR) << length;
  expect_all(KAVOE_BADPAR,
             {text(KAVOT_DNS_A, too_long.c_str()), text(KAVOT_DNS_A, nullptr), text(KAVOT_DNS_A, ""),
              text(KAVOT_DNS_A, "a..b"), text(KAVOT_DNS_A, (label + "a").c_str()),
              kavo_subscribe_node(nullptr, KAVOT_BL_IP, four, 4, 0, nullptr, &node),
              kavo_subscribe_node(host, KAVOT_BL_IP, nullptr, 4, 0, nullptr, &node),
              kavo_subscribe_node(host, KAVOT_BL_IP, four, 4, 0, nullptr, nullptr),
              kavo_subscribe_node_dn(host, KAVOT_DNS_A, nullptr, 0, nullptr, &node),
              kavo_subscribe_node_dn(nullptr, KAVOT_DNS_A, root, 0, nullptr, &node),
              kavo_subscribe_node_serv(nullptr, KAVOT_DNS_A, root, nullptr, 0, nullptr, &node),
              kavo_subscribe_node_dcache(nullptr, KAVOT_DNS_A, root, nullptr, nullptr, &node),
              kavo_subscribe_node_serv_ss(nullptr, KAVOT_DNS_A, root, nullptr, 0, 0, nullptr, &node),
              kavo_subscribe_node_dcache_ss(nullptr, KAVOT_DNS_A, root, nullptr, 0, nullptr, &node),
              kavo_subscribe_syncnode(nullptr, nullptr, &node), kavo_subscribe_syncnode(host, nullptr, nullptr)});
  EXPECT_EQ(kavo_nactive(host), 0u) << "no failure leaves a node held";

  // The shortest and the longest texts, the latter with a letter in its longest writing.
  std::string longest;
  for (int i = 0; i < DNS_MAXLABEL; ++i)
    longest += "\\097";
  longest += ".bc";
  ASSERT_EQ(longest.size(), 255u);
  for (const auto &[subject, size] : {std::pair<std::string, unsigned>{".", 1}, {"a", 3}, {longest, 68}}) {
    Node named(host, KAVOT_DNS_NS, subject);
    std::array<unsigned char, DNS_MAXDN> name;
    unsigned written = 7;
    EXPECT_EQ(kavo_node_qdn(host, named, name.data(), size - 1, &written), size == 1 ? KAVOE_BADPAR : KAVOE_NOMEM);
    EXPECT_EQ(written, size == 1 ? 0 : size) << subject;
    EXPECT_EQ(kavo_node_qdn(host, named, name.data(), size, &written), KAVOE_OK) << subject;
    EXPECT_EQ(written, size) << subject;
  }
  Node pointer(host, KAVOT_DNS_PTR, "192.0.2.1", KAVOQF_PKT);
  std::array<unsigned char, DNS_MAXDN> dn;
  const Bytes expected = testbed::dn("1.2.0.192.in-addr.arpa");
  ASSERT_EQ(kavo_node_qdn(host, pointer, dn.data(), dn.size(), nullptr), KAVOE_OK);
  EXPECT_TRUE(kavo_dns_dnequal(dn.data(), expected.data()));
  const in_addr address{htonl(0xc0000201)};
  ASSERT_EQ(kavo_dns_a4todn(&address, dn.data(), dn.size()), 11) << "the same without its last two labels";
  EXPECT_EQ(kavo_dns_a4todn(&address, dn.data(), 10), 0);
  EXPECT_TRUE(std::equal(dn.begin(), dn.begin() + 10, expected.begin()));
  EXPECT_EQ(kavo_dns_dntodn(expected.data(), dn.data(), 24), 24U);
  EXPECT_EQ(kavo_node_type(host, pointer), KAVOT_DNS_PTR);
  EXPECT_EQ(kavo_dns_a6todn(&in6addr_loopback, dn.data(), 64), 0);
  EXPECT_EQ(kavo_dns_a6todn(&in6addr_loopback, dn.data(), 65), 65);
}

TEST_F(LifecycleTest, EveryOperationTakesNullsCalmly) {
  Host host;
  host.server(server_.port()).zone(KAVOT_BL_IP, "live.list").open();
  Node node(host, KAVOT_BL_IP, "192.0.2.1");
  KAVO_QUERY_NODE held = node;
  KAVO_ANSWER_ITERATOR iterator = kavo_alloc_answer_iterator();
  KAVO_ANSWER *array = nullptr;
  int written = 0, value = 0;
  uint64_t big = 0;
  unsigned char byte = 0;
  const sockaddr_in unknown = loopback(1);
  const auto *address = reinterpret_cast<const sockaddr *>(&unknown);
  expect_all<int>(KAVOE_BADPAR,
                  {kavo_set_srvstate_chg_cb(nullptr, nullptr, nullptr), static_cast<int>(kavo_nactive(nullptr)),
                   kavo_set_cost_zone(nullptr, "x"), kavo_add_expserv(nullptr, nullptr)});
  expect_all(KAVOE_BADPAR,
             {kavo_open(nullptr), kavo_close(nullptr), kavo_free(nullptr), kavo_set_opt(nullptr, KAVOOPT_NTRIES, 1),
              kavo_set_ext_cache(nullptr, KAVOCT_ANS, nullptr), kavo_set_cookies(nullptr, 1),
              kavo_add_zone(nullptr, KAVOT_BL_IP, "x"), kavo_add_dns_server(nullptr, "127.0.0.1", 0),
              kavo_get_dns_servers(host, nullptr, nullptr), kavo_get_dns_servers_ss(host, nullptr, nullptr),
              kavo_get_dns_servers_ss(nullptr, nullptr, nullptr), kavo_add_expserv_s(nullptr, address),
              kavo_get_serv_avgrtt(nullptr, address, &value), kavo_get_serv_nused(host, address, &big),
              kavo_get_serv_lastrtt(host, nullptr, &value), kavo_get_serv_nqsent(host, address, nullptr),
              kavo_get_serv_window(host, address, &value), kavo_get_ndropped(nullptr, &big),
              kavo_get_ndropped(host, nullptr)});
  EXPECT_EQ(kavo_get_ext_cache(nullptr, KAVOCT_ANS), nullptr);
  expect_all<const char *>(nullptr, {kavo_zonesmap_zone(nullptr, 0), kavo_zonesmap_zone(host, -1)});

  expect_all(KAVOE_BADPAR,
             {kavo_unsubscribe_node(host, nullptr), kavo_unsubscribe_node(nullptr, held),
              kavo_node_qdn(host, nullptr, &byte, 1, nullptr), kavo_node_qdn(host, held, nullptr, 1, nullptr),
              kavo_node_qdn(host, held, &byte, 0, nullptr), kavo_signal_syncnode(host, nullptr),
              kavo_signal_syncnode(nullptr, held), kavo_wait_node(host, nullptr, KAVOWT_FULL, nullptr),
              kavo_wait_node(nullptr, held, KAVOWT_FULL, nullptr),
              kavo_wait_multiple_nodes(host, nullptr, 1, KAVOWT_FULL, 1, nullptr, nullptr),
              kavo_wait_multiple_nodes(host, &held, 0, KAVOWT_FULL, 1, nullptr, nullptr),
              kavo_wait_multiple_nodes(host, &held, -1, KAVOWT_FULL, 1, nullptr, nullptr),
              kavo_wait_nodelist(host, nullptr, KAVOWT_FULL, 1, nullptr)});
  expect_all(KAVOT_INVALID, {kavo_node_type(host, nullptr), kavo_node_type(nullptr, held)});
  for (const int level : {-3, 3, INT_MAX, INT_MIN})
    EXPECT_EQ(kavo_wait_node(host, held, static_cast<KAVO_WAIT_LEVEL>(level), nullptr), KAVOE_BADPAR) << level;

  ASSERT_EQ(node.wait(KAVOWT_FULL), KAVOE_OK);
  expect_all<const KAVO_ANSWER *>(nullptr, {kavo_get_answer(host, iterator), kavo_get_answer(host, nullptr)});
  expect_all(
      KAVOE_BADPAR,
      {kavo_set_answer_iterator(host, nullptr, iterator), kavo_set_answer_iterator(host, held, nullptr),
       kavo_set_answer_iterator(nullptr, held, iterator), kavo_copy_answer(host, held, nullptr, 0, &written, 1),
       kavo_copy_answer(host, nullptr, &array, 0, &written, 1), kavo_copy_answer(host, held, &array, 0, nullptr, 1),
       kavo_query(nullptr, KAVOT_DNS_A, "a", 1, &array, 0, &written, 1, KAVOWT_FULL, 0),
       kavo_query(host, KAVOT_DNS_A, nullptr, 1, &array, 0, &written, 1, KAVOWT_FULL, 0),
       kavo_query(host, KAVOT_BL_IP, "\1\2\0\300", 4, nullptr, 0, &written, kLongMs, KAVOWT_FULL, 0)});
  kavo_free_answer_iterator(nullptr);
  kavo_free_answer_iterator(iterator);
  EXPECT_EQ(kavo_nactive(host), 1u);
}

TEST_F(LifecycleTest, DeadlinesSaturateAndDelaysNeverRunBackwards) {
  timeval value{7, 7};
  EXPECT_EQ(kavo_time_milli_timeval(-1500, &value), KAVOE_OK);
  EXPECT_EQ(value.tv_sec, -1);
  EXPECT_EQ(value.tv_usec, -500000);
  EXPECT_EQ(kavo_time_milli_timeval(1, nullptr), KAVOE_BADPAR);

  // A deadline is its span after the call, and is written as the span is: both parts have the same sign.
  constexpr int64_t kMicro = 1000000;
  timeval now{}, after{}, deadline{};
  const auto micro = [](const timeval &moment) { return moment.tv_sec * kMicro + moment.tv_usec; };
  const auto expect_from_now = [&](timeval span, timeval ahead) {
    SCOPED_TRACE(std::to_string(span.tv_sec) + " s " + std::to_string(span.tv_usec));
    gettimeofday(&now, nullptr);
    EXPECT_EQ(kavo_time_deadline(&span, &deadline), KAVOE_OK);
    gettimeofday(&after, nullptr);
    EXPECT_GE(micro(deadline), micro(now) + micro(ahead));
    EXPECT_LE(micro(deadline), micro(after) + micro(ahead));
    EXPECT_LT(std::abs(deadline.tv_usec), kMicro);
    EXPECT_TRUE(deadline.tv_sec == 0 || deadline.tv_usec == 0 || (deadline.tv_sec > 0) == (deadline.tv_usec > 0));
  };
  using Spans = std::initializer_list<std::pair<int64_t, int64_t>>;
  for (const auto &[sec, usec] : Spans{{0, 0}, {0, 1}, {0, 999999}, {1, 500000}, {100, 999999}})
    for (const int sign : {1, -1})
      expect_from_now({sign * sec, sign * usec}, {sign * sec, sign * usec});
  expect_from_now({INT_MIN, -999999}, {INT_MIN, -999999});
  // An invalid span counts as none.
  for (const auto &[sec, usec] : Spans{{0, 1000000}, {5, -1}, {1, -1}, {5, 1000000}})
    for (const int sign : {1, -1})
      expect_from_now({sign * sec, sign * usec}, {0, 0});
  for (const int64_t sec : {INT_MAX + int64_t{1}, INT_MIN - int64_t{1}})
    expect_from_now({sec, 0}, {0, 0});
  for (const timeval span :
       {timeval{INT_MAX, 0}, {INT_MAX, 999999}, {INT_MAX - now.tv_sec + 1, 0}, {INT_MAX - now.tv_sec, 999999}}) {
    EXPECT_EQ(kavo_time_deadline(&span, &deadline), KAVOE_OK);
    EXPECT_EQ(deadline.tv_sec, INT_MAX);
    EXPECT_EQ(deadline.tv_usec, 999999);
  }
  EXPECT_EQ(kavo_time_deadline(&now, nullptr), KAVOE_BADPAR);
  EXPECT_EQ(kavo_time_deadline(nullptr, &deadline), KAVOE_BADPAR);

  EXPECT_EQ(kavo_get_deadline(UINT_MAX, &deadline), nullptr);
  ASSERT_EQ(kavo_get_deadline(1U << 31, &deadline), &deadline);
  EXPECT_LT(deadline.tv_sec, now.tv_sec - 24 * 86400);

  const auto delay = [](timeval start, timeval finish) { return kavo_time_milli_delay(&start, &finish); };
  EXPECT_EQ(delay({10, 999600}, {11, 400}), 0u);
  EXPECT_EQ(delay({10, 999400}, {11, 600}), 2u);
  EXPECT_EQ(delay({11, 0}, {10, 0}), 0u);
  EXPECT_EQ(kavo_time_milli_delay(nullptr, &after) + kavo_time_milli_delay(&now, nullptr), 0u);
}

TEST_F(LifecycleTest, NamesOptionsAndCodesKeepTheirBounds) {
  EXPECT_STREQ(kavo_strerror(KAVOE_NOPARSER), "KAVO failed because there are no parser for such query type");
  EXPECT_EQ(kavo_strerror(static_cast<KAVO_ERR>(13)), nullptr);
  EXPECT_EQ(kavo_strerror(static_cast<KAVO_ERR>(-1)), nullptr);
  EXPECT_EQ(kavo_typename(KAVOT_SYNC), nullptr);
  EXPECT_EQ(kavo_typename(static_cast<KAVO_TYPE>(52)), nullptr);
  EXPECT_EQ(kavo_name2type("dns_txt"), KAVOT_DNS_TXT);
  for (const char *no_type : {"dns_txt ", "", "DNS", "BL_IP_"})
    EXPECT_EQ(kavo_name2type(no_type), KAVOT_INVALID) << no_type;
  // Every name leads back to its type, in small letters too.
  for (unsigned number = 0; number <= KAVOT_SP_MAX + 1; ++number) {
    const auto type = static_cast<KAVO_TYPE>(number);
    EXPECT_EQ(kavo_isparseable(type) != 0, kavo_get_parser(type, 0) != nullptr) << number;
    if (kavo_typename(type) == nullptr) continue;
    std::string name = kavo_typename(type);
    EXPECT_EQ(kavo_name2type(name.c_str()), type) << name;
    std::transform(name.begin(), name.end(), name.begin(), [](char c) { return static_cast<char>(tolower(c)); });
    EXPECT_EQ(kavo_name2type(name.c_str()), type) << name;
  }
  // What every type is asked as, and how its answers are read.
  for (unsigned number = KAVOT_BL_MIN; number <= KAVOT_BL_MAX; ++number) {
    const auto type = static_cast<KAVO_TYPE>(number);
    const KAVO_TYPE asked = kavo_convert_type_r(kavo_convert_type(type));
    EXPECT_TRUE(asked >= KAVOT_DNS_MIN && asked < KAVOT_DNS_MAX) << number;
    EXPECT_EQ(kavo_get_parser(type, 0), kavo_get_parser(asked, 0)) << number;
    EXPECT_EQ(kavo_get_parser(type, KAVOQF_PKT), dns_parse_pkt) << number;
  }
  EXPECT_EQ(kavo_convert_type(KAVOT_DNS_AAAA), DNS_T_AAAA);
  EXPECT_EQ(kavo_convert_type(KAVOT_SYNC), DNS_T_INVALID);
  EXPECT_EQ(std::to_string(kavo_version() >> 24) + "." + std::to_string(kavo_version() >> 16 & 255) + "." +
                std::to_string(kavo_version() >> 8 & 255),
            KAVO_PROJECT_VERSION);
  EXPECT_GT(kavo_rev(), 0U);
  EXPECT_EQ(kavo_isparseable(KAVOT_INVALID) + kavo_isparseable(static_cast<KAVO_TYPE>(KAVOT_BL_MAX + 1)), 0);
  EXPECT_EQ(kavo_opt_name(static_cast<KAVO_OPT>(-1)), nullptr);

  Host host(1, 1 << 16);
  const auto set = [&host](KAVO_OPT option, uint32_t value) { return kavo_set_opt(host, option, value); };
  expect_all(KAVOE_BADPAR, {set(static_cast<KAVO_OPT>(-1), 0), set(static_cast<KAVO_OPT>(20), 0),
                            set(KAVOOPT_WINDOW, 0), set(KAVOOPT_WINDOW, 4097), set(KAVOOPT_RATE, 1000001),
                            set(KAVOOPT_DNS_PORT, 0), set(KAVOOPT_MAX_PACKET, 511), set(KAVOOPT_MAX_PACKET, 4097),
                            set(KAVOOPT_CLOSE_FAST, 2), set(KAVOOPT_NXDOM_TTL, 1U << 31)});
  expect_all(KAVOE_OK, {set(KAVOOPT_MAX_PACKET, 512), set(KAVOOPT_DNSREC_CACHESIZE, UINT32_MAX),
                        set(KAVOOPT_DNSREC_CACHESIZE, 4096), set(KAVOOPT_WINDOW, 4096), set(KAVOOPT_RATE, 1000000)});
  EXPECT_EQ(kavo_set_ext_cache(host, KAVOCT_FULL, nullptr), KAVOE_OK);
  EXPECT_EQ(kavo_get_ext_cache(host, KAVOCT_ANS), nullptr);
}

}  // namespace
