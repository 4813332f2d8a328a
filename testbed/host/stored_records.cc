#include "stored_records.h"

#include <gtest/gtest.h>

#include "answers.h"

namespace testbed {

using namespace std::string_literals;

std::string u32(uint32_t value) {
  return {reinterpret_cast<const char *>(&value), sizeof value};
}
std::string name(const std::string &text) {
  return u32(static_cast<uint32_t>(text.size()) + 1) + text + '\0';
}
std::string text(const std::string &bytes) {
  return u32(static_cast<uint32_t>(bytes.size())) + bytes;
}

Stored stored(KAVO_TYPE type, uint32_t size, uint32_t count, const std::string &entries, const std::string &shows) {
  constexpr uint32_t kHeadAndNames = 40 + 9 + 11;
  return {type, u32(kHeadAndNames + size) + u32(count) + u32(kTtl) + entries + name("c.example") + name("q.example"),
          shows};
}

std::vector<Stored> every_layout() {
  const std::string two_names = name("a.example") + name("b.example");
  const std::string one = u32(10) + name("a.example"), two = u32(20) + name("b.example");
  std::vector<Stored> all = {
      {KAVOT_DNS_A,
       "\x48\0\0\0\x02\0\0\0\x2c\x01\0\0\x7f\0\0\x02\xc0\0\x02\x01\x0a\0\0\0c.example\0\x0a\0\0\0q.example\0"s,
       "127.0.0.2,192.0.2.1"},
      {KAVOT_DNS_MX,
       "\x56\0\0\0\x01\0\0\0\x2c\x01\0\0\x0a\0\0\0\x0a\0\0\0m.example\0\x0a\0\0\0c.example\0\x0a\0\0\0"
       "q.example\0"s,
       "10 m.example"},
      {KAVOT_PKT, "\x12\0\0\0packet"s, "packet of 6"}};
  for (const KAVO_TYPE type : {KAVOT_BL_IP, KAVOT_BL_DOM})
    all.push_back(stored(type, 8, 1, "\x7f\0\0\x04"s, "127.0.0.4"));
  for (const KAVO_TYPE type : {KAVOT_DNS_AAAA, KAVOT_BL_A6})
    all.push_back(stored(type, 16, 1, std::string(15, '\0') + '\1', "::1"));
  for (const KAVO_TYPE type : {KAVOT_DNS_TXT, KAVOT_BL_IP_TXT, KAVOT_BL_DOM_TXT, KAVOT_DNS_ETXT})
    all.push_back(stored(type, 48 + 12, 3, text("") + text("b\0c"s) + text("second"), "b\0c,second"s));
  all.push_back(stored(KAVOT_BL_MX, 32 + 20, 2, one + two, "10 a.example,20 b.example"));
  for (const KAVO_TYPE type : {KAVOT_DNS_SRV, KAVOT_BL_SRV}) {
    all.push_back(
        stored(type, 48 + 20, 2, u32(1) + u32(2) + one + u32(3) + u32(4) + two, "1 2 10 a.example,3 4 20 b.example"));
  }
  for (const KAVO_TYPE type : {KAVOT_DNS_PTR, KAVOT_DNS_CNAME, KAVOT_BL_CNAME, KAVOT_DNS_NS, KAVOT_BL_NS})
    all.push_back(stored(type, 16 + 20, 2, two_names, "a.example,b.example"));
  all.push_back(stored(KAVOT_DNS_A, 0, 0, "", ""));
  return all;
}

std::string shown(KAVO_TYPE type, const KAVO_RR &rr) {
  return render({type, KAVOE_OK, KAVOCC_UNKNOWN, kavo_rr_get_size(&rr), 0, rr, 0});
}

Rr read(KAVO_TYPE type, const std::string &bytes) {
  Rr rr;
  EXPECT_EQ(kavo_rr_read(type, rr, reading(std::string_view(bytes)).get()), KAVOE_OK);
  return rr;
}

}  // namespace testbed
