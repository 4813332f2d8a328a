#include "report.h"

#include <cstdio>

#include "output.h"
#include "subject.h"

namespace tool {
namespace {

constexpr size_t kResultColumn = 10;   // "not listed"
constexpr size_t kAddressColumn = 20;  // two return addresses of the usual length
constexpr const char *kGap = "  ";
constexpr const char *kRed = "\033[1;31m";
constexpr const char *kYellow = "\033[1;33m";
constexpr const char *kPlain = "\033[0m";

std::string joined(const std::vector<std::string> &texts, const char *between) {
  std::string result;
  for (const std::string &text : texts)
    result += (result.empty() ? "" : between) + text;
  return result;
}

const char *word_of(Status status) {
  switch (status) {
    case Status::not_listed:
      return "not listed";
    case Status::listed:
      return "LISTED";
    case Status::refused:
      return "REFUSED";
    case Status::failed:
      return "FAILED";
  }
  return "";
}

class Table : public Reporter {
 public:
  Table(const Widths &widths, bool colour) : widths_(widths), colour_(colour) {}

  void show(const SubjectReport &report) override {
    if (subjects_++ == 0) print_line(row("SUBJECT", "ZONE", "RESULT", "", "ADDRESS", "REASON"));
    std::string subject = for_terminal(report.subject);
    bool listed = false;
    bool failed = !report.error.empty();
    if (failed) print_line(row(subject, "-", word_of(Status::failed), kYellow, "-", for_terminal(report.error)));
    for (const ZoneLine &line : report.zones) {
      print_line(zone_row(subject, line));
      subject.clear();  // said once, on the first of its lines
      listed = listed || line.verdict.status == Status::listed;
      failed = failed || line.verdict.query_failed;
    }
    listed_ += listed ? 1 : 0;
    failed_ += failed ? 1 : 0;
  }

  void finish() override {
    if (subjects_ == 0) return;
    std::printf("\n%zu of %zu %s listed", listed_, subjects_, subjects_ == 1 ? "subject" : "subjects");
    if (failed_ != 0) std::printf("; %zu could not be asked about in full", failed_);
    std::printf("\n");
  }

 private:
  [[nodiscard]] std::string row(const std::string &subject, const std::string &zone, const std::string &result,
                                const char *colour, const std::string &address, const std::string &reason) const {
    const bool coloured = colour_ && *colour != '\0';
    return padded(subject, widths_.subject) + kGap + padded(zone, widths_.zone) + kGap + (coloured ? colour : "") +
           padded(result, kResultColumn) + (coloured ? kPlain : "") + kGap + padded(address, kAddressColumn) + kGap +
           reason;
  }

  [[nodiscard]] std::string zone_row(const std::string &subject, const ZoneLine &line) const {
    const Verdict &verdict = line.verdict;
    const char *colour = verdict.status == Status::listed ? kRed : verdict.status == Status::not_listed ? "" : kYellow;
    std::vector<std::string> reasons;
    if (!verdict.error.empty()) reasons.push_back(verdict.error);
    for (const std::string &reason : verdict.reasons)
      reasons.push_back(for_terminal(reason));
    const std::string addresses = verdict.addresses.empty() ? "-" : joined(verdict.addresses, ", ");
    return row(subject, for_terminal(*line.zone), word_of(verdict.status), colour, addresses, joined(reasons, "; "));
  }

  Widths widths_;
  bool colour_;
  size_t subjects_ = 0;
  size_t listed_ = 0;
  size_t failed_ = 0;
};

class Json : public Reporter {
 public:
  void show(const SubjectReport &report) override {
    nlohmann::ordered_json object{{"subject", report.subject}, {"kind", report.kind}};
    if (!report.error.empty()) object["error"] = report.error;
    object["zones"] = nlohmann::ordered_json::array();
    for (const ZoneLine &line : report.zones)
      object["zones"].push_back(zone_object(line));
    print_json(object);
  }

 private:
  static nlohmann::ordered_json zone_object(const ZoneLine &line) {
    const Verdict &verdict = line.verdict;
    nlohmann::ordered_json object{{"zone", *line.zone},
                                  {"status", status_name(verdict.status)},
                                  {"addresses", verdict.addresses},
                                  {"reasons", verdict.reasons}};
    object["error"] = verdict.error.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(verdict.error);
    object["query_time_ms"] = verdict.query_time_ms;
    object["from_cache"] = verdict.from_cache;
    return object;
  }
};

}  // namespace

std::unique_ptr<Reporter> table_reporter(const Widths &widths, bool colour) {
  return std::make_unique<Table>(widths, colour);
}

std::unique_ptr<Reporter> json_reporter() {
  return std::make_unique<Json>();
}

}  // namespace tool
