/*
 * c_host_test.c - a host program in plain C that calls every operation: creates a context, asks list and DNS questions
 * of the server at the port in its first argument, in each way that the interface offers, and closes. It stores what it
 * learned in the directory in its second argument (c_host_stored.c). The exit status is 0 when every answer was right.
 */
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "c_host.h"

static int failures = 0;

int expect(int holds, const char *what) {
  if (!holds) {
    fprintf(stderr, "failed: %s\n", what);
    failures++;
  }
  return holds;
}

static void count_lines(int level, const char *line, void *uctx) {
  if (level <= KAVO_LOG_ERR) fprintf(stderr, "%s\n", line);
  ++*(int *)uctx;
}

static void count_changes(KAVO kavo, KAVO_SRV_STATE before, KAVO_SRV_STATE after, void *uctx) {
  (void)kavo;
  if (before != after) ++*(int *)uctx;
}

uint32_t address_in(const KAVO_ANSWER *answer) {
  if (answer->err_code != KAVOE_OK || answer->actual_size == 0 || answer->rr.rr_a->dnsa4_nrr < 1) return 0;
  return ntohl(answer->rr.rr_a->dnsa4_addr[0].s_addr);
}

void release(KAVO_ANSWER *answers, int length) {
  int i;
  for (i = 0; i < length; i++)
    kavo_rr_free(&answers[i].rr);
  free(answers);
}

static struct sockaddr_in loopback(unsigned port) {
  struct sockaddr_in address;
  memset(&address, 0, sizeof address);
  address.sin_family = AF_INET;
  address.sin_port = htons((uint16_t)port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

/* ---- configuring ------------------------------------------------------------------------------------------------ */

static void count_packets(struct dns_ctx *ctx, struct dns_query *query, int code, void *data, void *udata) {
  if (code == DNS_D_PKT_REQ || code == DNS_D_PKT_RPAN) ++*(int *)udata;
  kavo_dbgcb(ctx, query, code, data, NULL);
}

/* The server is found by its name, through itself, and the trace shows the packets of that lookup. */
static void choose_server(KAVO kavo, unsigned port) {
  struct sockaddr servers[2];
  const struct sockaddr_in expected = loopback(port);
  struct sockaddr_storage either;
  unsigned count = 2;
  int packets = 0;

  EXPECT(kavo_add_dns_server(kavo, NULL, 0) == KAVOE_OK);
  EXPECT(kavo_add_dns_server(kavo, "127.0.0.1", port) == KAVOE_OK);
  EXPECT(kavo_set_trace(kavo, count_packets, &packets) == KAVOE_OK);
  EXPECT(kavo_set_dns_server(kavo, "none.a.list", port, 1) == KAVOE_NXDOM);
  EXPECT(kavo_dns_status(kavo) == KAVOE_NXDOM);
  EXPECT(kavo_set_dns_server(kavo, "ns.a.list", port, 1) == KAVOE_OK);
  EXPECT(kavo_set_trace(kavo, NULL, NULL) == KAVOE_OK);
  EXPECT(packets >= 4);
  EXPECT(kavo_get_dns_servers(kavo, servers, &count) == KAVOE_OK && count == 1);
  EXPECT(memcmp(&servers[0], &expected, sizeof servers[0]) == 0);
  count = 1;
  EXPECT(kavo_get_dns_servers_ss(kavo, &either, &count) == KAVOE_OK && count == 1);
  EXPECT(memcmp(&either, &expected, sizeof expected) == 0);
}

/* Everything that is set before opening; `right` is KAVOE_OK then, and KAVOE_SRV on a running context. */
static void configure(KAVO kavo, KAVO_ERR right) {
  const struct in_addr elsewhere = {htonl(INADDR_LOOPBACK + 1)};
  const struct sockaddr_in6 six = {.sin6_family = AF_INET6, .sin6_addr = IN6ADDR_LOOPBACK_INIT};

  EXPECT(kavo_set_opt(kavo, KAVOOPT_CLOSE_FAST, 1) == right);
  EXPECT(kavo_set_cookies(kavo, 1) == right);
  EXPECT(kavo_set_cost_zone(kavo, "cost.list") == (int)right);
  EXPECT(kavo_add_expserv(kavo, &elsewhere) == (int)right);
  EXPECT(kavo_add_expserv_s(kavo, (const struct sockaddr *)&six) == right);
}

static void choose_zones(KAVO kavo) {
  EXPECT(kavo_add_zone(kavo, KAVOT_BL_IP, "a.list") == KAVOE_OK);
  EXPECT(kavo_add_zone(kavo, KAVOT_BL_IP, "b.list") == KAVOE_OK);
  EXPECT(kavo_add_zone(kavo, KAVOT_BL_DOM, "b.list") == KAVOE_OK);
  EXPECT(kavo_add_zone(kavo, KAVOT_DNS_A, "b.list") != KAVOE_OK);
}

/* ---- asking ----------------------------------------------------------------------------------------------------- */

/* A listed and an unlisted address, both asked before either is waited for, and read in place. */
static void ask_lists(KAVO kavo) {
  KAVO_QUERY_NODE nodes[2];
  KAVO_ANSWER_ITERATOR iterator = kavo_alloc_answer_iterator();
  struct timeval deadline;
  const struct timeval *until = kavo_get_deadline(LONG_MS, &deadline);
  const KAVO_ANSWER *answer;

  EXPECT(kavo_subscribe_node_p(kavo, KAVOT_BL_IP, "192.0.2.1", 0, until, &nodes[0]) == KAVOE_OK);
  EXPECT(kavo_subscribe_node_p(kavo, KAVOT_BL_IP, "203.0.113.1", 0, until, &nodes[1]) == KAVOE_OK);
  EXPECT(kavo_nactive(kavo) == 2);
  EXPECT(kavo_wait_multiple_nodes(kavo, nodes, 2, KAVOWT_FULL, 1, until, NULL) == KAVOE_OK);

  EXPECT(kavo_set_answer_iterator(kavo, nodes[0], iterator) == KAVOE_OK);
  answer = kavo_get_answer(kavo, iterator);
  if (EXPECT(answer != NULL)) {
    EXPECT(address_in(answer) == 0x7f000002);
    EXPECT(strcmp(kavo_zonesmap_zone(kavo, answer->zone), "a.list") == 0);
  }
  answer = kavo_get_answer(kavo, iterator);
  EXPECT(answer != NULL && answer->err_code == KAVOE_NXDOM);
  EXPECT(kavo_get_answer(kavo, iterator) == NULL);

  EXPECT(kavo_set_answer_iterator(kavo, nodes[1], iterator) == KAVOE_OK);
  answer = kavo_get_answer(kavo, iterator);
  EXPECT(answer != NULL && answer->err_code == KAVOE_NXDOM);
  kavo_free_answer_iterator(iterator);
  EXPECT(kavo_unsubscribe_node(kavo, nodes[0]) == KAVOE_OK);
  EXPECT(kavo_unsubscribe_node(kavo, nodes[1]) == KAVOE_OK);
  EXPECT(kavo_nactive(kavo) == 0);
}

/* One call each; the array and its blocks are used again for each question. */
static void ask_in_one_call(KAVO kavo) {
  KAVO_ANSWER *answers = NULL;
  int length = 0, written = 0;

  EXPECT(kavo_query(kavo, KAVOT_BL_DOM, "bad.example", 11, &answers, length, &written, LONG_MS, KAVOWT_FULL, 0) ==
         KAVOE_OK);
  if (!EXPECT(written == 1)) return;
  length = written;
  EXPECT(address_in(&answers[0]) == 0x7f000009);
  copy_records(&answers[0]);
  keep_answers_itself(&answers[0]);
  EXPECT(kavo_query(kavo, KAVOT_DNS_MX, "a.list", 6, &answers, length, &written, LONG_MS, KAVOWT_FULL, 0) == KAVOE_OK);
  EXPECT(written == 1 && answers[0].type == KAVOT_DNS_MX && answers[0].zone == 0);
  if (EXPECT(answers[0].err_code == KAVOE_OK && answers[0].rr.rr_mx->dnsmx_nrr == 1)) {
    EXPECT(answers[0].rr.rr_mx->dnsmx_mx[0].priority == 10);
    EXPECT(strcmp(answers[0].rr.rr_mx->dnsmx_mx[0].name, "mail.a.list") == 0);
  }
  EXPECT(kavo_query(kavo, KAVOT_DNS_SOA, "a.list", 6, &answers, length, &written, LONG_MS, KAVOWT_FULL, 0) ==
         KAVOE_NOPARSER);
  release(answers, length);
}

/* finish waits for a node, expects `code` of its one answer, `address` in it when that is not 0, and drops the node. */
static void finish(KAVO kavo, KAVO_QUERY_NODE node, KAVO_ERR code, uint32_t address) {
  KAVO_ANSWER *answers = NULL;
  struct timeval deadline;
  int written = 0;

  EXPECT(kavo_wait_node(kavo, node, KAVOWT_FULL, kavo_get_deadline(LONG_MS, &deadline)) == KAVOE_OK);
  EXPECT(kavo_copy_answer(kavo, node, &answers, 0, &written, 1) == KAVOE_OK);
  if (EXPECT(written == 1)) {
    EXPECT(answers[0].err_code == code);
    EXPECT(address == 0 || address_in(&answers[0]) == address);
  }
  release(answers, written);
  EXPECT(kavo_unsubscribe_node(kavo, node) == KAVOE_OK);
}

/* The same name by its bytes and by its DN, of the context's servers and of one that we name. */
static void ask_by_every_road(KAVO kavo, unsigned port) {
  const struct sockaddr_in place = loopback(port);
  const struct sockaddr *server = (const struct sockaddr *)(const void *)&place;
  struct sockaddr_storage either = {0};
  const uint32_t address = INADDR_LOOPBACK;
  unsigned char dn[DNS_MAXDN], back[DNS_MAXDN];
  unsigned written = 0;
  KAVO_QUERY_NODE node;

  EXPECT(kavo_dns_ptodn("ns.a.list", 0, dn, sizeof dn) > 0);
  EXPECT(kavo_subscribe_node(kavo, KAVOT_DNS_A, "ns.a.list", 9, 0, NULL, &node) == KAVOE_OK);
  EXPECT(kavo_node_type(kavo, node) == KAVOT_DNS_A);
  EXPECT(kavo_node_qdn(kavo, node, back, sizeof back, &written) == KAVOE_OK);
  EXPECT(written == kavo_dns_dnlen(dn) && kavo_dns_dnequal(back, dn));
  finish(kavo, node, KAVOE_OK, address);
  EXPECT(kavo_subscribe_node_dn(kavo, KAVOT_DNS_A, dn, KAVOQF_RECURSIVE, NULL, &node) == KAVOE_OK);
  finish(kavo, node, KAVOE_OK, address);
  EXPECT(kavo_subscribe_node_serv(kavo, KAVOT_DNS_A, dn, server, 1, NULL, &node) == KAVOE_OK);
  finish(kavo, node, KAVOE_OK, address);
  EXPECT(kavo_subscribe_node_serv_ext(kavo, KAVOT_DNS_SOA, dn, server, 1, KAVOQF_PKT, NULL, &node) == KAVOE_OK);
  EXPECT(kavo_node_type(kavo, node) == KAVOT_DNS_SOA);
  finish(kavo, node, KAVOE_NODATA, 0);
  EXPECT(kavo_subscribe_node_dcache(kavo, KAVOT_DNS_A, dn, server, NULL, &node) == KAVOE_OK);
  finish(kavo, node, KAVOE_OK, address);
  memcpy(&either, &place, sizeof place);
  EXPECT(kavo_subscribe_node_serv_ss(kavo, KAVOT_DNS_A, dn, &either, 1, 0, NULL, &node) == KAVOE_OK);
  finish(kavo, node, KAVOE_OK, address);
  EXPECT(kavo_subscribe_node_dcache_ss(kavo, KAVOT_DNS_A, dn, &either, 0, NULL, &node) == KAVOE_OK);
  finish(kavo, node, KAVOE_OK, address);
}

/* A server without data about a name fails the check of its cache, and the question continues. */
static void ask_a_cache_in_vain(KAVO kavo) {
  unsigned char dn[DNS_MAXDN];
  struct timeval deadline;
  KAVO_QUERY_NODE node;

  EXPECT(kavo_dns_ptodn("elsewhere.example", 0, dn, sizeof dn) > 0);
  EXPECT(kavo_subscribe_node_dcache_ext(kavo, KAVOT_DNS_A, dn, NULL, KAVOQF_RECURSIVE, NULL, &node) == KAVOE_OK);
  EXPECT(kavo_wait_node(kavo, node, KAVOWT_DCACHE, kavo_get_deadline(LONG_MS, &deadline)) == KAVOE_OK);
  finish(kavo, node, kavo_convert_status(DNS_E_REFUSED), 0);
}

/* ---- waiting ---------------------------------------------------------------------------------------------------- */

struct pair {
  KAVO_QUERY_NODE nodes[2];
  unsigned at;
};

static unsigned pair_count(void *ctx) {
  (void)ctx;
  return 2;
}
static void pair_rewind(void *ctx) {
  ((struct pair *)ctx)->at = 0;
}
static int pair_advance(void *ctx) {
  return ++((struct pair *)ctx)->at < 2;
}
static KAVO_QUERY_NODE pair_value(void *ctx) {
  const struct pair *pair = ctx;
  return pair->at < 2 ? pair->nodes[pair->at] : NULL;
}

/* A question that no server answers, and a sync node that ends the wait for it. */
static void be_called_away(KAVO kavo) {
  struct pair pair;
  KAVO_NODELIST_ITERATOR list = {&pair, pair_count, pair_rewind, pair_advance, pair_value};
  struct timeval until;

  EXPECT(kavo_subscribe_node_p(kavo, KAVOT_DNS_A, "www.mute.list", 0, NULL, &pair.nodes[0]) == KAVOE_OK);
  EXPECT(kavo_subscribe_syncnode(kavo, NULL, &pair.nodes[1]) == KAVOE_OK);
  EXPECT(kavo_node_type(kavo, pair.nodes[1]) == KAVOT_SYNC);
  EXPECT(kavo_signal_syncnode(kavo, pair.nodes[0]) == KAVOE_BADPAR);
  EXPECT(kavo_signal_syncnode(kavo, pair.nodes[1]) == KAVOE_OK);
  EXPECT(kavo_wait_nodelist(kavo, &list, KAVOWT_FULL, 0, kavo_get_deadline(LONG_MS, &until)) == KAVOE_OK);
  EXPECT(kavo_wait_nodelist(kavo, &list, KAVOWT_FULL, 0, kavo_get_deadline(SHORT_MS, &until)) == KAVOE_TIMEOUT);
  EXPECT(kavo_unsubscribe_node(kavo, pair.nodes[0]) == KAVOE_OK);
  EXPECT(kavo_unsubscribe_node(kavo, pair.nodes[1]) == KAVOE_OK);
}

static void count_for_server(KAVO kavo, unsigned port) {
  const struct sockaddr_in place = loopback(port);
  const struct sockaddr *server = (const struct sockaddr *)(const void *)&place;
  int average = -1, last = -1, checked = -1, window = 0, waiting = -1;
  uint64_t sent = 0, used = 0, timed_out = UINT64_MAX, overloads = UINT64_MAX, dropped = UINT64_MAX;

  EXPECT(kavo_get_serv_avgrtt(kavo, server, &average) == KAVOE_OK && average >= 0);
  EXPECT(kavo_get_serv_lastrtt(kavo, server, &last) == KAVOE_OK && last >= 0);
  EXPECT(kavo_get_serv_last_check(kavo, server, &checked) == KAVOE_OK && checked > 0);
  EXPECT(kavo_get_serv_nqsent(kavo, server, &sent) == KAVOE_OK);
  EXPECT(kavo_get_serv_nused(kavo, server, &used) == KAVOE_OK && used > 0 && used <= sent);
  EXPECT(kavo_get_serv_ntimeout(kavo, server, &timed_out) == KAVOE_OK && timed_out < sent);
  EXPECT(kavo_get_serv_window(kavo, server, &window) == KAVOE_OK && window >= 1 && window <= 4096);
  EXPECT(kavo_get_serv_nwaiting(kavo, server, &waiting) == KAVOE_OK && waiting == 0);
  EXPECT(kavo_get_serv_noverload(kavo, server, &overloads) == KAVOE_OK && overloads <= timed_out);
  EXPECT(kavo_get_ndropped(kavo, &dropped) == KAVOE_OK && dropped == 0);
}

int main(int argc, char **argv) {
  KAVO kavo = NULL;
  int lines = 0, changes = 0;
  const unsigned port = argc == 3 ? (unsigned)strtoul(argv[1], NULL, 10) : 0;

  kavo_set_log_cb(count_lines, &lines);
  if (!EXPECT(port != 0) || !EXPECT(kavo_init(&kavo, 100, 1 << 16, 0) == KAVOE_OK)) return EXIT_FAILURE;
  speak_of_types();
  count_time();
  EXPECT(kavo_set_srvstate_chg_cb(kavo, count_changes, &changes) == 0);
  choose_server(kavo, port);
  choose_zones(kavo);
  keep_zones(kavo, argv[2]);
  configure(kavo, KAVOE_OK);
  kavo_add_args(kavo, 16);
  EXPECT(kavo_open(kavo) == KAVOE_OK && kavo_srv_is_running(kavo));
  configure(kavo, KAVOE_SRV);
  ask_lists(kavo);
  ask_in_one_call(kavo);
  ask_by_every_road(kavo, port);
  ask_a_cache_in_vain(kavo);
  count_for_server(kavo, port);
  save_and_load(kavo, argv[2]);
  be_called_away(kavo);
  EXPECT(kavo_close(kavo) == KAVOE_OK && !kavo_srv_is_running(kavo));
  EXPECT(changes == 4);
  kavo_free_args(kavo);
  EXPECT(kavo_free(kavo) == KAVOE_OK);
  EXPECT(lines > 0); /* at least the refused type */
  return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
