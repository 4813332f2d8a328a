#include "query.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string_view>

#include "asker.h"
#include "log.h"
#include "output.h"
#include "records.h"
#include "subject.h"

namespace tool {
namespace {

using nlohmann::ordered_json;

// The packet that a block of type KAVOT_PKT holds.
std::basic_string_view<unsigned char> packet_of(const KAVO_ANSWER &answer) {
  return {answer.rr.rr_pkt->dnspkt_pkt, answer.rr.rr_pkt->dnspkt_psize};
}

std::string hex(std::basic_string_view<unsigned char> bytes) {
  constexpr unsigned kNibbleBits = 4;
  constexpr unsigned kNibbleMask = 0xf;
  std::string text;
  for (const unsigned char byte : bytes) {
    text += "0123456789abcdef"[byte >> kNibbleBits];
    text += "0123456789abcdef"[byte & kNibbleMask];
  }
  return text;
}

class Printer {
 public:
  Printer(const QueryArguments &arguments, KAVO_TYPE type)
      : type_(type),
        raw_(arguments.raw),
        json_(arguments.json),
        named_(arguments.names.size() > 1 || arguments.names.front() == "-") {}

  void show(const NameResult &result) {
    if (json_) return print_json(object_of(result));
    const KAVO_ANSWER *answer = result.answer;
    const bool records = answer != nullptr && answer->actual_size != 0;
    if (records && raw_) return show_packet(packet_of(*answer));
    if (records && result.outcome == KAVOE_OK) return show_records(result.asked.text, *answer);
    const std::string why = result.error.empty() ? explain_negative(result.outcome, type_) : result.error;
    // A text that is no name is quoted in the reason.
    const std::string what = result.asked.name ? for_terminal(result.asked.text) + ": " : "";
    std::fflush(stdout);
    std::fprintf(stderr, "kavo query: %s%s\n", what.c_str(), why.c_str());
  }

 private:
  void show_records(const std::string &text, const KAVO_ANSWER &answer) const {
    const std::string name = named_ ? for_terminal(text) + "\t" : "";
    for (const std::string &line : read_records(type_, answer.rr).lines)
      print_line(name + line);
  }

  void show_packet(std::basic_string_view<unsigned char> packet) {
    if (packets_++ != 0) print_line("");
    (void)dns_printpkt(stdout, packet.data(), static_cast<unsigned>(packet.size()));  // as far as it is sound
  }

  ordered_json object_of(const NameResult &result) const {
    const char *status = result.error.empty() ? status_word(result.outcome) : "failed";
    ordered_json object{{"name", result.asked.text}, {"type", type_text(type_)}, {"status", status}};
    object["error"] = result.error.empty() ? ordered_json() : ordered_json(result.error);
    const KAVO_ANSWER *answer = result.answer;
    const bool records = answer != nullptr && answer->actual_size != 0;
    if (raw_) {
      object["packet"] = records ? ordered_json(hex(packet_of(*answer))) : ordered_json();
    } else if (records && result.outcome == KAVOE_OK) {
      Records read = read_records(type_, answer->rr);
      object["ttl"] = read.ttl;
      object["canonical"] = read.canonical;
      object["answers"] = std::move(read.objects);
    } else {
      object["ttl"] = nullptr;
      object["canonical"] = nullptr;
      object["answers"] = ordered_json::array();
    }
    object["query_time_ms"] = answer == nullptr ? 0 : answer->query_time;
    return object;
  }

  KAVO_TYPE type_;
  bool raw_;
  bool json_;
  bool named_;  // each line begins with the name
  size_t packets_ = 0;
};

}  // namespace

int query(const QueryArguments &arguments) {
  const KAVO_TYPE type = parse_type(arguments.type);
  if (!arguments.raw && kavo_isparseable(type) == 0)
    throw Usage{"records of type " + type_text(type) + " can be shown with --raw only"};
  examine_names(arguments.names, type);
  LogKeeper log;  // answers without room are warned of
  Session session(arguments.network, {static_cast<int>(kSubjects)});
  session.keep_large();
  session.open();
  Printer printer(arguments, type);
  NameOutcome outcome;
  ask_names(session, arguments.names, type, arguments.raw ? KAVOQF_PKT : 0, [&](const NameResult &result) {
    outcome.failed = outcome.failed || !result.error.empty();
    outcome.without = outcome.without || is_negative(result.outcome);
    printer.show(result);
  });
  finish_output();
  return outcome.status();
}

}  // namespace tool
