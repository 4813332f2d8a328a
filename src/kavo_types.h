// kavo_types.h - what is known of each question type, in one table.
//
// Every DNS number may be asked; a row is there for the types that have a name, a parser or a layout. Constant, any
// thread. The public functions on types (kavo_convert_type, kavo_get_parser and their kin) read this table.
#ifndef KAVO_TYPES_H
#define KAVO_TYPES_H

#include <stdint.h>

#include <span>

#include <kavo.h>

// How a type's record blocks are laid out.
enum class kavo_rr_layout { none, a4, a6, txt, etxt, mx, ptr, cname, ns, srv, pkt };

// What a question of a type is about.
enum class kavo_subject { name, address };

struct kavo_type_info {
  KAVO_TYPE type = KAVOT_INVALID;
  const char *name = nullptr;      // as kavo_typename returns it
  const char *keyword = nullptr;   // the header of a list type's section in a zones file
  dns_type asked = DNS_T_INVALID;  // the type of the query, where it is not the question's own number
  dns_parse_fn *parser = nullptr;  // null: the answers can be had as raw packets only
  kavo_rr_layout layout = kavo_rr_layout::none;
  kavo_subject subject = kavo_subject::name;
};

// kavo_type_find returns the row of a type, an empty one for a type without a row.
[[nodiscard]] const kavo_type_info &kavo_type_find(KAVO_TYPE type);

// kavo_type_rows returns every row, but for the empty one.
[[nodiscard]] std::span<const kavo_type_info> kavo_type_rows();

// kavo_type_is_list returns whether questions of a type are asked in list zones.
constexpr bool kavo_type_is_list(KAVO_TYPE type) {
  return type >= KAVOT_BL_MIN && type <= KAVOT_BL_MAX;
}

// kavo_type_makes_node returns whether a node may have a type.
constexpr bool kavo_type_makes_node(KAVO_TYPE type) {
  return (type >= KAVOT_DNS_MIN && type <= KAVOT_BL_MAX) || type == KAVOT_DNS_ETXT || type == KAVOT_SYNC;
}

#endif  // KAVO_TYPES_H
