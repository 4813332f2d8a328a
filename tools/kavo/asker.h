// asker.h - ordinary DNS queries: started at once, collected one after the other.
#ifndef KAVO_TOOLS_KAVO_ASKER_H
#define KAVO_TOOLS_KAVO_ASKER_H

#include <kavo.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "question.h"
#include "session.h"

namespace tool {

// AskedName is an outstanding query, or the reason why there is none.
struct AskedName {
  std::string text;
  std::optional<Name> name;  // nothing when the text is none
  std::string error;
  KAVO_QUERY_NODE node = nullptr;
};

// NameResult is the outcome of a query. `answer` is null without one, and valid during the call that gets it.
struct NameResult {
  const AskedName &asked;
  KAVO_ERR outcome;   // KAVOE_OK, a negative answer, or why there is none; KAVOE_FAIL where `error` says it
  std::string error;  // why the query failed; empty when it did not
  const KAVO_ANSWER *answer;
};

// NameOutcome is what the exit status of a command with names is made of.
struct NameOutcome {
  bool without = false;  // a name has no answer
  bool failed = false;
  [[nodiscard]] int status() const { return failed ? kExitFailed : without ? kExitListed : kExitClear; }
};

// examine_names throws Usage for no names at all, and for one on the command line that is none.
void examine_names(const std::vector<std::string> &names, KAVO_TYPE type);

// ask_names asks about all names, with the flags KAVOQF_... beside recursion, and shows what became of each in their
// order.
void ask_names(const Session &session, const std::vector<std::string> &names, KAVO_TYPE type, unsigned flags,
               const std::function<void(const NameResult &)> &show);

}  // namespace tool

#endif  // KAVO_TOOLS_KAVO_ASKER_H
