#include "records.h"

#include <arpa/inet.h>

#include <array>
#include <string_view>

#include "output.h"

namespace tool {
namespace {

using nlohmann::ordered_json;

// The library's names have their escapes, and lack the closing dot.
std::string whole_name(const char *name) {
  const std::string text = name == nullptr ? "" : name;
  return text.ends_with('.') && !text.ends_with("\\.") ? text : text + ".";
}

// A text in quotes, as a zone file has it (RFC 1035, 5.1).
std::string quoted_text(std::string_view text) {
  std::string result = "\"";
  for (const char byte : text) {
    const auto value = static_cast<unsigned char>(byte);
    if (value < ' ' || value > '~') {
      result += escaped(value);
      continue;
    }
    if (byte == '"' || byte == '\\') result += '\\';
    result += byte;
  }
  return result + "\"";
}

void add_address(int family, const void *address, Records *records) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  inet_ntop(family, address, text.data(), text.size());
  records->lines.emplace_back(text.data());
  records->objects.push_back({{"address", text.data()}});
}

void add_name(const char *name, Records *records) {
  records->lines.push_back(whole_name(name));
  records->objects.push_back({{"name", whole_name(name)}});
}

void add_text(const dns_txt &text, Records *records) {
  const std::string_view bytes(text.txt, static_cast<size_t>(text.len));
  records->lines.push_back(quoted_text(bytes));
  records->objects.push_back({{"text", std::string(bytes)}});
}

void add_mx(const dns_mx &mx, Records *records) {
  records->lines.push_back(std::to_string(mx.priority) + " " + whole_name(mx.name));
  records->objects.push_back({{"priority", mx.priority}, {"name", whole_name(mx.name)}});
}

void add_srv(const dns_srv &srv, Records *records) {
  records->lines.push_back(std::to_string(srv.priority) + " " + std::to_string(srv.weight) + " " +
                           std::to_string(srv.port) + " " + whole_name(srv.name));
  records->objects.push_back(
      {{"priority", srv.priority}, {"weight", srv.weight}, {"port", srv.port}, {"name", whole_name(srv.name)}});
}

void add_record(KAVO_TYPE type, const KAVO_RR &block, int i, Records *records) {
  switch (type) {
    case KAVOT_DNS_A:
      return add_address(AF_INET, &block.rr_a->dnsa4_addr[i], records);
    case KAVOT_DNS_AAAA:
      return add_address(AF_INET6, &block.rr_a6->dnsa6_addr[i], records);
    case KAVOT_DNS_NS:
      return add_name(block.rr_ns->dnsns_ns[i], records);
    case KAVOT_DNS_CNAME:
      return add_name(block.rr_cname->dnscname_cnames[i], records);
    case KAVOT_DNS_PTR:
      return add_name(block.rr_ptr->dnsptr_ptr[i], records);
    case KAVOT_DNS_MX:
      return add_mx(block.rr_mx->dnsmx_mx[i], records);
    case KAVOT_DNS_SRV:
      return add_srv(block.rr_srv->dnssrv_srv[i], records);
    case KAVOT_DNS_TXT:
    case KAVOT_DNS_ETXT:
      return add_text(block.rr_txt->dnstxt_txt[i], records);
    default:
      return;
  }
}

}  // namespace

Records read_records(KAVO_TYPE type, const KAVO_RR &block) {
  Records records;
  records.canonical = whole_name(block.rr_null->dnsn_cname);
  records.ttl = block.rr_null->dnsn_ttl;
  for (int i = 0; i < block.rr_null->dnsn_nrr; ++i)
    add_record(type, block, i, &records);
  return records;
}

}  // namespace tool
