// dns_wire.h - names, addresses and packets in C form, for the library above the engine. The functions work on bytes
// alone: they use no socket, clock or lock, and allocate nothing.
#ifndef DNS_WIRE_H
#define DNS_WIRE_H

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <kavo/dns.h>

// ---- names and addresses -----------------------------------------------

extern "C" {

// dns_dnlen returns the length of a DN, its closing zero byte included; 0 for bytes that are no DN (a label above 63
// bytes, or no closing zero within DNS_MAXDN bytes). It reads at most DNS_MAXDN bytes.
unsigned dns_dnlen(const unsigned char *dn);

// dns_dnequal returns the length of two names that are the same domain, ASCII letters without regard to case (RFC
// 4343). 0 otherwise, also for bytes that are no DN.
unsigned dns_dnequal(const unsigned char *dn1, const unsigned char *dn2);

// dns_dntodn copies a DN; returns its length, 0 when it does not fit `size` or is no DN.
unsigned dns_dntodn(const unsigned char *sdn, unsigned char *ddn, unsigned size);

// dns_ptodn turns `length` bytes of text (0: up to its terminator) into a DN. "\X" and "\DDD" escapes are allowed; a
// closing dot is optional and reported through `absolute` (null allowed). Returns the DN's length; 0 when it does not
// fit `size` or is longer than DNS_MAXDN, below 0 when the text is no name (an empty label, a label above 63 bytes, an
// escape cut off or above 255). "." is the root.
int dns_ptodn(const char *text, unsigned length, unsigned char *dn, int size, int *absolute);

// dns_dntop writes a DN as text without a closing dot (the root is "."), dots and backslashes inside labels escaped as
// "\." and bytes outside printable ASCII as "\DDD". Returns the text's length without its terminator; 0 when it does
// not fit `size`, below 0 for bytes that are no DN. dns_dntop_size gives the bytes that the text and its terminator
// need, or 0.
int dns_dntop(const unsigned char *dn, char *text, int size);
unsigned dns_dntop_size(const unsigned char *dn);

// dns_dntosp is dns_dntop into a buffer of the calling thread's own, valid until the thread's next call; "" for no DN.
const char *dns_dntosp(const unsigned char *dn);

// dns_a4todn_ writes the four decimal labels of an address, lowest-order octet first, dns_a6todn_ the 32 nibble labels,
// lowest first (RFC 5782); neither a closing zero. They return the position after the last label, or null when the
// labels do not fit before `end`.
unsigned char *dns_a4todn_(const struct in_addr *address, unsigned char *dn, const unsigned char *end);
unsigned char *dns_a6todn_(const struct in6_addr *address, unsigned char *dn, const unsigned char *end);

// dns_pton reads an address text (AF_INET: strictly four decimal octets; AF_INET6). Above 0 for an address, 0 for a
// text that is none, below 0 for another family. dns_ntop writes one and returns `text`, or null when it does not fit.
int dns_pton(int family, const char *text, void *address);
const char *dns_ntop(int family, const void *address, char *text, unsigned size);

}  // extern "C"

// ---- packets in the C form -----------------------------------------------------------------------------------------

// dns_pkt: a packet being written. Records go into the section that is open: the answer section after dns_initpacket;
// dns_end_section closes the sections before the named one and opens that; DNS_S_ALL closes the packet.
struct dns_pkt {
  unsigned char *dnspk_start;
  unsigned char *dnspk_end;    // the byte after the last one written
  unsigned char *dnspk_limit;  // the byte after the buffer
  int dnspk_section;           // the section that is open
};

// dns_parse: a packet being read, record by record. The packet is untrusted and is never read outside its bounds.
struct dns_parse {
  const unsigned char *dnsp_pkt;
  const unsigned char *dnsp_end;
  const unsigned char *dnsp_cur;  // where the next record begins
  int dnsp_section;               // the section being walked
  unsigned dnsp_left;             // records left in it
};

extern "C" {

// dns_initpacket starts a packet with its header (QR and RA set, everything else 0) and one question. Returns the bytes
// written; DNS_E_NOBUFS or DNS_E_BADQUERY.
int dns_initpacket(struct dns_pkt *packet, unsigned char *buffer, unsigned size, const unsigned char *dn, dns_type typ,
                   dns_class cls);

// dns_addrr appends a record to the open section and counts it in the header; its name is compressed to a pointer to
// the question where it is the question's. Names in its data may be compressed against `source`, and are written
// uncompressed; with a null source they must not be. A negative TTL, an expired entry's, is written as 0. 0,
// DNS_E_NOBUFS, DNS_E_PROTOCOL.
int dns_addrr(struct dns_pkt *packet, const struct dns_parse *source, const struct dns_rr *rr);
int dns_end_section(struct dns_pkt *packet, int section);

// dns_initparse prepares to read [packet, end) from its question section on; `question` (null allowed) receives the
// question's DN (DNS_MAXDN bytes). 0, or DNS_E_PROTOCOL for a packet without a whole header or with malformed
// questions.
int dns_initparse(struct dns_parse *parse, const unsigned char *packet, const unsigned char *end,
                  unsigned char *question);
// dns_rewind_sec moves to the first record of a section (DNS_S_AN, DNS_S_NS, DNS_S_AR). 0 or DNS_E_PROTOCOL.
int dns_rewind_sec(struct dns_parse *parse, int section);
// dns_nextrr reads the next record of the section; its data points into the packet. 1, 0 after the last one, or
// DNS_E_PROTOCOL.
int dns_nextrr(struct dns_parse *parse, struct dns_rr *rr);

// dns_printheader prints a packet's header, dns_printsection one of its sections (DNS_S_QD to DNS_S_AR), as dig does:
// records in master-file form, an OPT record as the pseudo-section that it is. At `level` 0 there are records only, no
// header and no titles. A malformed section prints up to the fault. Only the bounds of `parse` matter, so that a packet
// which dns_initparse refused can be shown. 0, DNS_E_PROTOCOL for a packet that is truncated or malformed, DNS_E_INVAL.
int dns_printheader(FILE *stream, int level, const struct dns_parse *parse);
int dns_printsection(FILE *stream, int level, const struct dns_parse *parse, int section);

}  // extern "C"

#endif  // DNS_WIRE_H
