/* ask.c - is this IPv4 address on these lists? One question, one call, one answer for each list. */
#include <arpa/inet.h>
#include <kavo.h>
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char **argv) {
  struct in_addr address;
  if (argc < 5 || inet_pton(AF_INET, argv[3], &address) != 1) {
    fputs("usage: ask SERVER PORT ADDRESS LIST...\n", stderr);
    return 64;
  }
  KAVO kavo = NULL;
  KAVO_ANSWER *answers = NULL; /* made by kavo_query, and ours afterwards */
  int count = 0;
  KAVO_ERR err = kavo_init(&kavo, 64, 1 << 20, 0); /* 64 questions at once, a cache of 1 MiB, not opened yet */
  if (err == KAVOE_OK) err = kavo_add_dns_server(kavo, NULL, 0); /* instead of the system's servers ... */
  if (err == KAVOE_OK) err = kavo_add_dns_server(kavo, argv[1], (unsigned)atoi(argv[2])); /* ... this one */
  for (int i = 4; i < argc && err == KAVOE_OK; i++)
    err = kavo_add_zone(kavo, KAVOT_BL_IP, argv[i]);
  if (err == KAVOE_OK) err = kavo_open(kavo);
  if (err == KAVOE_OK) /* until every list has answered, at most 5 seconds */
    err = kavo_query(kavo, KAVOT_BL_IP, &address, sizeof address, &answers, 0, &count, 5000, KAVOWT_FULL,
                     KAVOQF_RECURSIVE);
  if (err != KAVOE_OK) fprintf(stderr, "ask: %s\n", kavo_strerror(err));
  for (int i = 0; answers != NULL && i < count; i++) {
    const dns_rr_a4 *listing = answers[i].err_code == KAVOE_OK ? answers[i].rr.rr_a : NULL;
    printf("%s: %s\n", kavo_zonesmap_zone(kavo, answers[i].zone),
           listing != NULL ? inet_ntoa(listing->dnsa4_addr[0]) : kavo_strerror(answers[i].err_code));
    kavo_rr_free(&answers[i].rr);
  }
  free(answers);
  kavo_close(kavo);
  kavo_free(kavo);
  return err == KAVOE_OK ? 0 : 2;
}
