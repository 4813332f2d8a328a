#include "support/host.h"

#include <arpa/inet.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <thread>

namespace support {
namespace {

std::mutex log_mutex;
std::vector<std::string> failed_assertions;  // guarded by log_mutex
std::vector<std::string> complaints;         // guarded by log_mutex

void watch_log(int level, const char *line, void *) {
  const std::lock_guard<std::mutex> lock(log_mutex);
  if (level <= KAVO_LOG_CRIT) failed_assertions.emplace_back(line);
  if (level <= KAVO_LOG_WARNING) complaints.emplace_back(line);
}

std::vector<std::string> listserver_command(const TempDir &directory, std::string_view zones,
                                            const std::vector<std::string> &faults) {
  std::vector<std::string> argv{KAVO_TOOLS_DIR "/kavo-listserver", directory.write("zones", zones)};
  for (const std::string &fault : faults) {
    argv.push_back("--fault");
    argv.push_back(fault);
  }
  return argv;
}

std::string dotted(int family, const void *address) {
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(family, address, text, sizeof text);
  return text;
}

std::string number(int value) {
  return std::to_string(value) + " ";
}

// One text for each record of the block.
std::vector<std::string> records(const KAVO_ANSWER &answer) {
  const KAVO_RR &rr = answer.rr;
  std::vector<std::string> all;
  const auto each = [&all, &rr](auto &&text_of) {
    for (int i = 0; i < rr.rr_null->dnsn_nrr; ++i)
      all.push_back(text_of(i));
  };
  switch (answer.type) {
    case KAVOT_DNS_A:
    case KAVOT_BL_IP:
    case KAVOT_BL_DOM:
      each([&rr](int i) { return dotted(AF_INET, &rr.rr_a->dnsa4_addr[i]); });
      break;
    case KAVOT_DNS_AAAA:
    case KAVOT_BL_A6:
      each([&rr](int i) { return dotted(AF_INET6, &rr.rr_a6->dnsa6_addr[i]); });
      break;
    case KAVOT_DNS_TXT:
    case KAVOT_DNS_ETXT:
    case KAVOT_BL_IP_TXT:
    case KAVOT_BL_DOM_TXT:
      each([&rr](int i) {
        const dns_txt &txt = rr.rr_txt->dnstxt_txt[i];
        return std::string(txt.txt, static_cast<size_t>(txt.len));
      });
      break;
    case KAVOT_DNS_MX:
    case KAVOT_BL_MX:
      each([&rr](int i) { return number(rr.rr_mx->dnsmx_mx[i].priority) + rr.rr_mx->dnsmx_mx[i].name; });
      break;
    case KAVOT_DNS_SRV:
    case KAVOT_BL_SRV:
      each([&rr](int i) {
        const dns_srv &srv = rr.rr_srv->dnssrv_srv[i];
        return number(srv.priority) + number(srv.weight) + number(srv.port) + srv.name;
      });
      break;
    case KAVOT_DNS_PTR:
    case KAVOT_DNS_CNAME:
    case KAVOT_DNS_NS:
    case KAVOT_BL_CNAME:
    case KAVOT_BL_NS:
      each([&rr](int i) { return std::string(rr.rr_ptr->dnsptr_ptr[i]); });
      break;
    default:
      all.push_back("packet of " + std::to_string(rr.rr_pkt->dnspkt_psize));
  }
  return all;
}

}  // namespace

Host::Host(int table_size, int cache_size, int max_zones) {
  if (kavo_init_ext(&kavo_, table_size, cache_size, max_zones, 0) != KAVOE_OK)
    throw std::runtime_error("kavo_init_ext");
  EXPECT_EQ(kavo_add_dns_server(kavo_, nullptr, 0), KAVOE_OK);
}

Host::~Host() {
  EXPECT_EQ(kavo_close(kavo_), KAVOE_OK);
  EXPECT_EQ(kavo_free(kavo_), KAVOE_OK);
}

Host &Host::server(uint16_t port) {
  EXPECT_EQ(kavo_add_dns_server(kavo_, "127.0.0.1", port), KAVOE_OK);
  return *this;
}

Host &Host::zone(KAVO_TYPE type, const char *name) {
  EXPECT_EQ(kavo_add_zone(kavo_, type, name), KAVOE_OK);
  return *this;
}

Host &Host::option(KAVO_OPT option, uint32_t value) {
  EXPECT_EQ(kavo_set_opt(kavo_, option, value), KAVOE_OK) << kavo_opt_name(option);
  return *this;
}

Host &Host::patient() {
  return option(KAVOOPT_CLOSE_FAST, 1).option(KAVOOPT_TIMEOUT_MSEC, kNeverMs);
}

Host &Host::open() {
  EXPECT_EQ(kavo_open(kavo_), KAVOE_OK);
  return *this;
}

Node::Node(KAVO kavo, KAVO_TYPE type, const std::string &subject, unsigned flags) : kavo_(kavo) {
  EXPECT_EQ(kavo_subscribe_node_p(kavo, type, subject.c_str(), flags, Deadline(kLongMs), &node_), KAVOE_OK) << subject;
}

Node::Node(KAVO kavo) : kavo_(kavo) {
  EXPECT_EQ(kavo_subscribe_syncnode(kavo, Deadline(kLongMs), &node_), KAVOE_OK);
}

void Node::drop() {
  if (node_ == nullptr) return;
  EXPECT_EQ(kavo_unsubscribe_node(kavo_, node_), KAVOE_OK);
  node_ = nullptr;
}

KAVO_ERR Node::wait(KAVO_WAIT_LEVEL level, unsigned ms) const {
  return kavo_wait_node(kavo_, node_, level, Deadline(ms));
}

Answers::~Answers() {
  for (int i = 0; i < length_; ++i)
    kavo_rr_free(&data_[i].rr);
  std::free(data_);
}

KAVO_ERR Answers::copy(KAVO kavo, KAVO_QUERY_NODE node) {
  const KAVO_ERR result = kavo_copy_answer(kavo, node, &data_, length_, &written_, 1);
  if (result == KAVOE_OK) length_ = std::max(length_, written_);
  return result;
}

KAVO_ERR Answers::query(KAVO kavo, KAVO_TYPE type, std::string_view subject, unsigned flags, unsigned timeout,
                        KAVO_WAIT_LEVEL level) {
  written_ = 0;
  const KAVO_ERR result = kavo_query(kavo, type, subject.data(), static_cast<int>(subject.size()), &data_, length_,
                                     &written_, timeout, level, flags);
  if (result == KAVOE_OK) length_ = std::max(length_, written_);
  return result;
}

std::vector<std::string> Answers::texts() const {
  std::vector<std::string> all;
  for (int i = 0; i < written_; ++i)
    all.push_back(render(data_[i]));
  return all;
}

std::string render(const KAVO_ANSWER &answer) {
  if (answer.err_code == KAVOE_NXDOM) return "NXDOM";
  if (answer.err_code == KAVOE_NODATA) return "NODATA";
  if (answer.err_code != KAVOE_OK) return "error " + std::to_string(answer.err_code);
  if (answer.actual_size == 0 || answer.rr.rr_mem == nullptr) return "nothing";
  std::vector<std::string> all = records(answer);
  std::sort(all.begin(), all.end());
  std::string text;
  for (const std::string &record : all)
    text += (text.empty() ? "" : ",") + record;
  return text;
}

std::vector<std::string> in_place(KAVO kavo, KAVO_QUERY_NODE node, std::vector<KAVO_ANSWER> *all) {
  std::vector<std::string> texts;
  KAVO_ANSWER_ITERATOR iterator = kavo_alloc_answer_iterator();
  if (kavo_set_answer_iterator(kavo, node, iterator) == KAVOE_OK) {
    while (const KAVO_ANSWER *answer = kavo_get_answer(kavo, iterator)) {
      texts.push_back(render(*answer));
      if (all != nullptr) all->push_back(*answer);
    }
  }
  kavo_free_answer_iterator(iterator);
  return texts;
}

sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

std::string address_bytes(const char *text) {
  in_addr address{};
  EXPECT_GT(kavo_dns_ptoa4(text, &address), 0) << text;
  return {reinterpret_cast<const char *>(&address), sizeof address};
}

size_t open_descriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all)));
}

ListServer::ListServer(std::string_view zones, std::vector<std::string> faults)
    : process_(listserver_command(directory_, zones, faults)) {
  const std::optional<std::string> line = process_.wait_line("listening on ");
  if (!line) throw std::runtime_error("the list server did not start: " + process_.output().err);
  port_ = port_in(*line);
}

uint64_t ListServer::received() {
  constexpr int kAttempts = 6000;
  constexpr milliseconds kStep{10};
  constexpr std::string_view kWord = "received=";
  ++asked_;
  process_.signal(SIGUSR1);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const std::string out = process_.output().out;
    size_t at = 0, seen = 0;
    for (size_t next = 0; (next = out.find(kWord, next)) != std::string::npos; at = next += kWord.size())
      ++seen;
    if (seen >= asked_ && out.back() == '\n') {
      uint64_t count = 0;
      std::from_chars(out.data() + at, out.data() + out.size(), count);
      return count;
    }
    std::this_thread::sleep_for(kStep);
  }
  throw std::runtime_error("the list server does not tell its counts");
}

HandServer::HandServer() : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address = loopback(0);
  socklen_t size = sizeof address;
  if (bind(socket_, reinterpret_cast<sockaddr *>(&address), size) != 0 ||
      getsockname(socket_, reinterpret_cast<sockaddr *>(&address), &size) != 0)
    throw std::runtime_error("no socket");
  const timeval bound{kLongMs / 1000, 0};
  setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
  port_ = ntohs(address.sin_port);
}

HandServer::~HandServer() {
  close(socket_);
}

HandServer::Query HandServer::receive() const {
  Query query{std::vector<uint8_t>(DNS_MAXPACKET), {}};
  socklen_t size = sizeof query.from;
  const ssize_t got =
      recvfrom(socket_, query.packet.data(), query.packet.size(), 0, reinterpret_cast<sockaddr *>(&query.from), &size);
  query.packet.resize(got > 0 ? static_cast<size_t>(got) : 0);
  return query;
}

void HandServer::deny(const Query &query) const {
  constexpr uint8_t kResponse = 0x80, kNxdomain = 3;
  std::vector<uint8_t> packet = query.packet;
  packet.at(2) |= kResponse;
  packet.at(3) = kNxdomain;
  EXPECT_EQ(sendto(socket_, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr *>(&query.from),
                   sizeof query.from),
            static_cast<ssize_t>(packet.size()));
}

void HostTest::SetUp() {
  const std::lock_guard<std::mutex> lock(log_mutex);
  failed_assertions.clear();
  complaints.clear();
  kavo_set_log_cb(watch_log, nullptr);
}

std::vector<std::string> HostTest::complaints_about(std::string_view text) {
  const std::lock_guard<std::mutex> lock(log_mutex);
  std::vector<std::string> found;
  std::ranges::copy_if(complaints, std::back_inserter(found),
                       [text](const std::string &line) { return line.find(text) != std::string::npos; });
  return found;
}

void HostTest::TearDown() {
  kavo_set_log_cb(nullptr, nullptr);
  const std::lock_guard<std::mutex> lock(log_mutex);
  for (const std::string &line : failed_assertions)
    ADD_FAILURE() << line;
}

}  // namespace support
