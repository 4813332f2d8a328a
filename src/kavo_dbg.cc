// kavo_dbg.cc - what a host sees of the DNS traffic: the ready-made trace, and its place in a context.
//
// The ready-made trace puts an event's text together before it writes the text, so that the lines of several threads
// and processes do not mix, and a packet costs one system call.
//
// A trace function runs on the thread that drives an engine context: the server thread of a kavo context, or the host's
// thread while kavo_set_dns_server looks names up.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include <dns_engine.h>
#include <dns_wire.h>
#include <pelk_thread.h>

#include "kavo_rest.h"
#include "kavo_t.h"

namespace {

constexpr char kSource[] = "kavo_dbg";

constexpr unsigned kAddressRoom = 46;  // the longest text of an address of either family, and its terminator
constexpr unsigned kFlagsAt = 2;       // the third byte of a header: opcode and TC among others
constexpr unsigned kOpcodeShift = 3;
constexpr unsigned kOpcodeMask = 0x0F;
constexpr unsigned kTcBit = 0x02;

// kavo_xntop returns an address as text, in a buffer of the calling thread's own.
[[nodiscard]] const char *kavo_xntop(int af, const void *src) {
  static thread_local char text[kAddressRoom];
  return dns_ntop(af, src, text, sizeof text) != nullptr ? text : "";
}

// question_name returns the name after the packet's header as text without its closing dot, empty for the root and for
// a packet without a name.
[[nodiscard]] const char *question_name(const dns_dpkt &event) {
  unsigned char dn[DNS_MAXDN];
  memset(dn, UINT8_MAX, sizeof dn);  // no label's length, so that a name cut off is no name
  if (event.dnsd_plen > DNS_HSIZE)
    memcpy(dn, event.dnsd_pkt + DNS_HSIZE, std::min<size_t>(event.dnsd_plen - DNS_HSIZE, sizeof dn));
  return *dn == 0 ? "" : dns_dntosp(dn);
}

[[nodiscard]] const char *response_kind(int code) {
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

[[nodiscard]] const char *fault_line(int code) {
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

// Event is what a trace function is told.
struct Event {
  const dns_dpkt &packet;
  int code = 0;
  const struct dns_query *qh = nullptr;
};

void print_address(FILE *out, const struct sockaddr *address, const char *end) {
  struct sockaddr_in ip4 = {};
  memcpy(&ip4, address, sizeof ip4.sin_family);
  if (ip4.sin_family != AF_INET) {
    fprintf(out, "<<unknown socket type %d>>%s", ip4.sin_family, end);
    return;
  }
  memcpy(&ip4, address, sizeof ip4);
  fprintf(out, "%s port %d%s", kavo_xntop(AF_INET, &ip4.sin_addr), ntohs(ip4.sin_port), end);
}

// print_summary prints what goes to standard output.
void print_summary(FILE *out, const Event &event) {
  if (event.code == DNS_D_PKT_REQ)
    fprintf(out, ";; trying %s.\n", question_name(event.packet));
  else if (event.qh != nullptr)
    fprintf(out, ";; response:%s for %s.\n", response_kind(event.code), question_name(event.packet));
  fputs(fault_line(event.code), out);
}

void print_ends(FILE *out, const Event &event) {
  const dns_dpkt &packet = event.packet;
  const bool request = event.code == DNS_D_PKT_REQ;
  if (packet.dnsd_sarem != nullptr) {
    fprintf(out, request ? ";; sending %u bytes request to " : ";; received %u bytes response from ", packet.dnsd_plen);
    print_address(out, packet.dnsd_sarem, "\n");
  }
  if (packet.dnsd_saloc == nullptr) return;
  fputs(";; via ", out);
  print_address(out, packet.dnsd_saloc, "");
  if (!request && event.qh != nullptr) fprintf(out, " rtt %d msec", packet.dnsd_rtt);
  fputc('\n', out);
}

// print_details prints what goes to standard error.
void print_details(FILE *out, const Event &event) {
  const dns_dpkt &packet = event.packet;
  print_ends(out, event);
  if (packet.dnsd_plen < DNS_HSIZE) {
    fprintf(out, ";; short packet (%u bytes)\n", packet.dnsd_plen);
    return;
  }
  const unsigned flags = packet.dnsd_pkt[kFlagsAt];
  const unsigned opcode = flags >> kOpcodeShift & kOpcodeMask;
  if (opcode != 0) fprintf(out, ";; unexpected opcode %u\n", opcode);
  if ((flags & kTcBit) != 0) fputs(";; warning: TC bit set, probably incomplete reply\n", out);
  (void)dns_printpkt(out, packet.dnsd_pkt, packet.dnsd_plen);  // as far as it is sound
  fputs("\n\n\n", out);
}

// print_whole prints an event's text to a stream in one piece, or piece by piece without memory for that.
void print_whole(FILE *out, void (*print)(FILE *, const Event &), const Event &event) {
  char *text = nullptr;
  size_t size = 0;
  FILE *memory = open_memstream(&text, &size);
  bool whole = memory != nullptr;
  if (whole) {
    print(memory, event);
    whole = ferror(memory) == 0;
    whole = fclose(memory) == 0 && whole;
  }
  if (whole)
    (void)fwrite(text, 1, size, out);
  else
    print(out, event);
  free(text);
}

}  // namespace

extern "C" {

void kavo_dbgcb(struct dns_ctx *, struct dns_query *qh, int code, void *ddata, void *) {
  if ((code & DNS_D_SYS) != 0 || ddata == nullptr) return;
  const pelk_no_cancel whole;
  const Event event = {*static_cast<const dns_dpkt *>(ddata), code, qh};
  print_whole(stdout, print_summary, event);
  print_whole(stderr, print_details, event);
}

KAVO_ERR kavo_set_trace(KAVO kavo, dns_dbg_fn *fn, void *udata) {
  const KAVO_ERR refused =
      kavo_check_at_rest(kavo, kSource, __func__, "Cannot set trace function because KAVO is already opened");
  if (refused != KAVOE_OK) return refused;
  kavo->trace = fn;
  kavo->trace_data = udata;
  const unsigned events = DNS_DE_CACHE;
  dns_set_dbgev(kavo->udns_ctx, fn == nullptr ? events : events | DNS_DE_PKT);
  return KAVOE_OK;
}

}  // extern "C"
