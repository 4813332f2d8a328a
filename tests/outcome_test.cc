// outcome_test.cc - what the engine makes of answers in a simulated network that are neither records nor plain denials:
// errors, denials by the wrong zone or without authority, what goes into the cache of them and what does not.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/questions.h"

namespace {

using namespace sim;

constexpr size_t kRcodeAt = 3, kFlagsAt = 2, kAuthorityAt = 9;

size_t question_end(const sim::Bytes &packet) {
  return static_cast<size_t>(std::find(packet.begin() + DNS_HSIZE, packet.end(), 0) - packet.begin()) + 5;
}

// without_soa denies as an honest server does, but says not by which zone.
sim::Bytes without_soa(const sim::Bytes &question, bool authoritative) {
  sim::Bytes answer = answer_to(question, Temper::good);
  answer.resize(question_end(answer));
  answer[kAuthorityAt] = 0;
  answer[kFlagsAt] = static_cast<uint8_t>((answer[kFlagsAt] & ~4) | (authoritative ? 4 : 0));
  return answer;
}

class Outcome : public Engine {
 protected:
  Outcome() {
    EXPECT_EQ(dns_set_cache(world.ctx, DNS_CU_ANS, dns_cache_cacher(cache_.get())), DNS_E_NOERROR);
    dns_set_dbgfn(
        world.ctx,
        [](dns_ctx *, dns_query *, int code, void *, void *told) {
          if ((code & DNS_D_SYS) == 0) static_cast<std::vector<int> *>(told)->push_back(code);
        },
        &codes);
  }
  // outcome asks and returns the status; `packets` is how many queries that took, `codes` what was told.
  dns_status outcome(const std::string &name, const std::vector<std::string> &servers = {}, unsigned flags = 0) {
    world.packets_sent = 0;
    codes.clear();
    const Asked &asked = questions.ask(name, servers, flags);
    EXPECT_TRUE(world.run());
    EXPECT_EQ(asked.calls, 1);
    packets = world.packets_sent;
    return asked.status;
  }
  unsigned packets = 0;
  std::vector<int> codes;
  std::unique_ptr<dns_cache, decltype(&dns_cache_destroy)> cache_{dns_cache_init(1 << 20), dns_cache_destroy};
};

TEST_F(Outcome, EveryErrorOfAServerHasItsStatus) {
  uint8_t rcode = 0;
  world.add_server("192.0.2.1", Temper::good);
  world.script = [&rcode](const sim::Bytes &question, const std::string &) {
    sim::Bytes answer = answer_to(question, Temper::refuses);
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

TEST_F(Outcome, ADenialByAnotherZoneEndsTheQuestionAndIsNotKept) {
  bool stray = true;
  world.add_server("192.0.2.1", Temper::good);
  world.script = [&stray](const sim::Bytes &question, const std::string &) {
    sim::Bytes answer = answer_to(question, Temper::good);
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

TEST_F(Outcome, AServerThatIsAskedForItsCacheDeniesWithAuthorityOnly) {
  bool authoritative = true;
  world.add_server("192.0.2.1", Temper::good);
  world.script = [&authoritative](const sim::Bytes &question, const std::string &server) {
    return server == "192.0.2.9" ? without_soa(question, authoritative) : answer_to(question, Temper::good);
  };
  const std::vector<std::string> direct = {"192.0.2.9"};
  EXPECT_EQ(outcome("empty-1.list.test", direct, DNS_DCACHE), DNS_E_NODATA);
  EXPECT_EQ(packets, 1U);
  authoritative = false;
  EXPECT_EQ(outcome("empty-2.list.test", direct, DNS_DCACHE), DNS_E_NODATA);
  EXPECT_EQ(packets, 2U) << "what it does not know the context's server is asked for";
  EXPECT_EQ(outcome("empty-3.list.test", direct), DNS_E_NODATA);
  EXPECT_EQ(packets, 1U) << "an ordinary question believes a resolver";
}

TEST_F(Outcome, AnAnswerForNoTimeIsKeptOnlyByACacheThatKeepsAll) {
  world.add_server("192.0.2.1", Temper::good);
  world.script = [](const sim::Bytes &question, const std::string &) {
    sim::Bytes answer = answer_to(question, Temper::good);
    constexpr size_t kTtlAt = 6;  // in a record whose owner is a pointer
    std::fill_n(answer.begin() + static_cast<long>(question_end(answer) + kTtlAt), 4, uint8_t{0});
    return answer;
  };
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
  world.script = [&high](const sim::Bytes &question, const std::string &) {
    sim::Bytes answer = answer_to(question, Temper::good);
    if (question[11] == 0) return answer;
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

}  // namespace
