#include "zones_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "subject.h"

namespace tool {
namespace {

constexpr size_t kZoneMax = 254;          // characters of a zone's name, as the library takes them
constexpr size_t kPieceMax = 255;         // bytes that the library reads at once: a longer line is several to it
constexpr size_t kFileMax = 64UL << 20U;  // bytes; no zones file comes near it, and an endless one ends here

constexpr std::array<std::pair<std::string_view, KAVO_TYPE>, 9> kSections{{{"#IP", KAVOT_BL_IP},
                                                                           {"#DOMAIN", KAVOT_BL_DOM},
                                                                           {"#IP_TXT", KAVOT_BL_IP_TXT},
                                                                           {"#DOMAIN_TXT", KAVOT_BL_DOM_TXT},
                                                                           {"#A6", KAVOT_BL_A6},
                                                                           {"#MX", KAVOT_BL_MX},
                                                                           {"#SRV", KAVOT_BL_SRV},
                                                                           {"#CNAME", KAVOT_BL_CNAME},
                                                                           {"#NS", KAVOT_BL_NS}}};

std::string ordinal(size_t number) {
  constexpr size_t kTen = 10, kHundred = 100;
  const size_t last = number % kHundred / kTen == 1 ? 0 : number % kTen;
  return std::to_string(number) + (last == 1 ? "st" : last == 2 ? "nd" : last == 3 ? "rd" : "th");
}

std::string header_fault(const std::string &line) {
  if (line.ends_with('\r')) return "the line ends in a carriage return; lines must end in a newline alone";
  return quoted(line) +
         " is no section: a line that begins with # must be one of #IP, #IP_TXT, #DOMAIN, #DOMAIN_TXT, #A6, #MX, "
         "#SRV, #CNAME, #NS";
}

// Scanner takes a file's pieces one by one, as the library's loader does: a header opens a section and empties its
// list, an empty line closes it, lines outside a section are ignored. Unlike the loader it continues after a fault.
class Scanner {
 public:
  explicit Scanner(size_t zones_max) : zones_max_(zones_max) {}

  void piece(unsigned line, const std::string &text) {
    line_ = line;
    if (text.starts_with('#')) return header(text);
    if (text.empty()) {
      open_ = nullptr;
      lost_ = false;
      return;
    }
    if (open_ != nullptr) return zone(text);
    if (!lost_) note(Gravity::odd, quoted(text) + " is ignored: no section is open here");
  }

  void note(unsigned line, Gravity gravity, const std::string &text) {
    file_.findings.push_back({line, gravity, text});
  }

  ZonesFile take() { return std::move(file_); }

 private:
  void note(Gravity gravity, const std::string &text) { note(line_, gravity, text); }

  void header(const std::string &text) {
    const auto found = std::find_if(kSections.begin(), kSections.end(), [&](auto &row) { return row.first == text; });
    open_ = nullptr;
    lost_ = found == kSections.end();  // the section of the zones below is unknown
    if (lost_) return note(Gravity::fault, header_fault(text));
    type_ = found->second;
    const auto [place, is_new] = file_.sections.try_emplace(type_);
    if (!is_new) note(Gravity::odd, "a second section " + text + ": the zones of the first are forgotten");
    open_ = &place->second;
    open_->clear();
    names_.clear();
  }

  void zone(const std::string &text) {
    const std::string section = section_name(type_);
    const std::string fault = zone_fault(text);
    if (!fault.empty()) note(Gravity::unusable, fault);
    if (!names_.insert(text).second)
      note(Gravity::odd, quoted(text) + " is in " + section + " twice, and is asked twice");
    open_->push_back(text);
    if (open_->size() != zones_max_ + 1) return;  // said once a section
    note(Gravity::fault, quoted(text) + " is the " + ordinal(open_->size()) + " zone of " + section +
                             ", which may have " + std::to_string(zones_max_) + " (see --max-zones)");
  }

  size_t zones_max_;
  ZonesFile file_;
  unsigned line_ = 0;
  KAVO_TYPE type_ = KAVOT_INVALID;
  std::vector<std::string> *open_ = nullptr;  // the open section's list
  std::unordered_set<std::string> names_;     // the zones of the open section
  bool lost_ = false;                         // under a header that is none
};

}  // namespace

std::string section_name(KAVO_TYPE type) {
  const auto found = std::find_if(kSections.begin(), kSections.end(), [&](auto &row) { return row.second == type; });
  return std::string(found->first);
}

std::string zone_fault(const std::string &zone) {
  if (zone.ends_with('\r')) return "the line ends in a carriage return; lines must end in a newline alone";
  std::array<unsigned char, DNS_MAXDN> dn;
  const bool fits = !zone.empty() && zone.size() <= kZoneMax;
  const bool good = fits && !stray_byte(zone).has_value() &&
                    kavo_dns_ptodn(zone.c_str(), static_cast<unsigned>(zone.size()), dn.data(), DNS_MAXDN) > 1;
  return good ? "" : quoted(zone) + " is no zone name";
}

std::string read_file(const std::string &path) {
  if (std::filesystem::is_directory(path)) throw std::runtime_error("it is a directory");
  errno = 0;
  std::ifstream stream(path, std::ios::binary);
  if (!stream) throw std::runtime_error(std::strerror(errno));
  std::string text;
  std::array<char, BUFSIZ> block;
  while (stream.read(block.data(), block.size()), stream.gcount() > 0) {
    text.append(block.data(), static_cast<size_t>(stream.gcount()));
    if (text.size() > kFileMax) throw std::runtime_error("it is larger than 64 MiB");
  }
  if (stream.bad()) throw std::runtime_error(std::strerror(errno));
  return text;
}

ZonesFile scan_zones(const std::string &text, size_t zones_max) {
  Scanner scanner(zones_max);
  unsigned line = 1;
  for (size_t at = 0; at < text.size();) {
    const size_t newline = std::min(text.find('\n', at), text.size());
    const bool ended = newline < text.size() && newline - at < kPieceMax;
    std::string piece = text.substr(at, std::min(newline - at, kPieceMax));
    at += piece.size() + (ended ? 1 : 0);
    if (!ended && at < text.size())
      scanner.note(line, Gravity::odd, "the line is longer than 254 bytes, and is taken for several");
    if (piece.find('\0') != std::string::npos) {
      scanner.note(line, Gravity::odd, "what follows the zero byte in this line is ignored");
      piece.resize(piece.find('\0'));
    }
    scanner.piece(line, piece);
    line += ended ? 1 : 0;
  }
  return scanner.take();
}

}  // namespace tool
