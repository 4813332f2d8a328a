#include "zones.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <system_error>

#include "file.h"
#include "log.h"
#include "output.h"
#include "subject.h"
#include "zones_file.h"

namespace tool {
namespace {

using nlohmann::ordered_json;

// MemoryFile is a file of its own with the given bytes, under a path that the library can open: so it judges the very
// bytes that were scanned, also of a file that can be read only once.
class MemoryFile {
 public:
  explicit MemoryFile(const std::string &text) : file_(memfd_create("zones", MFD_CLOEXEC)) {
    if (file_.fd() < 0) throw std::system_error(errno, std::generic_category(), "a file in memory");
    for (size_t at = 0; at < text.size();) {
      const ssize_t put = write(file_.fd(), text.data() + at, text.size() - at);
      if (put < 0) throw std::system_error(errno, std::generic_category(), "a file in memory");
      at += static_cast<size_t>(put);
    }
  }
  [[nodiscard]] std::string path() const { return "/proc/self/fd/" + std::to_string(file_.fd()); }

 private:
  File file_;
};

// Has the library load the file. Empty when it did, otherwise why it did not.
std::string refusal(const std::string &text, int zones_max) {
  const MemoryFile file(text);
  const Context context({1, 0, zones_max});
  LogKeeper log;
  const KAVO_ERR error = kavo_zonesmap_init_cfg(context.kavo(), file.path().c_str());
  if (error == KAVOE_OK) return "";
  if (error != KAVOE_FILE) must(error, "cannot load the file");
  return "the library refuses the file: " + for_terminal(log.last());
}

// The library decides: a fault that it does not see is an oddity, and a refusal is a fault even where none was found.
void settle(const std::string &refused, ZonesFile *file) {
  bool found = false;
  for (Finding &finding : file->findings) {
    if (refused.empty() && finding.gravity == Gravity::fault) finding.gravity = Gravity::odd;
    found = found || finding.gravity == Gravity::fault;
  }
  if (!refused.empty() && !found) file->findings.push_back({0, Gravity::fault, refused});
}

void print_finding(const std::string &file, const Finding &finding) {
  const std::string place = finding.line == 0 ? "" : ":" + std::to_string(finding.line);
  const char *kind = finding.gravity == Gravity::fault ? "fault: " : "warning: ";
  print_line(for_terminal(file) + place + ": " + kind + finding.text);
}

void print_sections(const std::string &file, const ZonesFile &scan) {
  constexpr size_t kNameWidth = 12;  // "#DOMAIN_TXT" and a blank
  constexpr size_t kCountWidth = 7;
  size_t zones = 0;
  for (const auto &[type, list] : scan.sections)
    zones += list.size();
  print_line(for_terminal(file) + ": " + plural(zones, "zone") + " in " + plural(scan.sections.size(), "section"));
  for (const auto &[type, list] : scan.sections) {
    const std::string count = std::to_string(list.size());
    const std::string gap(kCountWidth - std::min(count.size(), kCountWidth), ' ');
    print_line("  " + padded(section_name(type), kNameWidth) + gap + count);
  }
}

ordered_json objects_of(const std::vector<Finding> &findings, bool faults) {
  ordered_json array = ordered_json::array();
  for (const Finding &finding : findings) {
    if ((finding.gravity == Gravity::fault) != faults) continue;
    const ordered_json line = finding.line == 0 ? ordered_json() : ordered_json(finding.line);
    array.push_back({{"line", line}, {"text", finding.text}});
  }
  return array;
}

ordered_json object_of(const std::string &file, const ZonesFile &scan, bool accepted) {
  ordered_json object{{"file", file}, {"accepted", accepted}};
  object["sections"] = accepted ? ordered_json::object() : ordered_json();
  for (const auto &[type, list] : scan.sections) {
    if (accepted) object["sections"][section_name(type).substr(1)] = list.size();
  }
  object["faults"] = objects_of(scan.findings, true);
  object["warnings"] = objects_of(scan.findings, false);
  return object;
}

}  // namespace

int zones(const ZonesArguments &arguments) {
  std::string text;
  try {
    text = read_file(arguments.file);
  } catch (const std::runtime_error &fault) {
    throw Usage{for_terminal(arguments.file) + ": " + fault.what()};
  }
  ZonesFile scan = scan_zones(text, static_cast<size_t>(arguments.zones_max));
  const std::string refused = refusal(text, arguments.zones_max);
  settle(refused, &scan);
  if (arguments.json) {
    print_json(object_of(arguments.file, scan, refused.empty()));
  } else {
    for (const Finding &finding : scan.findings)
      print_finding(arguments.file, finding);
    if (refused.empty()) print_sections(arguments.file, scan);
  }
  finish_output();
  return refused.empty() ? kExitClear : kExitListed;
}

}  // namespace tool
