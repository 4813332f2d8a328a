#include "zone_file.h"

#include <arpa/inet.h>
#include <endian.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <limits>
#include <map>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "dns_wire.h"

namespace listserver {

const char *const kZoneFileHelp =
    "  zone NAME                          the statements below belong to this zone\n"
    "  ttl SECONDS                        of the lines below it; 300 at first\n"
    "  soa MNAME RNAME SERIAL REFRESH RETRY EXPIRE MINIMUM\n"
    "                                     sent with every negative answer; there is one without this line too\n"
    "  default ADDRESS[,ADDRESS] [\"REASON\"]\n"
    "                                     what entries below it answer that do not say; 127.0.0.2 at first\n"
    "  list SUBJECT [ADDRESS[,ADDRESS]] [\"REASON\"]\n"
    "                                     an entry: an IPv4 or IPv6 address, a network (192.0.2.0/24), a domain\n"
    "                                     name, or every name below one (*.example.org). It answers A with the\n"
    "                                     addresses and TXT with the reason\n"
    "  record NAME TYPE DATA              a plain record: A, AAAA, NS, CNAME, PTR, MX, SRV or TXT. NAME is taken\n"
    "                                     below the zone unless it ends in a dot, @ is the zone itself; names in\n"
    "                                     the data are whole\n"
    "  fault WORD...                      misbehave: the zone, or before the first zone the whole server\n"
    "Words are separated by blanks, \"...\" keeps blanks (\\\" and \\\\ inside), # begins a comment.\n";

namespace {

constexpr uint32_t kTtl = 300;
constexpr uint32_t kTtlMax = 0x7fffffff;
constexpr size_t kCharacterString = 255;  // bytes of one character-string (RFC 1035, 3.3)
constexpr const char *kListed = "127.0.0.2";

struct Word {
  std::string text;
  bool quoted = false;
};

[[noreturn]] void fail(const std::string &fault) {
  throw std::runtime_error(fault);
}

std::vector<Word> split_line(const std::string &line) {
  std::vector<Word> words;
  for (size_t at = 0; at < line.size();) {
    if (line[at] == ' ' || line[at] == '\t' || line[at] == '\r') {
      ++at;
    } else if (line[at] == '#') {
      break;
    } else if (line[at] == '"') {
      Word &word = words.emplace_back(Word{"", true});
      for (++at; at < line.size() && line[at] != '"'; ++at) {
        if (line[at] == '\\' && at + 1 < line.size()) ++at;
        word.text += line[at];
      }
      if (at++ >= line.size()) fail("a quotation mark is not closed");
    } else {
      const size_t end = std::min(line.find_first_of(" \t\r\"", at), line.size());
      words.push_back({line.substr(at, end - at), false});
      at = end;
    }
  }
  return words;
}

uint32_t number(const std::string &text, uint32_t maximum) {
  uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value > maximum) {
    fail("\"" + text + "\" is no number from 0 to " + std::to_string(maximum));
  }
  return value;
}

std::string big_endian(uint32_t value, unsigned bytes) {
  std::string data;
  for (unsigned i = bytes; i > 0; --i)
    data += static_cast<char>(value >> (8 * (i - 1)) & 0xff);
  return data;
}

template <typename Raw>
std::string address_data(int family, const std::string &text) {
  Raw raw;
  if (inet_pton(family, text.c_str(), &raw) != 1) fail("\"" + text + "\" is no address");
  return std::string(reinterpret_cast<const char *>(&raw), sizeof(raw));
}

std::string character_strings(const std::string &text) {
  std::string data;
  size_t at = 0;
  do {
    const std::string part = text.substr(at, kCharacterString);
    data += static_cast<char>(part.size());
    data += part;
    at += kCharacterString;
  } while (at < text.size());
  return data;
}

// A listed subject: an address or network of either family, or a name.
struct Network {
  int family;
  Address address;
  unsigned bits;
};
std::optional<Network> network(const std::string &text) {
  const size_t slash = text.find('/');
  const std::string host = text.substr(0, slash);
  Network result{};
  std::array<unsigned char, sizeof(in6_addr)> raw{};
  result.family = host.find(':') == std::string::npos ? AF_INET : AF_INET6;
  if (inet_pton(result.family, host.c_str(), raw.data()) != 1) {
    if (result.family == AF_INET6 || slash != std::string::npos) fail("\"" + text + "\" is no address or network");
    return std::nullopt;
  }
  std::memcpy(&result.address.high, raw.data(), sizeof(uint64_t));
  std::memcpy(&result.address.low, raw.data() + sizeof(uint64_t), sizeof(uint64_t));
  result.address = {be64toh(result.address.high), be64toh(result.address.low)};
  const unsigned bits_max = result.family == AF_INET ? 32 : 128;
  result.bits = slash == std::string::npos ? bits_max : number(text.substr(slash + 1), bits_max);
  if (!(prefix_of(result.address, result.bits) == result.address)) fail("\"" + text + "\" has bits beyond its length");
  return result;
}

// Types that a record statement knows, and how their data is written down.
std::string names_data(const std::vector<Word> &data) {
  return dn_from_text(data[0].text);
}
std::string a_data(const std::vector<Word> &data) {
  return address_data<in_addr>(AF_INET, data[0].text);
}
std::string aaaa_data(const std::vector<Word> &data) {
  return address_data<in6_addr>(AF_INET6, data[0].text);
}
std::string mx_data(const std::vector<Word> &data) {
  return big_endian(number(data[0].text, 0xffff), 2) + dn_from_text(data[1].text);
}
std::string srv_data(const std::vector<Word> &data) {
  std::string result;
  for (unsigned i = 0; i < 3; ++i)
    result += big_endian(number(data[i].text, 0xffff), 2);
  return result + dn_from_text(data[3].text);
}
std::string txt_data(const std::vector<Word> &data) {
  std::string result;
  for (const Word &word : data)
    result += character_strings(word.text);
  return result;
}

struct RecordType {
  const char *name;
  uint16_t type;
  unsigned words;  // of data; TXT takes one or more
  std::string (*data)(const std::vector<Word> &);
};
constexpr std::array<RecordType, 8> kRecordTypes{{{"A", DNS_T_A, 1, a_data},
                                                  {"AAAA", DNS_T_AAAA, 1, aaaa_data},
                                                  {"NS", DNS_T_NS, 1, names_data},
                                                  {"CNAME", DNS_T_CNAME, 1, names_data},
                                                  {"PTR", DNS_T_PTR, 1, names_data},
                                                  {"MX", DNS_T_MX, 2, mx_data},
                                                  {"SRV", DNS_T_SRV, 4, srv_data},
                                                  {"TXT", DNS_T_TXT, 1, txt_data}}};

// FileReader holds what the lines so far have set.
class FileReader {
 public:
  explicit FileReader(Config *config) : config_(config) {}
  void line(const std::vector<Word> &words);

 private:
  void begin_zone(const std::vector<Word> &words);
  void set_soa(const std::vector<Word> &words);
  void set_default(const std::vector<Word> &words);
  void add_entry(const std::vector<Word> &words);
  void add_record(const std::vector<Word> &words);
  void add_faults(const std::vector<Word> &words);
  const Node *entry_node(const std::vector<Word> &words);
  Zone *zone() const;

  Config *config_;
  Zone *zone_ = nullptr;
  uint32_t ttl_ = kTtl;
  std::string addresses_ = kListed;
  std::string reason_;
  std::map<std::string, const Node *> nodes_;  // of this zone, by what they answer: many entries share a few
};

Zone *FileReader::zone() const {
  if (zone_ == nullptr) fail("a zone statement must come first");
  return zone_;
}

void FileReader::begin_zone(const std::vector<Word> &words) {
  if (words.size() != 2) fail("a zone statement takes one name");
  zone_ = config_->zones.add(dn_from_text(words[1].text));
  ttl_ = kTtl;
  addresses_ = kListed;
  reason_.clear();
  nodes_.clear();
  const std::string name = text_from_dn(zone_->dn);
  set_soa({{"soa"}, {"ns." + name}, {"hostmaster." + name}, {"1"}, {"3600"}, {"600"}, {"86400"}, {"60"}});
}

void FileReader::set_soa(const std::vector<Word> &words) {
  constexpr size_t kWords = 8;
  if (words.size() != kWords) fail("a soa statement takes two names and five numbers");
  std::string data = dn_from_text(words[1].text) + dn_from_text(words[2].text);
  for (size_t i = 3; i < kWords; ++i)
    data += big_endian(number(words[i].text, 0xffffffff), 4);
  zone()->soa = data;
  zone()->soa_ttl = ttl_;
  zone()->negative_ttl = std::min(ttl_, number(words.back().text, 0xffffffff));
}

void FileReader::set_default(const std::vector<Word> &words) {
  if (words.size() < 2 || words.size() > 3 || words[1].quoted) fail("a default statement takes addresses and a reason");
  addresses_ = words[1].text;
  reason_ = words.size() == 3 ? words[2].text : "";
  (void)zone();
}

// The node of an entry: its addresses, its reason, else the zone's.
const Node *FileReader::entry_node(const std::vector<Word> &words) {
  std::string addresses = addresses_;
  std::string reason = reason_;
  size_t at = 2;
  if (at < words.size() && !words[at].quoted) addresses = words[at++].text;
  if (at < words.size() && words[at].quoted) reason = words[at++].text;
  if (at != words.size()) fail("a list statement takes a subject, addresses and a quoted reason");
  const Node *&known = nodes_[std::to_string(ttl_) + ' ' + addresses + ' ' + reason];
  if (known != nullptr) return known;
  Node node;
  for (size_t begin = 0; begin <= addresses.size();) {
    const size_t end = std::min(addresses.find(',', begin), addresses.size());
    const std::string address = addresses.substr(begin, end - begin);
    node.records.push_back({DNS_T_A, ttl_, address_data<in_addr>(AF_INET, address)});
    begin = end + 1;
  }
  if (!reason.empty()) node.records.push_back({DNS_T_TXT, ttl_, character_strings(reason)});
  return known = zone()->keep(std::move(node));
}

void FileReader::add_entry(const std::vector<Word> &words) {
  if (words.size() < 2) fail("a list statement takes a subject");
  const std::string &subject = words[1].text;
  (void)zone();
  const Node *node = entry_node(words);
  const std::optional<Network> listed = network(subject);
  if (listed && listed->family == AF_INET) {
    zone()->list_ip4(listed->address, listed->bits, node);
  } else if (listed) {
    zone()->list_ip6(listed->address, listed->bits, node);
  } else if (subject.starts_with("*.")) {
    zone()->list_below(dn_from_text(subject.substr(2)), node);
  } else if (subject == "*") {
    zone()->list_below(std::string(1, '\0'), node);
  } else {
    zone()->list_name(dn_from_text(subject), node);
  }
}

void FileReader::add_record(const std::vector<Word> &words) {
  if (words.size() < 4) fail("a record statement takes a name, a type and data");
  std::string owner = zone()->dn;
  if (words[1].text != "@") {
    bool absolute = false;
    owner = dn_from_text(words[1].text, &absolute);
    if (!absolute) owner.replace(owner.size() - 1, 1, zone()->dn);
    if (owner.size() > DNS_MAXDN) fail("\"" + words[1].text + "\" is too long in this zone");
    if (config_->zones.find(owner).zone != zone()) fail("\"" + words[1].text + "\" is not in this zone");
  }
  const std::vector<Word> data(words.begin() + 3, words.end());
  for (const RecordType &known : kRecordTypes) {
    if (words[2].text != known.name) continue;
    if (data.size() != known.words && !(known.type == DNS_T_TXT && data.size() > known.words)) {
      fail("a " + words[2].text + " record takes " + std::to_string(known.words) + " words of data");
    }
    return zone()->add_record(owner, {known.type, ttl_, known.data(data)});
  }
  fail("no record type \"" + words[2].text + "\" is known");
}

void FileReader::add_faults(const std::vector<Word> &words) {
  Faults &faults = zone_ == nullptr ? config_->faults : zone_->faults;
  for (size_t i = 1; i < words.size(); ++i)
    faults.add(words[i].text);
}

void FileReader::line(const std::vector<Word> &words) {
  const std::string &verb = words[0].text;
  if (verb == "zone") {
    begin_zone(words);
  } else if (verb == "ttl") {
    if (words.size() != 2) fail("a ttl statement takes one number");
    (void)zone();
    ttl_ = number(words[1].text, kTtlMax);
  } else if (verb == "soa") {
    set_soa(words);
  } else if (verb == "default") {
    set_default(words);
  } else if (verb == "list") {
    add_entry(words);
  } else if (verb == "record") {
    add_record(words);
  } else if (verb == "fault") {
    add_faults(words);
  } else {
    fail("no statement \"" + verb + "\" is known");
  }
}

}  // namespace

void read_zone_stream(std::istream &stream, const std::string &name, Config *config) {
  FileReader reader(config);
  std::string line;
  for (unsigned number = 1; std::getline(stream, line); ++number) {
    try {
      const std::vector<Word> words = split_line(line);
      if (!words.empty()) reader.line(words);
    } catch (const std::runtime_error &fault) {
      throw std::runtime_error(name + ", line " + std::to_string(number) + ": " + fault.what());
    }
  }
  if (stream.bad()) throw std::runtime_error(name + ": " + std::strerror(errno));
}

void read_zone_file(const std::string &path, Config *config) {
  std::ifstream stream(path);
  if (!stream) throw std::runtime_error(path + ": " + std::strerror(errno));
  read_zone_stream(stream, path, config);
}

void add_fault_option(const std::string &option, Config *config) {
  const size_t colon = option.find(':');
  Faults *faults = &config->faults;
  if (colon != std::string::npos) {
    Zone *zone = config->zones.get(dn_from_text(option.substr(0, colon)));
    if (zone == nullptr) fail("--fault " + option + ": no zone \"" + option.substr(0, colon) + "\" is served");
    faults = &zone->faults;
  }
  for (size_t begin = colon == std::string::npos ? 0 : colon + 1; begin <= option.size();) {
    const size_t end = std::min(option.find(',', begin), option.size());
    faults->add(option.substr(begin, end - begin));
    begin = end + 1;
  }
}

void settle_faults(Config *config) {
  for (const std::unique_ptr<Zone> &zone : config->zones.all())
    zone->faults = zone->faults.over(config->faults);
}

}  // namespace listserver
