/* c_host.h - what the two halves of the host program in C share: the check that counts, and the stored half's tests. */
#ifndef KAVO_TESTS_C_HOST_H
#define KAVO_TESTS_C_HOST_H

#include <kavo.h>

/* expect counts a check that failed and names it on standard error. Returns `holds`. */
int expect(int holds, const char *what);

#define EXPECT(condition) expect((condition) ? 1 : 0, #condition)

/* address_in returns the first address of an answer, in the host's byte order; 0 where it has none. */
uint32_t address_in(const KAVO_ANSWER *answer);

/* release frees an array of answers with its blocks. */
void release(KAVO_ANSWER *answers, int length);

enum { LONG_MS = 60000, SHORT_MS = 20 };

/* What a host does without a server. `directory` is a scratch directory. */
void speak_of_types(void);
void count_time(void);
void copy_records(const KAVO_ANSWER *answer);
void keep_zones(KAVO kavo, const char *directory);
void keep_answers_itself(const KAVO_ANSWER *answer);
void save_and_load(KAVO kavo, const char *directory);

#endif
