// outcome_test.cc - how the engine takes answers that are neither records nor plain negative answers, in a simulated
// network: errors, negative answers of the wrong zone or without authority and their caching, packets that are no
// answer, and the answers of strangers.
#include <cache_entry.h>
#include <gtest/gtest.h>
#include <packet.h>
#include <queries.h>

#include <algorithm>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace sim;

using testbed::kAa;
using testbed::kAnswersAt;
using testbed::kAuthorityAt;
using testbed::kFlagsAt;
using testbed::kQuestionsAt;
using testbed::kRcodeAt;
using testbed::Packet;
using testbed::question_end;

// without_soa is an honest negative answer without its SOA record.
Bytes without_soa(const Bytes &query, bool authoritative) {
  Bytes answer = answer_to(query, Temper::good);
  answer.resize(question_end(answer));
  answer[kAuthorityAt] = 0;
  if (!authoritative) answer[kFlagsAt] &= static_cast<uint8_t>(~kAa);
  return answer;
}

class Outcome : public Engine {
 protected:
  Outcome() {
    EXPECT_EQ(dns_set_cache(world.ctx, DNS_CU_ANS, dns_cache_cacher(cache_.get())), DNS_E_NOERROR);
    dns_set_dbgfn(
        world.ctx,
        [](dns_ctx *, dns_query *, int code, void *event, void *outcome) {
          if ((code & DNS_D_SYS) != 0) return;
          auto *self = static_cast<Outcome *>(outcome);
          self->codes.push_back(code);
          self->told_rtt_ms = static_cast<const dns_dpkt *>(event)->dnsd_rtt;
        },
        this);
  }
  // outcome resolves a name and returns the status. `packets` counts the queries sent, `codes` holds the debug events,
  // and `told_rtt_ms` the round trip of the last one.
  dns_status outcome(const std::string &name, const std::vector<std::string> &servers = {}, unsigned flags = 0) {
    world.packets_sent = 0;
    codes.clear();
    const Query &asked = run(name, servers, flags);
    EXPECT_EQ(asked.calls, 1);
    packets = world.packets_sent;
    return asked.status;
  }
  unsigned packets = 0;
  std::vector<int> codes;
  int told_rtt_ms = 0;
  testbed::Cache cache_ = testbed::cache_of();
};

TEST_F(Outcome, EveryErrorOfAServerHasItsStatus) {
  uint8_t rcode = 0;
  world.add_server("192.0.2.1", Temper::good);
  world.script = [&rcode](const Bytes &query, const std::string &) {
    Bytes answer = answer_to(query, Temper::refuses);
    answer[kRcodeAt] = rcode;
    return answer;
  };
  const std::pair<int, dns_status> rows[] = {{DNS_R_FORMERR, DNS_E_FORMERR},
                                             {DNS_R_SERVFAIL, DNS_E_SERVFAIL},
                                             {DNS_R_NOTIMPL, DNS_E_NOTIMPL},
                                             {DNS_R_REFUSED, DNS_E_REFUSED},
                                             {6, DNS_E_FAIL},
                                             {15, DNS_E_FAIL}};
  for (const auto &[code, status] : rows) {
    rcode = static_cast<uint8_t>(code);
    EXPECT_EQ(outcome("listed-" + std::to_string(code) + ".list.test"), status);
    EXPECT_EQ(packets, code == DNS_R_FORMERR || code == DNS_R_NOTIMPL ? 2U : 1U) << "once more without EDNS0";
  }
}

TEST_F(Outcome, ANegativeAnswerOfAnotherZoneEndsTheQueryAndIsNotKept) {
  bool stray = true;
  world.add_server("192.0.2.1", Temper::good);
  world.script = [&stray](const Bytes &query, const std::string &) {
    Bytes answer = answer_to(query, Temper::good);
    static constexpr uint8_t kOther[] = {5, 'o', 't', 'h', 'e', 'r'};
    if (stray) answer.insert(answer.begin() + static_cast<long>(question_end(answer)), kOther, std::end(kOther));
    return answer;
  };
  for (const auto &[name, status] :
       {std::pair{"gone-1.list.test", DNS_E_NXDOMAIN}, {"empty-1.list.test", DNS_E_NODATA}}) {
    stray = true;
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(outcome(name), status);
      EXPECT_EQ(packets, 1U);
      EXPECT_EQ(codes.back(), DNS_D_PKT_INVSOA);
    }
    stray = false;
    for (const unsigned asked : {1U, 0U}) {
      EXPECT_EQ(outcome(name), status);
      EXPECT_EQ(packets, asked);
    }
  }
}

TEST_F(Outcome, ADirectServersNegativeAnswerNeedsAuthority) {
  bool authoritative = true;
  world.add_server("192.0.2.1", Temper::good);
  world.script = [&authoritative](const Bytes &query, const std::string &server) {
    return server == "192.0.2.9" ? without_soa(query, authoritative) : answer_to(query, Temper::good);
  };
  const std::vector<std::string> direct = {"192.0.2.9"};
  EXPECT_EQ(outcome("empty-1.list.test", direct, DNS_DCACHE), DNS_E_NODATA);
  EXPECT_EQ(packets, 1U);
  authoritative = false;
  EXPECT_EQ(outcome("empty-2.list.test", direct, DNS_DCACHE), DNS_E_NODATA);
  EXPECT_EQ(packets, 2U) << "the context's server is asked for what the other does not know";
  EXPECT_EQ(outcome("empty-3.list.test", direct), DNS_E_NODATA);
  EXPECT_EQ(packets, 1U) << "an ordinary query believes a resolver";
}

TEST_F(Outcome, AnAnswerForNoTimeIsKeptOnlyByACacheThatKeepsAll) {
  world.add_server("192.0.2.1", Temper::good);
  bool lasts = true;
  world.script = [&lasts](const Bytes &query, const std::string &) {
    Bytes answer = answer_to(query, Temper::good);
    if (std::exchange(lasts, false)) return answer;
    constexpr size_t kTtlAt = 6;  // in a record whose owner is a pointer
    std::fill_n(answer.begin() + static_cast<long>(question_end(answer) + kTtlAt), 4, uint8_t{0});
    return answer;
  };
  // Of two queries sent at once, the later answer removes the earlier one from the cache.
  for (const char *name : {"listed-1.list.test", "LISTED-1.list.test"})
    queries.ask(name);
  ASSERT_TRUE(world.run());
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(outcome("listed-1.list.test"), DNS_E_NOERROR);
    EXPECT_EQ(packets, 1U);
  }
  const uint32_t least = 1;
  ASSERT_EQ(dns_cacher_setopt(dns_cache_cacher(cache_.get()), DNS_CROPT_MINTTL, &least, sizeof least), 0);
  for (const unsigned asked : {1U, 0U}) {
    EXPECT_EQ(outcome("listed-1.list.test"), DNS_E_NOERROR);
    EXPECT_EQ(packets, asked);
  }
}

TEST_F(Outcome, ExtendedErrorsCount) {
  uint8_t high = 1;
  world.add_server("192.0.2.1", Temper::good);
  world.script = [&high](const Bytes &query, const std::string &) {
    Bytes answer = answer_to(query, Temper::good);
    if (query[11] == 0) return answer;
    const uint8_t opt[] = {0, 0, DNS_T_OPT, 4, 0, high, 0, 0, 0, 0, 0};
    answer.insert(answer.end(), std::begin(opt), std::end(opt));
    answer[11] = 1;
    return answer;
  };
  EXPECT_EQ(outcome("listed-1.list.test"), DNS_E_NOERROR);
  EXPECT_EQ(packets, 2U) << "without EDNS0, of which the server knows no version";
  world.now_us += dns::kNoEdnsUs;
  high = 2;
  EXPECT_EQ(outcome("listed-2.list.test"), DNS_E_FAIL);
  EXPECT_EQ(packets, 1U);
}

TEST_F(Outcome, ARoundTripCountsForTheServerThatAnsweredByUdp) {
  world.add_server("192.0.2.1", Temper::good);
  world.add_server("192.0.2.2", Temper::dead);
  const auto figures = [this](unsigned place) {
    const dns::Server *server = world.ctx->servers[place];
    return std::pair{server->used.load(), server->last_ms.load()};
  };
  using Figures = std::pair<uint64_t, int>;
  world.delays_us["192.0.2.1"] = 20'000;
  EXPECT_EQ(outcome("listed-1.list.test"), DNS_E_NOERROR);
  EXPECT_EQ(figures(0), Figures(1, 20));
  EXPECT_EQ(told_rtt_ms, 20);
  const dns::SocketAddress place = socket_of("192.0.2.1");
  int average = 0, check = 0;
  EXPECT_EQ(dns_get_serv_avgrtt(world.ctx, place.generic(), &average), DNS_E_NOERROR);
  EXPECT_EQ(dns_get_serv_last_check(world.ctx, place.generic(), &check), DNS_E_NOERROR);
  EXPECT_TRUE(average == 20 && check == world.now_us / dns::kUsPerSecond) << average << " " << check;
  world.now_us += 1000;
  world.delays_us["192.0.2.1"] = 90'000;  // while the attempt at the second server waits
  EXPECT_EQ(outcome("listed-2.list.test"), DNS_E_NOERROR);
  EXPECT_EQ(packets, 2U);
  EXPECT_EQ(figures(0), Figures(2, 90));
  EXPECT_EQ(figures(1), Figures(0, 0));
  EXPECT_LT(told_rtt_ms, 40) << "since the last attempt";
  world.delays_us["192.0.2.1"] = 300'000;  // after the second attempt
  EXPECT_EQ(outcome("listed-3.list.test", {"192.0.2.1"}), DNS_E_NOERROR);
  EXPECT_EQ(packets, 2U);
  EXPECT_EQ(figures(0), Figures(3, 300));
  world.set_temper("192.0.2.1", Temper::truncates);
  world.delays_us["192.0.2.1"] = 70'000;  // by UDP
  EXPECT_EQ(outcome("listed-4.list.test"), DNS_E_NOERROR);
  EXPECT_EQ(figures(0), Figures(5, 70));
}

TEST_F(Outcome, ANegativeAnswerWithoutSoaIsKeptForTheDefaultTimeAlone) {
  bool has_soa = false;
  world.add_server("192.0.2.1", Temper::good);
  world.script = [&has_soa](const Bytes &query, const std::string &) {
    if (query[DNS_HSIZE] == 5)
      return Packet::reply(query).add(testbed::kQuestionPointer, DNS_T_CNAME, testbed::dn("empty-3.list.test")).bytes;
    return has_soa ? answer_to(query, Temper::good) : without_soa(query, true);
  };
  const auto expect_asked = [this](const char *name, const std::vector<unsigned> &times) {
    for (const unsigned asked : times) {
      EXPECT_TRUE(outcome(name) == (name[0] == 'g' ? DNS_E_NXDOMAIN : DNS_E_NODATA) && packets == asked) << name;
      world.now_us += 500 * dns::kUsPerSecond;
    }
  };
  for (const uint32_t kept_s : {0U, 1000U}) {
    ASSERT_EQ(dns_cacher_setopt(dns_cache_cacher(cache_.get()), DNS_CROPT_DEFTTL, &kept_s, sizeof kept_s), 0);
    for (const char *name : {"empty-1.list.test", "gone-1.list.test"})
      expect_asked(name, {1, kept_s == 0 ? 1U : 0U});
    expect_asked("cname.list.test", {2, kept_s == 0 ? 2U : 0U});
  }
  has_soa = true;
  expect_asked("empty-2.list.test", {1, 1});
}

TEST_F(Outcome, RecordsOfANameThatDoesNotExistAreNotBelieved) {
  world.add_servers({"192.0.2.1", "192.0.2.2"});
  world.script = [](const Bytes &query, const std::string &server) {
    Bytes answer = answer_to(query, Temper::good);
    if (server == "192.0.2.1") answer[kRcodeAt] = DNS_R_NXDOMAIN;
    return answer;
  };
  EXPECT_EQ(outcome("listed-1.list.test"), DNS_E_NOERROR);
  EXPECT_EQ(packets, 2U);
  EXPECT_EQ(std::ranges::count(codes, DNS_D_PKT_RPINV), 1);
}

TEST_F(Outcome, ACookieThatIsRefusedOverTcpTooIsAnError) {
  world.add_server("192.0.2.1", Temper::bakes_cookies);
  set(&world, DNS_OPT_FLAGS, DNS_COOKIES);
  world.script = [](Bytes query, const std::string &) {
    query[query.size() - 16] = 0;  // where the server's cookie begins once the engine has one
    return answer_to(query, Temper::bakes_cookies);
  };
  EXPECT_EQ(outcome("listed-1.list.test"), DNS_E_FAIL);
  EXPECT_EQ(packets, 2U);
  EXPECT_EQ(std::ranges::count(codes, DNS_D_PKT_REQ), 3) << "the last over TCP";
}

TEST_F(Engine, WhatDoesNotRepeatTheOneQuestionIsDropped) {
  world.add_server("192.0.2.1", Temper::dead);
  Query &asked = queries.ask("listed-1.list.test");
  send();
  const Bytes right = answer_to(world.last_query(), Temper::good);
  const auto changed = [&right](size_t size, const std::vector<std::pair<size_t, int>> &bytes) {
    Bytes packet = right;
    packet.resize(size);
    for (const auto &[at, byte] : bytes)
      packet[at] = static_cast<uint8_t>(byte);
    return packet;
  };
  const size_t whole = right.size(), class_at = DNS_HSIZE + dns_dnlen(asked.dn.data()) + 3;
  const Bytes rows[] = {changed(whole, {{kQuestionsAt, 2}}),
                        changed(DNS_HSIZE, {{kQuestionsAt, 0}, {kAnswersAt, 0}}),
                        changed(DNS_HSIZE, {{kQuestionsAt, 0}, {kAnswersAt, 0}, {kRcodeAt, DNS_R_SERVFAIL}}),
                        changed(DNS_HSIZE + 1, {{kQuestionsAt, 0}, {kAnswersAt, 0}, {kRcodeAt, DNS_R_FORMERR}}),
                        changed(DNS_HSIZE, {{kAnswersAt, 0}, {kRcodeAt, DNS_R_FORMERR}}),
                        changed(DNS_HSIZE, {{kQuestionsAt, 2}, {kAnswersAt, 0}, {kRcodeAt, DNS_R_FORMERR}}),
                        changed(whole, {{class_at, 3}})};
  for (const Bytes &row : rows) {
    SCOPED_TRACE(&row - rows);
    hear("192.0.2.1", row);
    send();
    EXPECT_TRUE(asked.calls == 0 && world.packets_sent == 1);
  }
  hear("192.0.2.1", changed(dns::kAnswerRoom, {}));
  expect_truth(asked);
}

TEST_F(Engine, AStrangersAnswerCountsForTheServerThatWasAsked) {
  world.add_servers({"192.0.2.1", "192.0.2.2", "192.0.2.3"}, Temper::dead);
  ASSERT_GT(dns_add_expserv_s(world.ctx, socket_of("192.0.2.7", 0).generic()), 0);
  Query &asked = queries.ask("listed-1.list.test");
  for (const Temper temper : {Temper::fails, Temper::truncates, Temper::good}) {
    EXPECT_EQ(asked.calls, 0);
    send();
    hear("192.0.2.7", answer_to(world.last_query(), temper), 5353);
  }
  expect_truth(asked);
  for (const dns::Server *server : std::span(world.ctx->servers).first(3))
    EXPECT_TRUE(server->sent == 1 && server->used == 1 && server->letters_kept > 0 && server->srtt_us == 0)
        << "whose round trip is not known";
}

}  // namespace
