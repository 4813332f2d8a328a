// plan.h - which zones are asked: those of a zones file and those of the command line, by kind of subject.
#ifndef KAVO_TOOLS_KAVO_PLAN_H
#define KAVO_TOOLS_KAVO_PLAN_H

#include <kavo.h>

#include <map>
#include <string>
#include <vector>

#include "subject.h"

namespace tool {

// AskedZone is a list as a subject meets it: asked for return addresses, for the reason, or for both.
struct AskedZone {
  std::string name;
  bool address = false;
  bool reason = false;
};

// Questions is how one kind of subject is asked.
struct Questions {
  KAVO_TYPE address;
  KAVO_TYPE reason;
  bool any_address = false;
  bool any_reason = false;
  std::vector<AskedZone> zones;        // in the order in which they are shown
  std::vector<size_t> zone_of_number;  // a zone number of the library -> a place in `zones`

  Questions(KAVO_TYPE address_type, KAVO_TYPE reason_type) : address(address_type), reason(reason_type) {}
};

class Plan {
 public:
  // read_file takes a zones file's sections over; add takes one zone for both kinds, with its reasons. Both throw
  // std::runtime_error, with a text that names the fault.
  void read_file(const std::string &path);
  void add(const std::string &zone);

  // configure brings `kavo`, which is not open and has room for zones_max() zones a type, to this plan. Throws
  // std::runtime_error.
  void configure(KAVO kavo);

  // zones_max returns how many zones a type has at most, queries_max how many queries a subject takes.
  [[nodiscard]] int zones_max() const;
  [[nodiscard]] size_t queries_max() const;
  [[nodiscard]] bool empty() const { return ip_.zones.empty() && domain_.zones.empty(); }
  [[nodiscard]] const Questions &questions(Kind kind) const { return kind == Kind::domain ? domain_ : ip_; }

 private:
  void take(KAVO_TYPE type, const std::string &zone);
  void number_zones(KAVO kavo, Questions *questions);

  std::map<KAVO_TYPE, std::vector<std::string>> zones_;  // each name once a type
  Questions ip_{KAVOT_BL_IP, KAVOT_BL_IP_TXT};
  Questions domain_{KAVOT_BL_DOM, KAVOT_BL_DOM_TXT};
};

}  // namespace tool

#endif  // KAVO_TOOLS_KAVO_PLAN_H
