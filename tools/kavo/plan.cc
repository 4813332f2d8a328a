#include "plan.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace tool {
namespace {

constexpr size_t kZoneMax = 254;  // characters of a zone's name, as the library takes them

constexpr std::array<std::pair<std::string_view, KAVO_TYPE>, 9> kSections{{{"IP", KAVOT_BL_IP},
                                                                           {"DOMAIN", KAVOT_BL_DOM},
                                                                           {"IP_TXT", KAVOT_BL_IP_TXT},
                                                                           {"DOMAIN_TXT", KAVOT_BL_DOM_TXT},
                                                                           {"A6", KAVOT_BL_A6},
                                                                           {"MX", KAVOT_BL_MX},
                                                                           {"SRV", KAVOT_BL_SRV},
                                                                           {"CNAME", KAVOT_BL_CNAME},
                                                                           {"NS", KAVOT_BL_NS}}};

KAVO_TYPE section_type(const std::string &line) {
  for (const auto &[name, type] : kSections) {
    if (line.compare(1, std::string::npos, name) == 0) return type;
  }
  if (line.back() == '\r')
    throw std::runtime_error("the line ends in a carriage return; lines must end in a newline alone");
  throw std::runtime_error(quoted(line) +
                           " is no section: a line that begins with # must be one of #IP, #IP_TXT, #DOMAIN, "
                           "#DOMAIN_TXT, #A6, #MX, #SRV, #CNAME, #NS");
}

void check_zone(const std::string &zone) {
  std::array<unsigned char, DNS_MAXDN> dn;
  const bool fits = !zone.empty() && zone.size() <= kZoneMax;
  if (stray_byte(zone).has_value() || !fits ||
      kavo_dns_ptodn(zone.c_str(), static_cast<unsigned>(zone.size()), dn.data(), DNS_MAXDN) <= 1) {
    throw std::runtime_error(quoted(zone) + " is no zone name");
  }
}

using Sections = std::map<KAVO_TYPE, std::vector<std::string>>;

// Reads the file as the library does: a header opens a section and empties its list, an empty line closes it, lines
// outside a section are ignored.
Sections read_sections(std::istream &stream, const std::string &path) {
  Sections sections;
  std::vector<std::string> *open = nullptr;
  std::string line;
  for (unsigned number = 1; std::getline(stream, line); ++number) {
    try {
      if (line.empty()) {
        open = nullptr;
      } else if (line[0] == '#') {
        open = &sections[section_type(line)];
        open->clear();
      } else if (open != nullptr) {
        check_zone(line);
        open->push_back(line);
      }
    } catch (const std::runtime_error &fault) {
      throw std::runtime_error("zones file " + path + ", line " + std::to_string(number) + ": " + fault.what());
    }
  }
  if (stream.bad()) throw std::runtime_error("zones file " + path + ": " + std::strerror(errno));
  return sections;
}

}  // namespace

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
  if (std::filesystem::is_directory(path)) throw std::runtime_error("zones file " + path + ": it is a directory");
  std::ifstream stream(path);
  if (!stream) throw std::runtime_error("zones file " + path + ": " + std::strerror(errno));
  for (const auto &[type, zones] : read_sections(stream, path)) {
    if (type > KAVOT_BL_DOM_TXT) continue;  // asked by other questions than this tool's
    for (const std::string &zone : zones)
      take(type, zone);
  }
}

void Plan::add(const std::string &zone) {
  check_zone(zone);
  for (const KAVO_TYPE type : {KAVOT_BL_IP, KAVOT_BL_IP_TXT, KAVOT_BL_DOM, KAVOT_BL_DOM_TXT})
    take(type, zone);
}

int Plan::zones_max() const {
  size_t most = 1;
  for (const auto &[type, zones] : zones_)
    most = std::max(most, zones.size());
  return static_cast<int>(most);
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
