/*
 * c_host_stored.c - the half of the host program in C that needs no server: names, types and times; record blocks and
 * zones in memory, streams and files; answers in a cache of the host's own and in a file.
 */
#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>

#include "c_host.h"

enum { PATH_BYTES = 4096, TABLE_SIZE = 8, CACHE_BYTES = 1 << 16 };

static const char *in_directory(char *path, const char *directory, const char *name) {
  snprintf(path, PATH_BYTES, "%s/%s", directory, name);
  return path;
}

/* ---- names, types and times ------------------------------------------------------------------------------------- */

static void speak_of_names(void) {
  unsigned char from_address[DNS_MAXDN], from_text[DNS_MAXDN], copy[DNS_MAXDN];
  const char *reversed = "1.2.0.192, and more";
  const int length = 11; /* four labels with their length bytes, and the root's */
  const char *nibbles = "f.e.d.c.b.a.9.8.7.6.5.4.3.2.1.0.0.0.0.0.0.0.0.0.8.b.d.0.1.0.0.2";
  const struct in6_addr six = {{{0x20, 1, 0x0d, 0xb8, 0, 0, 0, 0, 1, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef}}};
  struct in_addr address;

  EXPECT(kavo_dns_ptoa4("192.0.2.256", &address) <= 0);
  EXPECT(kavo_dns_ptoa4("192.0.2.1", &address) > 0 && address.s_addr == htonl(0xc0000201));
  EXPECT(kavo_dns_a4todn(&address, from_address, sizeof from_address) == length);
  EXPECT(kavo_dns_ptodn(reversed, 9, from_text, sizeof from_text) == length);
  EXPECT(kavo_dns_dnequal(from_address, from_text));
  EXPECT(kavo_dns_dnlen(from_text) == (unsigned)length);
  EXPECT(kavo_dns_dntodn(from_text, copy, (unsigned)length - 1) == 0);
  EXPECT(kavo_dns_dntodn(from_text, copy, sizeof copy) == (unsigned)length);
  copy[length - 2] ^= 1;
  EXPECT(!kavo_dns_dnequal(from_address, copy));
  EXPECT(kavo_dns_a6todn(&six, from_address, 64) == 0);
  EXPECT(kavo_dns_a6todn(&six, from_address, 65) == 65);
  EXPECT(kavo_dns_ptodn(nibbles, 0, from_text, sizeof from_text) == 65 && memcmp(from_address, from_text, 65) == 0);
}

void speak_of_types(void) {
  int option;

  speak_of_names();
  EXPECT(kavo_convert_type(KAVOT_BL_IP_TXT) == DNS_T_TXT);
  EXPECT(kavo_convert_type_r(DNS_T_MX) == KAVOT_DNS_MX);
  EXPECT(kavo_convert_status(DNS_E_NXDOMAIN) == KAVOE_NXDOM);
  EXPECT(kavo_get_parser(KAVOT_BL_MX, 0) == dns_parse_mx);
  EXPECT(kavo_get_parser(KAVOT_DNS_SOA, 0) == NULL && !kavo_isparseable(KAVOT_DNS_SOA));
  EXPECT(kavo_name2type(kavo_typename(KAVOT_BL_DOM_TXT)) == KAVOT_BL_DOM_TXT);
  EXPECT(strcmp(kavo_strerror(KAVOE_NOZONES), kavo_strerror(KAVOE_NODATA)) != 0);
  for (option = KAVOOPT_NXDOM_TTL; option <= KAVOOPT_RATE; option++)
    EXPECT(kavo_opt_name((KAVO_OPT)option) != NULL);
  EXPECT(kavo_opt_name((KAVO_OPT)option) == NULL);
  EXPECT(kavo_version() >> 24 == 4 && kavo_rev() != 0);
}

void count_time(void) {
  struct timeval span, now, until;

  EXPECT(kavo_time_milli_timeval(LONG_MS + 5, &span) == KAVOE_OK);
  EXPECT(span.tv_sec == LONG_MS / 1000 && span.tv_usec == 5000);
  EXPECT(kavo_get_deadline(0, &now) == &now);
  EXPECT(kavo_time_deadline(&span, &until) == KAVOE_OK);
  EXPECT(kavo_time_milli_delay(&now, &until) >= LONG_MS);
  EXPECT(kavo_time_milli_delay(&until, &now) == 0);
}

/* ---- records ---------------------------------------------------------------------------------------------------- */

static void expect_listed(const KAVO_RR *rr, const KAVO_RR *like) {
  EXPECT(rr->rr_a != like->rr_a && rr->rr_a->dnsa4_nrr == like->rr_a->dnsa4_nrr);
  EXPECT(rr->rr_a->dnsa4_addr[0].s_addr == like->rr_a->dnsa4_addr[0].s_addr);
  EXPECT(strcmp(rr->rr_a->dnsa4_qname, like->rr_a->dnsa4_qname) == 0);
}

/* Copies of an answer's addresses, in blocks of our own and through a stream. */
void copy_records(const KAVO_ANSWER *answer) {
  const unsigned size = kavo_rr_get_size(&answer->rr);
  KAVO_RR copy = {NULL}, twin = {NULL}, back = {NULL};
  FILE *stream = tmpfile();

  EXPECT(size == answer->actual_size && size > 1);
  EXPECT(kavo_rr_alloc(&copy, size - 1) == KAVOE_OK);
  EXPECT(kavo_rr_cpy(answer->type, &answer->rr, &copy) == KAVOE_NOMEM);
  EXPECT(kavo_rr_realloc(&copy, size) == KAVOE_OK);
  EXPECT(kavo_rr_cpy(answer->type, &answer->rr, &copy) == KAVOE_OK);
  expect_listed(&copy, &answer->rr);
  EXPECT(kavo_rr_dup(answer->type, &copy, &twin) == KAVOE_OK);
  expect_listed(&twin, &copy);

  EXPECT(stream != NULL && kavo_rr_write(answer->type, &twin, stream) == KAVOE_OK);
  rewind(stream);
  EXPECT(kavo_rr_read(answer->type, &back, stream) == KAVOE_OK);
  expect_listed(&back, &copy);
  EXPECT(kavo_rr_read(answer->type, &back, stream) == KAVOE_FILE); /* the stream held one */
  fclose(stream);
  kavo_rr_free(&copy);
  kavo_rr_free(&twin);
  kavo_rr_free(&back);
  EXPECT(kavo_rr_get_size(&back) == 0);
}

/* ---- zones ------------------------------------------------------------------------------------------------------ */

/* `to` has the zones of `from`, under the same numbers. */
static void expect_zones(KAVO to, KAVO from) {
  char name[DNS_MAXDN];
  int zone = 1;

  for (; kavo_zonesmap_zone(from, zone) != NULL; zone++) {
    EXPECT(kavo_zonesmap_zone_cpy(to, zone, name, sizeof name) == KAVOE_OK);
    EXPECT(strcmp(name, kavo_zonesmap_zone(from, zone)) == 0);
  }
  EXPECT(zone > 1 && kavo_zonesmap_zone(to, zone) == NULL);
}

/* The zones of a context go to another one by a text file, and then by a record in a stream. */
void keep_zones(KAVO kavo, const char *directory) {
  char path[PATH_BYTES];
  KAVO other = NULL;
  FILE *stream = tmpfile();

  if (!EXPECT(stream != NULL && kavo_init_ext(&other, TABLE_SIZE, 0, 2, 0) == KAVOE_OK)) return;
  EXPECT(kavo_zonesmap_save_cfg(kavo, in_directory(path, directory, "zones.cfg")) == KAVOE_OK);
  EXPECT(kavo_zonesmap_init_cfg(other, path) == KAVOE_OK);
  expect_zones(other, kavo);
  kavo_free_zones(other);
  EXPECT(kavo_zonesmap_zone(other, 1) == NULL);

  EXPECT(kavo_zonesmap_init(other) == KAVOE_OK);
  EXPECT(kavo_zonesmap_save_bin(kavo, kavo_get_zonesmap(kavo), stream) == KAVOE_OK);
  rewind(stream);
  EXPECT(kavo_zonesmap_init_bin(other, kavo_get_zonesmap(other), stream) == KAVOE_OK);
  expect_zones(other, kavo);
  fclose(stream);
  EXPECT(kavo_free(other) == KAVOE_OK);
}

/* ---- answers ---------------------------------------------------------------------------------------------------- */

/* A cache of the host's own, installed in a context that has none. */
void keep_answers_itself(const KAVO_ANSWER *answer) {
  struct dns_cache *cache = dns_cache_init(CACHE_BYTES);
  const KAVO_CACHE cacher = dns_cache_cacher(cache);
  KAVO_RR block = answer->rr;
  KAVO_ANSWER found;
  KAVO kavo = NULL;

  memset(&found, 0, sizeof found);
  EXPECT(kavo_init(&kavo, TABLE_SIZE, 0, 0) == KAVOE_OK && kavo_get_ext_cache(kavo, KAVOCT_ANS) == NULL);
  EXPECT(kavo_set_ext_cache(kavo, KAVOCT_ANS, cacher) == KAVOE_OK);
  EXPECT(kavo_get_ext_cache(kavo, KAVOCT_ANS) == cacher && kavo_get_ext_cache(kavo, KAVOCT_REF) == NULL);
  EXPECT(kavo_cache_put(cacher, answer->type, "kept.example", 12, &block) == KAVOE_OK);
  EXPECT(kavo_cache_has(cacher, answer->type, "kept.example", 12) == KAVOE_OK);
  EXPECT(kavo_cache_get(cacher, answer->type, "KEPT.example", 12, &found, 0) == KAVOE_OK);
  EXPECT(found.cache_code == KAVOCC_EXISTS && address_in(&found) == address_in(answer));
  EXPECT(kavo_cache_del(cacher, answer->type, "kept.example", 12) == KAVOE_OK);
  EXPECT(kavo_cache_get(cacher, answer->type, "kept.example", 12, &found, 0) == KAVOE_NODATA);
  kavo_rr_free(&found.rr);
  EXPECT(kavo_free(kavo) == KAVOE_OK);
  dns_cache_destroy(cache);
}

/* What a context has learned answers in another one, which has no server to ask. */
void save_and_load(KAVO kavo, const char *directory) {
  char path[PATH_BYTES];
  KAVO_ANSWER *answers = NULL;
  KAVO other = NULL;
  int written = 0;

  EXPECT(kavo_cachesave(kavo, in_directory(path, directory, "cache")) == KAVOE_OK);
  if (!EXPECT(kavo_init(&other, TABLE_SIZE, CACHE_BYTES, 0) == KAVOE_OK)) return;
  EXPECT(kavo_cacheload(other, in_directory(path, directory, "zones.cfg")) == KAVOE_FILE);
  EXPECT(kavo_cacheload(other, in_directory(path, directory, "cache")) == KAVOE_OK);
  EXPECT(kavo_add_dns_server(other, NULL, 0) == KAVOE_OK);
  EXPECT(kavo_open(other) == KAVOE_OK);
  EXPECT(kavo_query(other, KAVOT_DNS_A, "bad.example.b.list", 18, &answers, 0, &written, LONG_MS, KAVOWT_FULL, 0) ==
         KAVOE_OK);
  EXPECT(written == 1 && answers[0].cache_code == KAVOCC_EXISTS && address_in(&answers[0]) == 0x7f000009);
  release(answers, written);
  EXPECT(kavo_close(other) == KAVOE_OK);
  EXPECT(kavo_free(other) == KAVOE_OK);
}
