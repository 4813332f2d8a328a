// block_text.h - what a record block holds, as a text, and what must hold for every block.
#ifndef KAVO_TESTBED_BLOCK_TEXT_H
#define KAVO_TESTBED_BLOCK_TEXT_H

#include <kavo.h>

#include <string>

namespace testbed {

// The types of which there are blocks, one for each layout, in the order of dns::Block.
inline constexpr KAVO_TYPE kBlockTypes[] = {KAVOT_DNS_A,   KAVOT_DNS_AAAA,  KAVOT_DNS_TXT, KAVOT_DNS_ETXT, KAVOT_DNS_MX,
                                            KAVOT_DNS_PTR, KAVOT_DNS_CNAME, KAVOT_DNS_NS,  KAVOT_DNS_SRV,  KAVOT_PKT};

// text_of checks that every pointer of a block is null or leads into the block, and returns what it holds, its TTL left
// out.
[[nodiscard]] std::string text_of(KAVO_TYPE type, const KAVO_RR &rr);

// expect_copies checks that a block which is not too large can be copied, to a block that holds the same.
void expect_copies(KAVO_TYPE type, const KAVO_RR &rr);

}  // namespace testbed

#endif  // KAVO_TESTBED_BLOCK_TEXT_H
