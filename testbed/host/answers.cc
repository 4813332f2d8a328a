#include "answers.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

namespace testbed {
namespace {

std::string dotted(int family, const void *address) {
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(family, address, text, sizeof text);
  return text;
}

std::string number(int value) {
  return std::to_string(value) + " ";
}

// One text for each record of the block.
std::vector<std::string> records(const KAVO_ANSWER &answer) {
  const KAVO_RR &rr = answer.rr;
  std::vector<std::string> all;
  const auto each = [&all, &rr](auto &&text_of) {
    for (int i = 0; i < rr.rr_null->dnsn_nrr; ++i)
      all.push_back(text_of(i));
  };
  switch (answer.type) {
    case KAVOT_DNS_A:
    case KAVOT_BL_IP:
    case KAVOT_BL_DOM:
      each([&rr](int i) { return dotted(AF_INET, &rr.rr_a->dnsa4_addr[i]); });
      break;
    case KAVOT_DNS_AAAA:
    case KAVOT_BL_A6:
      each([&rr](int i) { return dotted(AF_INET6, &rr.rr_a6->dnsa6_addr[i]); });
      break;
    case KAVOT_DNS_TXT:
    case KAVOT_DNS_ETXT:
    case KAVOT_BL_IP_TXT:
    case KAVOT_BL_DOM_TXT:
      each([&rr](int i) {
        const dns_txt &txt = rr.rr_txt->dnstxt_txt[i];
        return std::string(txt.txt, static_cast<size_t>(txt.len));
      });
      break;
    case KAVOT_DNS_MX:
    case KAVOT_BL_MX:
      each([&rr](int i) { return number(rr.rr_mx->dnsmx_mx[i].priority) + rr.rr_mx->dnsmx_mx[i].name; });
      break;
    case KAVOT_DNS_SRV:
    case KAVOT_BL_SRV:
      each([&rr](int i) {
        const dns_srv &srv = rr.rr_srv->dnssrv_srv[i];
        return number(srv.priority) + number(srv.weight) + number(srv.port) + srv.name;
      });
      break;
    case KAVOT_DNS_PTR:
    case KAVOT_DNS_CNAME:
    case KAVOT_DNS_NS:
    case KAVOT_BL_CNAME:
    case KAVOT_BL_NS:
      each([&rr](int i) { return std::string(rr.rr_ptr->dnsptr_ptr[i]); });
      break;
    default:
      all.push_back("packet of " + std::to_string(rr.rr_pkt->dnspkt_psize));
  }
  return all;
}

}  // namespace

Answers::~Answers() {
  for (int i = 0; i < length_; ++i)
    kavo_rr_free(&data_[i].rr);
  std::free(data_);
}

KAVO_ERR Answers::copy(KAVO kavo, KAVO_QUERY_NODE node) {
  const KAVO_ERR result = kavo_copy_answer(kavo, node, &data_, length_, &written_, 1);
  if (result == KAVOE_OK) length_ = std::max(length_, written_);
  return result;
}

KAVO_ERR Answers::query(KAVO kavo, KAVO_TYPE type, std::string_view subject, unsigned flags, unsigned timeout,
                        KAVO_WAIT_LEVEL level) {
  written_ = 0;
  const KAVO_ERR result = kavo_query(kavo, type, subject.data(), static_cast<int>(subject.size()), &data_, length_,
                                     &written_, timeout, level, flags);
  if (result == KAVOE_OK) length_ = std::max(length_, written_);
  return result;
}

Texts Answers::ask(KAVO kavo, KAVO_TYPE type, std::string_view subject, unsigned flags) {
  EXPECT_EQ(query(kavo, type, subject, flags), KAVOE_OK) << subject;
  return texts();
}

Texts Answers::texts() const {
  std::vector<std::string> all;
  for (int i = 0; i < written_; ++i)
    all.push_back(render(data_[i]));
  return all;
}

std::string render(const KAVO_ANSWER &answer) {
  if (answer.err_code == KAVOE_NXDOM) return "NXDOM";
  if (answer.err_code == KAVOE_NODATA) return "NODATA";
  if (answer.err_code != KAVOE_OK) return "error " + std::to_string(answer.err_code);
  if (answer.actual_size == 0 || answer.rr.rr_mem == nullptr) return "nothing";
  std::vector<std::string> all = records(answer);
  std::sort(all.begin(), all.end());
  std::string text;
  for (const std::string &record : all)
    text += (text.empty() ? "" : ",") + record;
  return text;
}

Texts in_place(KAVO kavo, KAVO_QUERY_NODE node, std::vector<KAVO_ANSWER> *all) {
  std::vector<std::string> texts;
  KAVO_ANSWER_ITERATOR iterator = kavo_alloc_answer_iterator();
  if (kavo_set_answer_iterator(kavo, node, iterator) == KAVOE_OK) {
    while (const KAVO_ANSWER *answer = kavo_get_answer(kavo, iterator)) {
      texts.push_back(render(*answer));
      if (all != nullptr) all->push_back(*answer);
    }
  }
  kavo_free_answer_iterator(iterator);
  return texts;
}

}  // namespace testbed
