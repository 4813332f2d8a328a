// listserver.cc - the list server: a zones file up to the first zero byte, then queries, each after its length. An
// answer is a sound packet with the query's id that fits, unless the zones file wants a wrong one.
#include <responder.h>

#include <sstream>
#include <stdexcept>

#include "fuzz.h"

namespace {

using fuzz::check;

bool tells_the_truth(const listserver::Reply &reply) {
  return reply.faults == nullptr || (!reply.faults->wrong.has_value() && !reply.faults->swap_case.has_value());
}

void ask(listserver::Responder *responder, std::span<const uint8_t> bytes, bool tcp) {
  const fuzz::Exact packet(bytes);
  fuzz::Bytes answer(tcp ? size_t{DNS_MAXPACKET} : listserver::kUdpMax);
  const listserver::Reply reply = responder->answer(packet.span(), answer, tcp ? answer.size() : listserver::kUdpPlain);
  check(reply.size <= answer.size(), "an answer fits");
  if (reply.size == 0 || !tells_the_truth(reply)) return;
  check(bytes.size() >= DNS_HSIZE && answer[0] == bytes[0] && answer[1] == bytes[1], "an answer has its query's id");
  const fuzz::Exact exact(std::span<const uint8_t>(answer).first(reply.size));
  fuzz::expect_printable(fuzz::written([&](FILE *stream) {
    check(dns_printpkt(stream, exact.begin(), static_cast<unsigned>(reply.size)) == 0, "an answer is sound");
  }));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const size_t text_size = static_cast<size_t>(std::find(data, data + size, 0) - data);
  std::istringstream text(std::string(data, data + text_size));
  listserver::Config config;
  try {
    listserver::read_zone_stream(text, "zones", &config);
    listserver::settle_faults(&config);
  } catch (const std::runtime_error &) {
    return 0;
  }
  listserver::Counts counts;
  listserver::Chance chance(1);
  listserver::Responder responder(config, counts, &chance);
  fuzz::Input input(data + text_size, size - text_size);
  (void)input.u8();
  while (!input.empty()) {
    const bool tcp = input.u8() != 0;
    ask(&responder, input.bytes(input.u16()), tcp);
  }
  return 0;
}
