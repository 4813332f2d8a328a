// record_stream.cc - record blocks from a stream: the first byte picks the layout, the rest is a run of records. What
// is read is sound, and written and read again it is the same; copied, too, where it has both names.
#include "fuzz.h"

namespace {

using fuzz::check;

void expect_stored(KAVO_TYPE type, const KAVO_RR &rr) {
  const std::string text = fuzz::text_of(type, rr);
  const std::string stored = fuzz::written(
      [&](FILE *stream) { check(kavo_rr_write(type, &rr, stream) == KAVOE_OK, "what was read can be written"); });
  const fuzz::Stream stream = fuzz::reading({reinterpret_cast<const uint8_t *>(stored.data()), stored.size()});
  KAVO_RR again = {};
  check(kavo_rr_read(type, &again, stream.get()) == KAVOE_OK, "what was written can be read");
  check(fuzz::text_of(type, again) == text, "read, written and read, a block is the same");
  check(static_cast<size_t>(ftell(stream.get())) == stored.size(), "the reader stops after the record");
  kavo_rr_free(&again);
}

// is_whole tells whether everything is there that a copy needs: both names, the entries' names, and the texts, of which
// an empty one needs a terminator for which a forged record need not leave room.
bool is_whole(KAVO_TYPE type, const KAVO_RR &rr) {
  if (type == KAVOT_PKT) return true;
  if (rr.rr_null->dnsn_cname == nullptr || rr.rr_null->dnsn_qname == nullptr) return false;
  const bool named = type != KAVOT_DNS_A && type != KAVOT_DNS_AAAA && type != KAVOT_DNS_ETXT;
  for (int32_t i = 0; named && i < rr.rr_null->dnsn_nrr; ++i) {
    const char *name = type == KAVOT_DNS_MX    ? rr.rr_mx->dnsmx_mx[i].name
                       : type == KAVOT_DNS_SRV ? rr.rr_srv->dnssrv_srv[i].name
                       : type == KAVOT_DNS_TXT ? rr.rr_txt->dnstxt_txt[i].txt
                                               : rr.rr_ptr->dnsptr_ptr[i];
    if (name == nullptr) return false;
  }
  return true;
}

// expect_contained checks that a block with a byte changed copies to a sound one or not at all.
void expect_contained(KAVO_TYPE type, const KAVO_RR &rr, size_t place) {
  const size_t used = kavo_rr_get_size(&rr) - sizeof(dns_rr_mem);
  if (used == 0) return;
  uint8_t *byte = reinterpret_cast<uint8_t *>(rr.rr_mem) + sizeof(dns_rr_mem) + place % used;
  for (const uint8_t change : {0x01, 0x08, 0xff}) {
    KAVO_RR copy = {};
    *byte ^= change;
    const KAVO_ERR error = kavo_rr_dup(type, &rr, &copy);
    *byte ^= change;
    check(error == KAVOE_OK || error == KAVOE_FAIL || error == KAVOE_NOMEM, "a false block is refused");
    if (error == KAVOE_OK) (void)fuzz::text_of(type, copy);
    kavo_rr_free(&copy);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::quiet();
  fuzz::Input input(data, size);
  const KAVO_TYPE type = fuzz::kBlockTypes[input.u8() % std::size(fuzz::kBlockTypes)];
  const fuzz::Stream stream = fuzz::reading(input.rest());
  KAVO_RR rr = {};
  while (kavo_rr_read(type, &rr, stream.get()) == KAVOE_OK) {
    expect_stored(type, rr);
    KAVO_RR copy = {};
    const bool copied = kavo_rr_dup(type, &rr, &copy) == KAVOE_OK;
    check(copied || !is_whole(type, rr), "a whole block can be copied");
    if (copied) check(fuzz::text_of(type, copy) == fuzz::text_of(type, rr), "a copy holds what its block holds");
    kavo_rr_free(&copy);
    expect_contained(type, rr, size);
  }
  kavo_rr_free(&rr);
  return 0;
}
