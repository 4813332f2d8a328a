// names.cc - names in every form: a text to a DN and back, bytes that may be a DN, a name in a packet; and addresses.
#include <cursor.h>
#include <dns_wire.h>
#include <letter_case.h>

#include <array>

#include "fuzz.h"

namespace {

using fuzz::check;

// expect_round_trip checks what holds for every DN of `size` bytes.
void expect_round_trip(const uint8_t *dn, unsigned size) {
  check(dns_dnlen(dn) == size && dns_dnequal(dn, dn) == size, "a DN has its length and equals itself");
  const std::string text = dns_dntosp(dn);
  check(text.size() + 1 == dns_dntop_size(dn) && text.size() < DNS_MAXNAME, "a text is as long as was said");
  fuzz::expect_printable(text);
  check(text.find_first_of(" \n\t") == std::string::npos, "a name is one word");
  std::vector<char> exact(text.size() + 1);
  check(dns_dntop(dn, exact.data(), static_cast<int>(text.size())) == 0, "a text needs room for its end");
  check(dns_dntop(dn, exact.data(), static_cast<int>(exact.size())) == static_cast<int>(text.size()), "a text fits");
  std::array<uint8_t, DNS_MAXDN> back{};
  check(dns_ptodn(text.c_str(), 0, back.data(), static_cast<int>(size), nullptr) == static_cast<int>(size) &&
            memcmp(back.data(), dn, size) == 0,
        "DN to text to DN");
  check(size == 1 || dns_ptodn(text.c_str(), 0, back.data(), static_cast<int>(size) - 1, nullptr) <= 0, "no room");
  std::array<uint8_t, DNS_MAXDN> lower{};
  check(dns_dntodn(dn, lower.data(), DNS_MAXDN) == size, "a DN can be copied");
  dns::apply_case({lower.data(), size}, dns::kLowerCase);
  check(dns_dnequal(dn, lower.data()) == size && dns::has_case({lower.data(), size}, dn, dns::kLowerCase),
        "a name is the same in lower case");
  dns::Writer writer({back.data(), size});
  writer.name(dn);
  dns::Reader reader({back.data(), size});
  unsigned read = 0;
  check(writer.ok() && reader.name(lower.data(), &read) && read == size && reader.left() == 0, "written, and read");
}

void try_text(std::span<const uint8_t> bytes, int room) {
  const std::string text(bytes.begin(), bytes.end());
  std::array<uint8_t, DNS_MAXDN + 1> dn{};
  int absolute = 0;
  const int size = dns_ptodn(text.data(), static_cast<unsigned>(text.size()), dn.data(), DNS_MAXDN, &absolute);
  check(size <= DNS_MAXDN, "no name is longer than the longest");
  if (size > 0) expect_round_trip(dn.data(), static_cast<unsigned>(size));
  const fuzz::Exact small(std::vector<uint8_t>(static_cast<size_t>(room)));
  check(dns_ptodn(text.data(), static_cast<unsigned>(text.size()), const_cast<uint8_t *>(small.begin()), room,
                  nullptr) <= room,
        "a name does not outgrow its room");
}

void try_packet(std::span<const uint8_t> bytes, size_t at) {
  const fuzz::Exact packet(bytes);
  dns::Reader reader(packet.span(), at), skipper(packet.span(), at);
  std::array<uint8_t, DNS_MAXDN> dn{};
  unsigned size = 0;
  const size_t from = reader.position();
  if (!reader.name(dn.data(), &size)) return check(reader.position() == from, "a failed read leaves the cursor");
  check(skipper.skip_name() && skipper.position() == reader.position(), "read or skipped, a name is as long");
  expect_round_trip(dn.data(), size);
}

void try_address(std::span<const uint8_t> bytes, int family) {
  const std::string text(bytes.begin(), bytes.end());
  in6_addr address{}, again{};
  if (dns_pton(family, text.c_str(), &address) <= 0) return;
  char out[INET6_ADDRSTRLEN];
  check(dns_ntop(family, &address, out, sizeof out) != nullptr && dns_pton(family, out, &again) > 0 &&
            memcmp(&address, &again, sizeof address) == 0,
        "address to text to address");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::Input input(data, size);
  const uint8_t how = input.u8(), figure = input.u8();
  const std::span<const uint8_t> bytes = input.rest();
  std::array<uint8_t, DNS_MAXDN> dn{};
  switch (how % 5) {
    case 0:
      try_text(bytes, figure);
      break;
    case 1:
      std::copy_n(bytes.begin(), std::min<size_t>(bytes.size(), DNS_MAXDN), dn.begin());
      if (const unsigned length = dns_dnlen(dn.data()); length > 0) expect_round_trip(dn.data(), length);
      check((dns_dnlen(dn.data()) > 0) == (dns_dntop_size(dn.data()) > 0), "what is no DN has no text");
      break;
    case 2:
      try_packet(bytes, figure);
      break;
    default:
      try_address(bytes, how % 5 == 3 ? AF_INET : AF_INET6);
  }
  return 0;
}
