/*
 * c_host_test - a host program in plain C: creates a context, asks list and DNS questions of the server at the port
 * that its argument names, by each road that the interface offers, and closes. Ends with 0 when every answer was the
 * right one.
 */
#include <arpa/inet.h>
#include <kavo.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int failures = 0;

static int expect(int holds, const char *what) {
  if (!holds) {
    fprintf(stderr, "failed: %s\n", what);
    failures++;
  }
  return holds;
}

#define EXPECT(condition) expect((condition) ? 1 : 0, #condition)

static void count_lines(int level, const char *line, void *uctx) {
  if (level <= KAVO_LOG_ERR) fprintf(stderr, "%s\n", line);
  ++*(int *)uctx;
}

static void count_changes(KAVO kavo, KAVO_SRV_STATE before, KAVO_SRV_STATE after, void *uctx) {
  (void)kavo;
  if (before != after) ++*(int *)uctx;
}

static uint32_t address_in(const KAVO_ANSWER *answer) {
  if (answer->err_code != KAVOE_OK || answer->actual_size == 0 || answer->rr.rr_a->dnsa4_nrr < 1) return 0;
  return ntohl(answer->rr.rr_a->dnsa4_addr[0].s_addr);
}

/* A listed and an unlisted address, both asked before either is waited for, and read in place. */
static void ask_lists(KAVO kavo) {
  KAVO_QUERY_NODE nodes[2];
  KAVO_ANSWER_ITERATOR iterator = kavo_alloc_answer_iterator();
  struct timeval deadline;
  const struct timeval *until = kavo_get_deadline(60000, &deadline);
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

/* One call each; the array and its blocks serve from question to question. */
static void ask_in_one_call(KAVO kavo) {
  KAVO_ANSWER *answers = NULL;
  int length = 0, written = 0, i;

  EXPECT(kavo_query(kavo, KAVOT_BL_DOM, "bad.example", 11, &answers, length, &written, 60000, KAVOWT_FULL, 0) ==
         KAVOE_OK);
  if (!EXPECT(written == 1)) return;
  length = written;
  EXPECT(address_in(&answers[0]) == 0x7f000009);
  EXPECT(kavo_query(kavo, KAVOT_DNS_MX, "a.list", 6, &answers, length, &written, 60000, KAVOWT_FULL, 0) == KAVOE_OK);
  EXPECT(written == 1 && answers[0].type == KAVOT_DNS_MX && answers[0].zone == 0);
  if (EXPECT(answers[0].err_code == KAVOE_OK && answers[0].rr.rr_mx->dnsmx_nrr == 1)) {
    EXPECT(answers[0].rr.rr_mx->dnsmx_mx[0].priority == 10);
    EXPECT(strcmp(answers[0].rr.rr_mx->dnsmx_mx[0].name, "mail.a.list") == 0);
  }
  EXPECT(kavo_query(kavo, KAVOT_DNS_SOA, "a.list", 6, &answers, length, &written, 60000, KAVOWT_FULL, 0) ==
         KAVOE_NOPARSER);
  for (i = 0; i < length; i++)
    kavo_rr_free(&answers[i].rr);
  free(answers);
}

int main(int argc, char **argv) {
  KAVO kavo = NULL;
  int lines = 0, changes = 0;
  unsigned port = argc == 2 ? (unsigned)strtoul(argv[1], NULL, 10) : 0;

  kavo_set_log_cb(count_lines, &lines);
  if (!EXPECT(port != 0) || !EXPECT(kavo_init(&kavo, 100, 1 << 16, 0) == KAVOE_OK)) return EXIT_FAILURE;
  EXPECT(kavo_set_srvstate_chg_cb(kavo, count_changes, &changes) == 0);
  EXPECT(kavo_add_dns_server(kavo, NULL, 0) == KAVOE_OK);
  EXPECT(kavo_add_dns_server(kavo, "127.0.0.1", port) == KAVOE_OK);
  EXPECT(kavo_add_zone(kavo, KAVOT_BL_IP, "a.list") == KAVOE_OK);
  EXPECT(kavo_add_zone(kavo, KAVOT_BL_IP, "b.list") == KAVOE_OK);
  EXPECT(kavo_add_zone(kavo, KAVOT_BL_DOM, "b.list") == KAVOE_OK);
  EXPECT(kavo_open(kavo) == KAVOE_OK);
  ask_lists(kavo);
  ask_in_one_call(kavo);
  EXPECT(kavo_close(kavo) == KAVOE_OK);
  EXPECT(changes == 4);
  EXPECT(kavo_free(kavo) == KAVOE_OK);
  EXPECT(lines > 0); /* at least the refused type */
  return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
