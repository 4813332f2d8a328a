// resolution_test.cc - iterative resolution in a simulated network: an honest tree, servers in it that refer to
// nowhere, to themselves or to others' zones, and out-of-bailiwick records, which no query may ever return.
#include <cache_entry.h>
#include <context.h>
#include <gtest/gtest.h>
#include <reply.h>
#include <world_query.h>

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

using sim::Query;
using sim::World;
using testbed::Bytes;
using testbed::Reply;

constexpr const char *kRoot = "192.0.2.1";
constexpr const char *kTest = "192.0.2.2";
constexpr const char *kBank = "192.0.2.3";
constexpr const char *kEvil = "192.0.2.66";
const Bytes kLie = {6, 6, 6, 6};
const std::vector<in_addr_t> kLied = {0x06060606};

// Tree is a world with a root, the zone test below it, and below that bank.test and evil.test. All servers but that of
// evil.test are honest: it does as `evil` says, and answers with a lie where `evil` leaves the reply as it is.
class Tree {
 public:
  explicit Tree(uint64_t seed, std::set<std::string> with_six = {}) : world(seed), six(std::move(with_six)) {
    world.add_server(place_of(kRoot), sim::Temper::good);
    EXPECT_EQ(dns_set_cache(world.ctx, DNS_CU_ANS, dns_cache_cacher(answers.get())), DNS_E_NOERROR);
    EXPECT_EQ(dns_set_cache(world.ctx, DNS_CU_REF, dns_cache_cacher(referrals.get())), DNS_E_NOERROR);
    world.script = [this](const Bytes &query, const std::string &server) {
      return answer(query, server.starts_with("2001:db8::") ? "192.0.2." + server.substr(10) : server);
    };
  }

  Query &ask(const std::string &text) {
    asked.push_back(std::make_unique<Query>(text));
    submit(&world, asked.back().get());
    return *asked.back();
  }
  // run resolves a name to its end; `packets` is then the number of queries sent.
  Query &run(const std::string &text) {
    world.packets_sent = 0;
    Query &one = ask(text);
    EXPECT_TRUE(world.run());
    EXPECT_EQ(one.calls, 1);
    packets = world.packets_sent;
    return one;
  }

  [[nodiscard]] std::string place_of(const std::string &server) const {
    return six.contains(server) ? "2001:db8::" + server.substr(8) : server;
  }

  testbed::Cache answers = testbed::cache_of();
  testbed::Cache referrals = testbed::cache_of();
  World world;
  std::set<std::string> six;  // servers that are at 2001:db8::N in the place of 192.0.2.N
  std::function<void(Reply *, const std::string &server)> evil;
  std::vector<std::unique_ptr<Query>> asked;
  unsigned packets = 0;

 private:
  Bytes answer(const Bytes &query, const std::string &server) {
    Reply reply(query);
    if (server == kRoot) {
      reply.ns("test", "ns.test").glue("ns.test", place_of(kTest));
    } else if (server == kTest) {
      if (reply.under("bank.test")) reply.ns("bank.test", "ns.bank.test").glue("ns.bank.test", place_of(kBank));
      if (reply.under("evil.test")) reply.ns("evil.test", "ns.evil.test").glue("ns.evil.test", place_of(kEvil));
    } else if (server == kBank) {
      if (reply.type == DNS_T_A) reply.a(reply.name, testbed::u32(sim::truth_of(query.data() + DNS_HSIZE).address));
    } else {
      const size_t bare = reply.bytes.size();
      if (evil && !reply.under("bank.test")) evil(&reply, server);
      if (reply.bytes.size() == bare && reply.bytes[3] == 0) reply.a(reply.name, kLie);
      if (reply.bytes[3] == 0x0F) return {};  // silence
    }
    return reply.bytes;
  }
};

// is_truth tells whether an answer is the truth about its canonical name.
bool is_truth(const Query &asked) {
  return asked.status == DNS_E_NOERROR && asked.address() == sim::truth_of(testbed::dn(asked.canonical).data()).address;
}

TEST(Resolution, GoesFromZoneToZoneAndCachesDelegations) {
  Tree tree(1);
  EXPECT_TRUE(is_truth(tree.run("one.bank.test")));
  EXPECT_EQ(tree.packets, 3U);
  EXPECT_TRUE(is_truth(tree.run("two.bank.test")));
  EXPECT_EQ(tree.packets, 1U);
  tree.evil = [](Reply *reply, const std::string &) { reply->cname(reply->name, "three.bank.test"); };
  EXPECT_TRUE(is_truth(tree.run("x.evil.test")));
  EXPECT_EQ(tree.packets, 3U) << "the CNAME's target is asked of its cached delegation";
  tree.world.now_us += 301 * int64_t{1'000'000};
  EXPECT_TRUE(is_truth(tree.run("four.bank.test")));
  EXPECT_EQ(tree.packets, 3U);
}

TEST(Resolution, CachedServersThatJustFailedEndTheQuery) {
  Tree tree(2);
  tree.evil = [](Reply *reply, const std::string &) { reply->code(DNS_R_SERVFAIL); };
  EXPECT_EQ(tree.run("x.evil.test").status, DNS_E_SERVFAIL);
  EXPECT_EQ(tree.packets, 3U);
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(tree.run("x.evil.test").status, DNS_E_SERVFAIL);
  EXPECT_EQ(tree.packets, 0U);
}

TEST(Resolution, ACoalescedQueryEndsInAContextWithoutServers) {
  Tree tree(1);
  (void)tree.run("listed-1.bank.test");
  ASSERT_EQ(dns_add_serv(tree.world.ctx, nullptr), 0);
  const Query &leader = tree.ask("listed-2.bank.test");
  const Query &coalesced = tree.ask("listed-2.bank.test");
  dns_timeouts(tree.world.ctx, dns_tv_infinite, tree.world.now());
  dns_cancel(tree.world.ctx, leader.handle);
  ASSERT_TRUE(tree.world.run());
  EXPECT_TRUE(coalesced.calls == 1 && coalesced.status == DNS_E_TEMPFAIL);
}

TEST(Resolution, ADelegationLivesNoLongerThanItsAddresses) {
  Tree tree(3);
  tree.evil = [](Reply *reply, const std::string &server) {
    if (server != kEvil) return;
    if (reply->under("short.evil.test"))
      reply->ns("short.evil.test", "ns.short.evil.test", 300).glue("ns.short.evil.test", "192.0.2.67", 2);
    if (reply->under("far.evil.test")) reply->ns("far.evil.test", "ns.bank.test", 2);
  };
  for (const char *zone : {"short.evil.test", "far.evil.test"}) {
    tree.run(std::string("a.") + zone);
    const unsigned packets = tree.packets;
    tree.run(std::string("b.") + zone);
    EXPECT_EQ(tree.packets, 1U);
    tree.world.now_us += 3'000'000;
    tree.run(std::string("c.") + zone);
    EXPECT_TRUE(tree.packets == 2 && packets >= 2) << zone << " " << tree.packets;
  }
}

void refer_to_silence_or_bank(Reply *reply, const std::string &server) {
  if (server == "192.0.2.67") reply->code(0x0F);
  if (server == kEvil)
    reply->ns("sub.evil.test", "ns.evil.test").ns("sub.evil.test", "ns.bank.test").glue("ns.evil.test", "192.0.2.67");
}

TEST(Resolution, ServersWithoutAddressesAreLookedUpWhenTheOthersAreOfNoUse) {
  Tree tree(4);
  tree.evil = refer_to_silence_or_bank;
  EXPECT_EQ(tree.run("x.sub.evil.test").addresses, kLied);
  EXPECT_EQ(tree.packets, 3U + 4U + 2U + 1U) << "down to the zone, four attempts, the lookup, the server that it found";
}

TEST(Resolution, ServersAreFoundInTheirFamily) {
  const std::set<std::string> all = {kRoot, kTest, kBank, kEvil};
  for (const std::set<std::string> &six : {all, {kTest}, {kBank, kEvil}}) {
    Tree tree(5, six);
    if (six == all) tree.world.routeless = {dns::Family::ipv4};
    EXPECT_TRUE(is_truth(tree.run("one.bank.test")));
    EXPECT_EQ(tree.packets, 3U);
    EXPECT_TRUE(is_truth(tree.run("two.bank.test")));
    EXPECT_EQ(tree.packets, 1U) << "the delegation is cached with its addresses";
    // A server without glue, whose name has an IPv6 address alone.
    tree.evil = [](Reply *reply, const std::string &server) {
      if (reply->name == "ns.other.evil.test")
        reply->type == DNS_T_AAAA ? reply->a6(reply->name, "2001:db8::68") : reply->no_data("evil.test");
      else if (server == kEvil)
        reply->ns("sub.evil.test", "ns.other.evil.test");
    };
    EXPECT_EQ(tree.run("x.sub.evil.test").addresses, kLied);
    EXPECT_EQ(tree.packets, 2U + 2U + 1U) << "down from a cached zone, a lookup in each family, the server found";
    EXPECT_EQ(tree.run("y.sub.evil.test").addresses, kLied);
    EXPECT_EQ(tree.packets, 1U);
    EXPECT_EQ(tree.world.refused, 0U);
  }
}

// Servers of sub.evil.test in one family, on a host without a route to the other.
TEST(Resolution, AFamilyWithoutARouteCostsNothing) {
  constexpr const char *kOther = "ns.other.evil.test";
  std::vector<dns_type> looked_up;
  std::function<void(Reply *)> refer;
  const auto evil = [&](Reply *reply, const std::string &server) {
    if (reply->name.ends_with("other.evil.test")) {
      looked_up.push_back(reply->type);
      if (reply->type == DNS_T_A && reply->name.starts_with("six"))
        reply->no_data("evil.test");
      else
        reply->type == DNS_T_AAAA ? reply->a6(reply->name, "2001:db8::68") : reply->a(reply->name, {192, 0, 2, 68});
    } else if (server == kEvil) {
      refer(reply);
    } else if (server == "192.0.2.67") {
      reply->code(DNS_R_SERVFAIL);
    }
  };
  const auto expect = [&](dns::Family lacking, dns_status status, const std::vector<dns_type> &lookups) {
    Tree tree(
        6, lacking == dns::Family::ipv4 ? std::set<std::string>{kRoot, kTest, kBank, kEvil} : std::set<std::string>{});
    tree.world.routeless = {lacking};
    tree.evil = evil;
    looked_up.clear();
    const int64_t start = tree.world.now_us;
    for (const char *name : {"x.sub.evil.test", "y.sub.evil.test"})
      EXPECT_EQ(tree.run(name).status, status);
    EXPECT_LE(tree.world.now_us - start, 20 * tree.world.weather.delay_us) << "nothing is waited for";
    EXPECT_EQ(looked_up, lookups);
  };
  // The address that can be reached has no glue, or is looked up at once in the family that can.
  refer = [](Reply *reply) { reply->ns("sub.evil.test", kOther).glue(kOther, "2001:db8::68"); };
  expect(dns::Family::ipv6, DNS_E_NOERROR, {DNS_T_A});
  refer = [](Reply *reply) {
    reply->ns("sub.evil.test", "a.sub.evil.test").ns("sub.evil.test", kOther).glue("a.sub.evil.test", "192.0.2.66");
  };
  expect(dns::Family::ipv4, DNS_E_NOERROR, {DNS_T_AAAA});
  refer = [](Reply *reply) { reply->ns("sub.evil.test", kOther).glue(kOther, "192.0.2.68"); };
  expect(dns::Family::ipv4, DNS_E_NOERROR, {DNS_T_AAAA});
  // No server can be reached, or the one that can be says that it fails.
  refer = [](Reply *reply) { reply->ns("sub.evil.test", "a.sub.evil.test").glue("a.sub.evil.test", "2001:db8::67"); };
  expect(dns::Family::ipv6, DNS_E_TEMPFAIL, {});
  refer = [](Reply *reply) {
    reply->ns("sub.evil.test", "a.sub.evil.test").glue("a.sub.evil.test", "2001:db8::67");
    reply->glue("a.sub.evil.test", "192.0.2.67");
  };
  expect(dns::Family::ipv6, DNS_E_SERVFAIL, {});
  refer = [](Reply *reply) {
    reply->ns("sub.evil.test", "a.sub.evil.test").ns("sub.evil.test", "six.other.evil.test");
    reply->glue("a.sub.evil.test", "192.0.2.67");
  };
  expect(dns::Family::ipv6, DNS_E_SERVFAIL, {DNS_T_A, DNS_T_AAAA});
  // However many addresses there are, each family has its places.
  refer = [](Reply *reply) {
    const auto each = [](const auto &use) {
      for (int i = 10; i < 23; ++i)
        use(std::to_string(i));
    };
    each([=](const std::string &i) { reply->ns("sub.evil.test", i + ".sub.evil.test"); });
    for (const char *last : {"::1", "::2"})
      each([=](const std::string &i) { reply->glue(i + ".sub.evil.test", "2001:db8:1:" + i + last); });
    each([=](const std::string &i) { reply->glue(i + ".sub.evil.test", "192.0.2.68"); });
  };
  expect(dns::Family::ipv6, DNS_E_NOERROR, {});
  // Servers whose IPv4 addresses are of no use are not looked up in a family that is not lacking either.
  refer = [](Reply *reply) {
    reply->ns("sub.evil.test", "a.other.evil.test").ns("sub.evil.test", "b.other.evil.test");
  };
  expect(dns::Family::none, DNS_E_NOERROR, {DNS_T_A});
}

TEST(Resolution, WhatWasJustAnsweredIsAnsweredAgainWithoutCaches) {
  Tree tree(4);
  for (const unsigned use : {DNS_CU_ANS, DNS_CU_REF})
    ASSERT_EQ(dns_set_cache(tree.world.ctx, use, nullptr), DNS_E_NOERROR);
  tree.evil = refer_to_silence_or_bank;
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(tree.run("x.sub.evil.test").addresses, kLied);
}

TEST(Resolution, NoZoneLeadsIntoThisHost) {
  struct Row {
    const char *place, *own;
    bool opens;  // a context with its own server there follows
  };
  for (const auto &[place, own, opens] :
       {Row{"127.0.0.1", "127.0.0.9", true}, Row{"169.254.7.7", "169.254.8.8", true}, Row{"::1", "::1", true},
        Row{"0.0.0.0", "127.0.0.9", false}, Row{"224.0.0.251", "127.0.0.9", false}, Row{"::1", "127.0.0.9", true},
        Row{"127.0.0.1", "::1", true}, Row{"169.254.7.7", "fe80::1%1", false}, Row{"fe80::1", "fe80::2%1", false},
        Row{"::", "::1", false}, Row{"ff02::fb", "::1", false}, Row{"::127.0.0.1", "::1", false},
        Row{"::ffff:127.0.0.1", "127.0.0.9", false}}) {
    SCOPED_TRACE(std::string(place) + " " + own);
    Tree tree(4);
    tree.evil = [place = place](Reply *reply, const std::string &server) {
      if (server == kEvil) reply->ns("sub.evil.test", "ns.evil.test").glue("ns.evil.test", place);
    };
    EXPECT_TRUE(tree.run("x.sub.evil.test").addresses.empty());
    EXPECT_EQ(tree.world.asked[place], 0U);
    tree.world.add_server(own, sim::Temper::good);
    EXPECT_EQ(tree.run("y.sub.evil.test").addresses, opens ? kLied : std::vector<in_addr_t>{});
    EXPECT_EQ(tree.world.asked[place], opens ? 1U : 0U);
  }
}

TEST(Resolution, OfAZonesServersTheOneThatAnswersIsAsked) {
  for (uint64_t seed = 1; seed <= 8; ++seed) {
    Tree tree(seed);
    tree.evil = [](Reply *reply, const std::string &server) {
      if (server == "192.0.2.67") reply->code(0x0F);
      if (server == kEvil)
        reply->ns("sub.evil.test", "a.sub.evil.test")
            .ns("sub.evil.test", "b.sub.evil.test")
            .glue("a.sub.evil.test", "192.0.2.67")
            .glue("b.sub.evil.test", "192.0.2.68");
    };
    const int64_t start = tree.world.now_us;
    for (int i = 0; i < 100; ++i)
      EXPECT_EQ(tree.run(std::to_string(i) + ".sub.evil.test").addresses, kLied);
    EXPECT_LE(tree.world.asked["192.0.2.67"], 1U);
    EXPECT_LE(tree.world.now_us - start, dns::Options{}.timeout_us);
  }
}

// A broken answer at the end of a CNAME chain, and then a good one of the next server: no record of the first remains.
TEST(Resolution, ABrokenEndOfACnameChainLeavesNoRecords) {
  for (const uint64_t seed : {5U, 6U, 7U, 8U}) {  // the servers are asked in random order
    Tree tree(seed);
    tree.evil = [](Reply *reply, const std::string &server) {
      if (server == kEvil && reply->name == "x.evil.test") reply->cname(reply->name, "y.far.evil.test");
      if (server == kEvil && reply->under("far.evil.test"))
        reply->ns("far.evil.test", "ns.evil.test")
            .ns("far.evil.test", "ns2.evil.test")
            .glue("ns.evil.test", "192.0.2.67")
            .glue("ns2.evil.test", "192.0.2.68");
      if (server == "192.0.2.67") reply->a(reply->name, kLie).a(reply->name, {1, 2, 3});
    };
    const Query &asked = tree.run("x.evil.test");
    EXPECT_EQ(asked.status, DNS_E_NOERROR);
    EXPECT_EQ(asked.addresses, kLied);
  }
}

TEST(Resolution, RefersToNowhereWithinBounds) {
  const unsigned packets_max = dns::Options{}.maxloop + 1;
  std::string deep = "evil.test";
  for (int i = 0; i < 110; ++i)
    deep = "x." + deep;
  const std::map<std::string, std::function<void(Reply *, const std::string &)>> tricks = {
      {"sideways",
       [](Reply *r, const std::string &) { r->ns("bank.test", "ns.bank.test").glue("ns.bank.test", kEvil); }},
      {"upwards", [](Reply *r, const std::string &) { r->ns("test", "ns.evil.test").glue("ns.evil.test", kEvil); }},
      {"to the root", [](Reply *r, const std::string &) { r->ns(".", "ns.evil.test").glue("ns.evil.test", kEvil); }},
      {"itself", [](Reply *r, const std::string &) { r->ns("evil.test", "ns.evil.test").glue("ns.evil.test", kEvil); }},
      {"downwards",
       [](Reply *r, const std::string &) {
         static unsigned labels = 2;
         size_t at = r->name.size();
         ++labels;
         for (unsigned i = 0; i < labels && at != std::string::npos && at > 0; ++i)
           at = r->name.rfind('.', at - 1);
         const std::string zone = at == std::string::npos ? r->name : r->name.substr(at + 1);
         r->ns(zone, "ns." + zone).glue("ns." + zone, kEvil);
       }},
      {"a thousand",
       [](Reply *r, const std::string &) {
         static unsigned n = 0;
         for (int i = 0; i < 1000; ++i)
           r->ns(r->name, std::to_string(n++) + ".n.evil.test");
       }},
      {"in a circle",
       [](Reply *r, const std::string &) {
         if (r->under("a.evil.test"))
           r->ns("a.evil.test", "ns.b.evil.test");
         else
           r->ns("b.evil.test", "ns.a.evil.test").ns(r->name, "ns.a.evil.test");
       }},
      {"CNAMEs", [](Reply *r, const std::string &) { r->cname(r->name, "x" + r->name); }},
      {"a CNAME loop",
       [](Reply *r, const std::string &s) {
         const bool here = s == kEvil && r->name.starts_with("a");
         if (s == kEvil && r->under("sub.evil.test"))
           r->ns("sub.evil.test", "ns.evil.test").glue("ns.evil.test", "192.0.2.67");
         else
           r->cname(r->name, here ? "b.sub.evil.test" : "a.evil.test");
       }},
  };
  for (const auto &[trick, evil] : tricks) {
    SCOPED_TRACE(trick);
    Tree tree(6);
    tree.evil = evil;
    const Query &asked = tree.run(trick == "downwards" ? deep : "a.evil.test");
    EXPECT_EQ(asked.status, trick.find("CNAME") != std::string::npos ? DNS_E_CNLOOP : DNS_E_PROTOCOL);
    EXPECT_LE(tree.packets, packets_max);
    tree.run("b.evil.test");
    EXPECT_TRUE(is_truth(tree.run("one.bank.test")));
  }
}

// slander adds false records of bank.test that a server of evil.test can send: in answers, referrals and glue.
void slander(World *world, Reply *reply) {
  const std::string victim = "listed-" + std::to_string(world->random(9)) + ".bank.test";
  const std::string below = "sub" + std::to_string(world->random(3)) + ".evil.test";
  switch (world->random(10)) {
    case 0:
      reply->cname(reply->name, victim).a(victim, kLie);
      break;
    case 1:
      reply->a(victim, kLie).a(reply->name, kLie);
      break;
    case 2:
      reply->ns("bank.test", "ns.evil.test").glue("ns.evil.test", kEvil);
      break;
    case 3:
      reply->ns(reply->under(below) ? below : reply->name, "ns.bank.test").glue("ns.bank.test", kEvil);
      break;
    case 4:
      reply->ns(reply->name, "ns.evil.test").ns("bank.test", "ns.evil.test").glue("ns.evil.test", kEvil);
      break;
    case 5:
      reply->a(reply->name, kLie).ns("bank.test", "ns.evil.test").glue("ns.bank.test", kEvil);
      break;
    case 6:
      reply->cname(reply->name, "listed-1." + below).cname("listed-1." + below, victim);
      break;
    case 7:
      reply->code(world->chance(50) ? DNS_R_SERVFAIL : DNS_R_NXDOMAIN);
      break;
    case 8:
      for (int i = 0; i < 60; ++i)
        reply->ns(reply->name, "n" + std::to_string(world->random(100)) + (i % 2 == 0 ? ".evil.test" : ".bank.test"));
      break;
    default:
      break;
  }
}

// storm resolves names of both zones in bad weather, while queries are cancelled and the context is closed. An answer
// about bank.test is always the truth, or none.
void storm(uint64_t seed) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  Tree tree(seed);
  World &world = tree.world;
  world.worsen(0);
  tree.evil = [&world](Reply *reply, const std::string &) { slander(&world, reply); };
  for (const char *server : {kTest, kBank, kEvil})
    if (world.chance(50)) tree.six.insert(server);
  std::set<const Query *> cancelled;
  bool closed = false;
  for (uint64_t left = 1 + world.random(40); left > 0; --left) {
    const std::string kind = "listed-" + std::to_string(world.random(9));
    tree.ask(kind + (world.chance(30) ? ".bank.test" : ".sub" + std::to_string(world.random(3)) + ".evil.test"));
    for (uint64_t turns = world.random(8); turns > 0; --turns)
      world.turn();
    const Query *victim = tree.asked[world.random(tree.asked.size())].get();
    if (world.chance(20) && victim->calls == 0 && cancelled.insert(victim).second)
      dns_cancel(world.ctx, victim->handle);
  }
  if (world.chance(20)) {
    dns_close(world.ctx);
    closed = true;
    EXPECT_EQ(world.sockets_open, 0U);
    ASSERT_EQ(dns_open(world.ctx), DNS_E_NOERROR);
  }
  ASSERT_TRUE(world.run()) << "the engine never came to rest";
  EXPECT_EQ(dns_active(world.ctx), 0);
  world.weather = {};
  for (int i = 0; i < 9; ++i)
    EXPECT_TRUE(is_truth(tree.run("listed-" + std::to_string(i) + ".bank.test"))) << "a cache believes a lie";
  for (const auto &asked : tree.asked) {
    const bool ended = cancelled.count(asked.get()) == 0;
    EXPECT_TRUE(asked->calls == (ended ? 1 : 0) || (closed && asked->calls == 0)) << asked->text();
    const bool of_bank = asked->canonical.ends_with("bank.test");
    EXPECT_TRUE(!of_bank || is_truth(*asked)) << asked->text();
  }
}

TEST(Resolution, OutOfBailiwickRecordsAreNotBelieved) {
  for (uint64_t seed = 1; seed <= 2000 && !testing::Test::HasFailure(); ++seed)
    storm(seed);
}

}  // namespace
