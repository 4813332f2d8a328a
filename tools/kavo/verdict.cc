#include "verdict.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>

#include "question.h"

namespace tool {
namespace {

constexpr uint32_t kListNet = 127;
constexpr unsigned kNetShift = 24;
constexpr uint32_t kReserved = 0x7f000001;      // 127.0.0.1
constexpr uint32_t kCodeMisspelt = 0x7ffffffc;  // 127.255.255.252
constexpr uint32_t kCodeReserved = 0x7ffffffd;
constexpr uint32_t kCodeResolver = 0x7ffffffe;
constexpr uint32_t kCodeTooMany = 0x7fffffff;

std::string text_of(const in_addr &address) {
  std::array<char, INET_ADDRSTRLEN> text{};
  inet_ntop(AF_INET, &address, text.data(), text.size());
  return text.data();
}

// Why a return address is no listing; null for one that is.
const char *fault_of(const in_addr &address) {
  const uint32_t value = ntohl(address.s_addr);
  if (value >> kNetShift != kListNet) {
    return "is outside 127.0.0.0/8: the list is gone or a resolver rewrites its answers";
  }
  switch (value) {
    case kReserved:
      return "is never a listing: the list is misconfigured or shut down";
    case kCodeMisspelt:
      return "is an operator's code: the zone's name is misspelt";
    case kCodeReserved:
      return "is an operator's code: the list refuses to answer";
    case kCodeResolver:
      return "is an operator's code: the list does not answer questions through this resolver";
    case kCodeTooMany:
      return "is an operator's code: too many questions";
    default:
      return nullptr;
  }
}

void fail(const std::string &why, Verdict *verdict) {
  verdict->error = why;
  verdict->query_failed = true;
}

void judge_addresses(const Answer &answer, Verdict *verdict) {
  verdict->status = answer.addresses.empty() ? Status::not_listed : Status::listed;
  for (const in_addr &address : answer.addresses) {
    verdict->addresses.push_back(text_of(address));
    const char *fault = fault_of(address);
    if (fault == nullptr || verdict->status == Status::refused) continue;
    verdict->status = Status::refused;
    fail("refused or broken: " + text_of(address) + " " + fault, verdict);
  }
}

}  // namespace

const char *status_name(Status status) {
  switch (status) {
    case Status::not_listed:
      return "not-listed";
    case Status::listed:
      return "listed";
    case Status::refused:
      return "refused";
    case Status::failed:
      return "failed";
  }
  return "";
}

Verdict judge(const Answer &address, const Answer &reason) {
  Verdict verdict;
  const Answer &first = address.asked ? address : reason;
  verdict.query_time_ms = std::max(address.query_time_ms, reason.query_time_ms);
  verdict.from_cache = (!address.asked || address.from_cache) && (!reason.asked || reason.from_cache);
  verdict.reasons = reason.reasons;
  if (is_negative(first.error)) {
    verdict.status = Status::not_listed;
  } else if (first.error != KAVOE_OK) {
    fail(explain(first.error), &verdict);
  } else if (address.asked) {
    judge_addresses(address, &verdict);
  } else {
    verdict.status = verdict.reasons.empty() ? Status::not_listed : Status::listed;
  }
  const bool reason_failed = reason.asked && reason.error != KAVOE_OK && !is_negative(reason.error);
  if (reason_failed && verdict.error.empty()) fail("reason unknown: " + explain(reason.error), &verdict);
  return verdict;
}

Answer read_answer(const KAVO_ANSWER &answer) {
  Answer result;
  result.asked = true;
  result.error = answer.err_code;
  result.query_time_ms = answer.query_time;
  result.from_cache = answer.cache_code == KAVOCC_EXISTS;
  if (answer.err_code != KAVOE_OK || answer.actual_size == 0) return result;
  if (answer.type == KAVOT_BL_IP || answer.type == KAVOT_BL_DOM) {
    const dns_rr_a4 &block = *answer.rr.rr_a;
    result.addresses.assign(block.dnsa4_addr, block.dnsa4_addr + block.dnsa4_nrr);
  } else {
    const dns_rr_txt &block = *answer.rr.rr_txt;
    for (int i = 0; i < block.dnstxt_nrr; ++i) {
      result.reasons.emplace_back(block.dnstxt_txt[i].txt, static_cast<size_t>(block.dnstxt_txt[i].len));
    }
  }
  return result;
}

}  // namespace tool
