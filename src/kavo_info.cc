// kavo_info.cc - names, texts and counts: the texts of codes, the names of types, the version, the nodes in use.
//
// Any thread. Only the count takes the table lock.
#include <stdint.h>

#include <array>

#include <kavo.h>

#include "kavo_t.h"
#include "kavo_table_lock.h"
#include "kavo_types.h"

namespace {

constexpr char kSource[] = "kavo";

constexpr uint32_t kVersion = 0x04030100;
constexpr uint32_t kRevision = 18239;

constexpr std::array<const char *, KAVOE_NOPARSER + 1> kErrorTexts = {
    "KAVO call is finished with success",
    "KAVO failed with unspecified reason",
    "KAVO failed because can't allocate enough memory",
    "KAVO failed because of error while work with file",
    "KAVO failed because of multi-threading error",
    "KAVO failed because of DNS library error",
    "KAVO failed because of incorrect parameter value",
    "KAVO action timed out",
    "KAVO failed because of server thread error",
    "KAVO NXDOMAIN answer for this query",
    "KAVO no zones defined for specified query type",
    "KAVO no data in specified location",
    "KAVO failed because there are no parser for such query type",
};

[[nodiscard]] char folded(char letter) {
  return letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A') : letter;
}

// names_equal compares a name, its letters taken as upper case, with a type's.
[[nodiscard]] bool names_equal(const char *name, const char *upper) {
  while (*name != '\0' && folded(*name) == *upper) {
    name++;
    upper++;
  }
  return *name == '\0' && *upper == '\0';
}

}  // namespace

const char *kavo_strerror(KAVO_ERR errnum) {
  return errnum < kErrorTexts.size() ? kErrorTexts[errnum] : nullptr;
}

const char *kavo_typename(KAVO_TYPE type) {
  return kavo_type_find(type).name;
}

KAVO_TYPE kavo_name2type(const char *name) {
  if (name == nullptr) return KAVOT_INVALID;
  for (const kavo_type_info &row : kavo_type_rows())
    if (row.name != nullptr && names_equal(name, row.name)) return row.type;
  return KAVOT_INVALID;
}

int kavo_isparseable(KAVO_TYPE type) {
  return kavo_type_find(type).parser != nullptr ? 1 : 0;
}

uint32_t kavo_version(void) {
  return kVersion;
}

uint32_t kavo_rev(void) {
  return kRevision;
}

uint32_t kavo_nactive(KAVO kavo) {
  if (kavo == nullptr) return KAVOE_BADPAR;
  kavo_table_guard guard(kavo);
  if (guard.error != KAVOE_OK) return kavo_table_no_lock(kSource, __func__, guard.error, KAVOE_SRV, KAVO_NO_TABLE_LOCK);
  return kavo->table_size - kavo->table_nfree;
}
