#include "plan.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "zones_file.h"

namespace tool {
void Plan::take(KAVO_TYPE type, const std::string &zone) {
  const bool domain = type == KAVOT_BL_DOM || type == KAVOT_BL_DOM_TXT;
  Questions &questions = domain ? domain_ : ip_;
  const auto same = [&](const AskedZone &other) { return other.name == zone; };
  auto place = std::find_if(questions.zones.begin(), questions.zones.end(), same);
  if (place == questions.zones.end()) place = questions.zones.insert(place, AskedZone{zone, false, false});
  bool &asked = type == questions.address ? place->address : place->reason;
  if (asked) return;
  asked = true;
  (type == questions.address ? questions.any_address : questions.any_reason) = true;
  zones_[type].push_back(zone);
}

void Plan::read_file(const std::string &path) {
  const std::string name = "zones file " + path;
  ZonesFile file;
  try {
    file = scan_zones(tool::read_file(path), std::numeric_limits<size_t>::max());
  } catch (const std::runtime_error &fault) {
    throw std::runtime_error(name + ": " + fault.what());
  }
  for (const Finding &finding : file.findings) {
    if (finding.gravity == Gravity::odd) continue;
    throw std::runtime_error(name + ", line " + std::to_string(finding.line) + ": " + finding.text);
  }
  for (const auto &[type, zones] : file.sections) {
    if (type > KAVOT_BL_DOM_TXT) continue;  // asked by other questions than this tool's
    for (const std::string &zone : zones)
      take(type, zone);
  }
}

void Plan::add(const std::string &zone) {
  const std::string fault = zone_fault(zone);
  if (!fault.empty()) throw std::runtime_error(fault);
  for (const KAVO_TYPE type : {KAVOT_BL_IP, KAVOT_BL_IP_TXT, KAVOT_BL_DOM, KAVOT_BL_DOM_TXT})
    take(type, zone);
}

int Plan::zones_max() const {
  size_t most = 1;
  for (const auto &[type, zones] : zones_)
    most = std::max(most, zones.size());
  return static_cast<int>(most);
}

size_t Plan::queries_max() const {
  size_t ip = 0, domain = 0;
  for (const auto &[type, zones] : zones_)
    (type == domain_.address || type == domain_.reason ? domain : ip) += zones.size();
  return std::max(ip, domain);
}

void Plan::number_zones(KAVO kavo, Questions *questions) {
  questions->zone_of_number.clear();
  const char *name;
  for (int number = 0; (name = kavo_zonesmap_zone(kavo, number)) != nullptr; ++number) {
    const auto same = [&](const AskedZone &zone) { return zone.name == name; };
    const auto place = std::find_if(questions->zones.begin(), questions->zones.end(), same);
    questions->zone_of_number.push_back(static_cast<size_t>(place - questions->zones.begin()));
  }
}

void Plan::configure(KAVO kavo) {
  for (const auto &[type, zones] : zones_) {
    for (const std::string &zone : zones) {
      const KAVO_ERR error = kavo_add_zone(kavo, type, zone.c_str());
      if (error != KAVOE_OK) throw std::runtime_error("zone " + quoted(zone) + ": " + kavo_strerror(error));
    }
  }
  number_zones(kavo, &ip_);
  number_zones(kavo, &domain_);
}

}  // namespace tool
