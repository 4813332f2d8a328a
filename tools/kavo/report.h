// report.h - how verdicts are shown: a table for people, or one JSON object a subject for programs.
#ifndef KAVO_TOOLS_KAVO_REPORT_H
#define KAVO_TOOLS_KAVO_REPORT_H

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "verdict.h"

namespace tool {

// ZoneLine is what one zone says about a subject.
struct ZoneLine {
  const std::string *zone;
  Verdict verdict;
};

// SubjectReport is a subject and all that was learned; `error` says why it could not be asked about at all.
struct SubjectReport {
  std::string subject;
  const char *kind;  // "ipv4", "ipv6", "domain", or "invalid"
  std::vector<ZoneLine> zones;
  std::string error;
};

class Reporter {
 public:
  virtual ~Reporter() = default;
  virtual void show(const SubjectReport &report) = 0;
  virtual void finish() {}
};

// Widths of the table's first two columns, in characters.
struct Widths {
  size_t subject;
  size_t zone;
};
std::unique_ptr<Reporter> table_reporter(const Widths &widths, bool colour);
std::unique_ptr<Reporter> json_reporter();

}  // namespace tool

#endif  // KAVO_TOOLS_KAVO_REPORT_H
