// kavo_dbg.cc - what a host sees of the DNS traffic: the ready-made trace, and its place in a context.
//
// A trace function runs on the thread that drives an engine context, which is the server thread of a kavo context, and
// the host's while kavo_set_dns_server looks names up.
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include <dns_wire.h>
#include <pelk.h>

#include "kavo_t.h"

namespace {

constexpr char kSource[] = "kavo_dbg";

constexpr unsigned kAddressRoom = 46;  // the longest text of an address of either family, and its terminator
constexpr unsigned kFlagsAt = 2;       // the third byte of a header: opcode and TC among others
constexpr unsigned kOpcodeShift = 3;
constexpr unsigned kOpcodeMask = 0x0F;
constexpr unsigned kTcBit = 0x02;

// kavo_xntop returns an address as text, in a buffer of the calling thread's own.
const char *kavo_xntop(int af, const void *src) {
  static thread_local char text[kAddressRoom];
  return dns_ntop(af, src, text, sizeof text) != nullptr ? text : "";
}

// question_name returns the name behind the packet's header as text without its closing dot: empty for the root, and
// where none stands.
const char *question_name(const dns_dpkt &event) {
  unsigned char dn[DNS_MAXDN];
  memset(dn, UINT8_MAX, sizeof dn);  // no label's length: a name that is cut off is none
  if (event.dnsd_plen > DNS_HSIZE)
    memcpy(dn, event.dnsd_pkt + DNS_HSIZE, std::min<size_t>(event.dnsd_plen - DNS_HSIZE, sizeof dn));
  return *dn == 0 ? "" : dns_dntosp(dn);
}

const char *response_kind(int code) {
  switch (code) {
    case DNS_D_PKT_RPAN:
      return " answer";
    case DNS_D_PKT_RPCNAME:
      return " cname";
    case DNS_D_PKT_RPNS:
      return " referral";
    default:
      return "";
  }
}

const char *fault_line(int code) {
  switch (code) {
    case DNS_D_PKT_RPINV:
      return ";; invalid response\n";
    case DNS_D_PKT_NOREQ:
      return ";; unexpected response\n";
    case DNS_D_PKT_RFINV:
      return ";; recursion flags are not acceptable\n";
    case DNS_D_PKT_LAME:
      return ";; lame referral\n";
    case DNS_D_PKT_NEDNS0:
      return ";; EDNS0 is not supported\n";
    case DNS_D_PKT_SERVERR:
      return ";; server error\n";
    case DNS_D_PKT_NOQR:
      return ";; no query response flag\n";
    default:
      return "";
  }
}

void print_address(const struct sockaddr *address, const char *end) {
  struct sockaddr_in ip4 = {};
  memcpy(&ip4, address, sizeof ip4.sin_family);
  if (ip4.sin_family != AF_INET) {
    fprintf(stderr, "<<unknown socket type %d>>%s", ip4.sin_family, end);
    return;
  }
  memcpy(&ip4, address, sizeof ip4);
  fprintf(stderr, "%s port %d%s", kavo_xntop(AF_INET, &ip4.sin_addr), ntohs(ip4.sin_port), end);
}

void print_first_line(const dns_dpkt &event, int code, const struct dns_query *qh) {
  if (code == DNS_D_PKT_REQ)
    printf(";; trying %s.\n", question_name(event));
  else if (qh != nullptr)
    printf(";; response:%s for %s.\n", response_kind(code), question_name(event));
}

void print_ends(const dns_dpkt &event, int code, const struct dns_query *qh) {
  const bool request = code == DNS_D_PKT_REQ;
  if (event.dnsd_sarem != nullptr) {
    fprintf(stderr, request ? ";; sending %u bytes request to " : ";; received %u bytes response from ",
            event.dnsd_plen);
    print_address(event.dnsd_sarem, "\n");
  }
  if (event.dnsd_saloc == nullptr) return;
  fputs(";; via ", stderr);
  print_address(event.dnsd_saloc, "");
  if (!request && qh != nullptr) fprintf(stderr, " rtt %d msec", event.dnsd_rtt);
  fputc('\n', stderr);
}

void print_packet(const dns_dpkt &event) {
  const unsigned flags = event.dnsd_pkt[kFlagsAt];
  const unsigned opcode = flags >> kOpcodeShift & kOpcodeMask;
  if (opcode != 0) fprintf(stderr, ";; unexpected opcode %u\n", opcode);
  if ((flags & kTcBit) != 0) fputs(";; warning: TC bit set, probably incomplete reply\n", stderr);
  (void)dns_printpkt(stderr, event.dnsd_pkt, event.dnsd_plen);  // as far as it is sound
  fputs("\n\n\n", stderr);
}

}  // namespace

extern "C" {

void kavo_dbgcb(struct dns_ctx *, struct dns_query *qh, int code, void *ddata, void *) {
  if ((code & DNS_D_SYS) != 0 || ddata == nullptr) return;
  const dns_dpkt &event = *static_cast<const dns_dpkt *>(ddata);
  print_first_line(event, code, qh);
  print_ends(event, code, qh);
  fputs(fault_line(code), stdout);
  if (event.dnsd_plen < DNS_HSIZE) {
    fprintf(stderr, ";; short packet (%u bytes)\n", event.dnsd_plen);
    return;
  }
  print_packet(event);
}

KAVO_ERR kavo_set_trace(KAVO kavo, dns_dbg_fn *fn, void *udata) {
  if (kavo == nullptr) return KAVOE_BADPAR;
  if (!kavo_is_configurable(kavo)) {
    PELK_WARN(kSource, __func__, "Cannot set trace function because KAVO is already opened");
    return KAVOE_SRV;
  }
  kavo->trace = fn;
  kavo->trace_data = udata;
  const unsigned events = DNS_DE_CACHE;
  dns_set_dbgev(kavo->udns_ctx, fn == nullptr ? events : events | DNS_DE_PKT);
  return KAVOE_OK;
}

}  // extern "C"
