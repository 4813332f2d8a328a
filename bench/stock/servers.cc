#include "servers.h"

#include <questions.h>

#include <stdexcept>
#include <vector>

#include "task.h"

namespace stock {
namespace {

constexpr const char *kSoa = "SOA ns.invalid. admin.invalid. 1 300 300 300 300";
constexpr unsigned kNetworks = 256;  // of 16 bits below 10.0.0.0/8; the odd ones are listed

// listed_below returns the names, in the zone, below which every address is listed.
std::vector<std::string> listed_below() {
  std::vector<std::string> names;
  for (unsigned second = 1; second < kNetworks; second += 2)
    names.push_back(std::to_string(second) + ".10");
  return names;
}

std::string master_records() {
  const std::string ttl = std::to_string(bench::kTtl);
  std::string text = "$TTL " + ttl + "\n@ " + kSoa + "\n@ NS ns.invalid.\n";
  for (const std::string &name : listed_below())
    text += "*." + name + " A 127.0.0.2\n*." + name + " TXT \"" + kReason + "\"\n";
  return text;
}

std::vector<std::string> local_lines(const std::string &zone) {
  const std::string in = " " + std::to_string(bench::kTtl) + " IN ";
  std::vector<std::string> lines = {"local-zone: \"" + zone + "\" static", "local-data: \"" + zone + in + kSoa + "\""};
  for (const std::string &name : listed_below()) {
    const std::string owner = name + "." + zone;
    lines.push_back("local-zone: \"" + owner + "\" redirect");
    lines.push_back("local-data: \"" + owner + in + "A 127.0.0.2\"");
    lines.push_back("local-data: '" + owner + in + "TXT \"" + kReason + "\"'");
  }
  return lines;
}

}  // namespace

std::unique_ptr<testbed::NameDaemon> start_server(const std::string &name, unsigned zones) {
  std::vector<testbed::ListZone> lists;
  std::vector<testbed::MasterZone> masters;
  std::vector<testbed::LocalZone> locals;
  for (unsigned n = 0; n < zones; ++n) {
    const std::string zone = bench::zone(n);
    lists.push_back({zone, "ip4set", bench::rbldnsd_zone()});
    masters.push_back({zone, "$ORIGIN " + zone + ".\n" + master_records()});
    locals.push_back({zone, local_lines(zone)});
  }
  if (name == "rbldnsd") return testbed::start_rbldnsd(lists);
  if (name == "nsd") return testbed::start_nsd(masters);
  if (name == "unbound") return testbed::start_local_unbound(locals);
  throw std::runtime_error("no server \"" + name + "\"");
}

}  // namespace stock
