#include "check.h"

#include <kavo.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "output.h"
#include "plan.h"
#include "report.h"
#include "source.h"
#include "subject.h"
#include "verdict.h"

namespace tool {
namespace {

constexpr int kNodesPerSubject = 2;      // one for the return addresses, one for the reason
constexpr int kCacheBytes = 4 << 20;     // a subject that is in a long list twice is asked about once
constexpr size_t kSubjectWidthMin = 7;   // "SUBJECT"
constexpr size_t kSubjectWidthMax = 48;  // longer ones push their line to the right
constexpr size_t kZoneWidthMin = 4;      // "ZONE"

const char *kind_name(Kind kind) {
  switch (kind) {
    case Kind::ip4:
      return "ipv4";
    case Kind::ip6:
      return "ipv6";
    case Kind::domain:
      return "domain";
  }
  return "";
}

// Asked is a subject that is being asked about: the nodes of its questions, or why it cannot be asked about.
struct Asked {
  std::string text;
  std::optional<Subject> subject;  // nothing when the text is none
  std::string error;
  KAVO_QUERY_NODE address = nullptr;
  KAVO_QUERY_NODE reason = nullptr;
};

class Checker {
 public:
  Checker(const Plan &plan, const Session &session)
      : plan_(plan), session_(session), kavo_(session.kavo()), queries_max_(plan.queries_max()) {}

  Asked ask(const std::string &text);
  // collect waits for the first of the subjects that are being asked about.
  SubjectReport collect(std::deque<Asked> *all);

 private:
  std::string unaskable(const Subject &subject, const Questions &questions) const;
  KAVO_QUERY_NODE subscribe(const Subject &subject, KAVO_TYPE type, std::string *error);
  void read_node(const Questions &questions, KAVO_QUERY_NODE node, const timeval *deadline,
                 std::vector<Answer> *answers);

  const Plan &plan_;
  const Session &session_;
  KAVO kavo_;
  size_t queries_max_;
  std::unique_ptr<kavo_answer_iterator_t, void (*)(KAVO_ANSWER_ITERATOR)> iterator_{kavo_alloc_answer_iterator(),
                                                                                    kavo_free_answer_iterator};
};

// Why a subject cannot be asked about; empty when it can.
std::string Checker::unaskable(const Subject &subject, const Questions &questions) const {
  if (questions.zones.empty()) {
    return subject.kind == Kind::domain ? "no zone for domain names is configured"
                                        : "no zone for addresses is configured";
  }
  const unsigned size = kavo_dns_dnlen(subject.dn.data());
  for (const AskedZone &zone : questions.zones) {
    std::array<unsigned char, DNS_MAXDN> dn;
    const int zone_size = kavo_dns_ptodn(zone.name.c_str(), 0, dn.data(), DNS_MAXDN);
    if (size - 1 + static_cast<unsigned>(zone_size) > DNS_MAXDN) {
      return "the name is too long to be asked about in the zone " + zone.name;
    }
  }
  return "";
}

KAVO_QUERY_NODE Checker::subscribe(const Subject &subject, KAVO_TYPE type, std::string *error) {
  KAVO_QUERY_NODE node = nullptr;
  const KAVO_ERR result = kavo_subscribe_node_dn(kavo_, type, subject.dn.data(), KAVOQF_RECURSIVE, nullptr, &node);
  if (result == KAVOE_OK) return node;
  *error = std::string("the question could not be asked: ") + kavo_strerror(result);
  return nullptr;
}

// Starts a subject's questions. Never blocks: the table has a node for each question of all subjects.
Asked Checker::ask(const std::string &text) {
  Asked asked;
  asked.text = text;
  try {
    asked.subject = parse_subject(text);
  } catch (const std::runtime_error &fault) {
    asked.error = fault.what();
    return asked;
  }
  const Questions &questions = plan_.questions(asked.subject->kind);
  asked.error = unaskable(*asked.subject, questions);
  if (!asked.error.empty()) return asked;
  if (questions.any_address) asked.address = subscribe(*asked.subject, questions.address, &asked.error);
  if (questions.any_reason) asked.reason = subscribe(*asked.subject, questions.reason, &asked.error);
  return asked;
}

// Waits for a node and takes its answers; a zone whose answer has not come by the deadline keeps its timeout.
void Checker::read_node(const Questions &questions, KAVO_QUERY_NODE node, const timeval *deadline,
                        std::vector<Answer> *answers) {
  const KAVO_ERR waited = kavo_wait_node(kavo_, node, KAVOWT_FULL, deadline);
  KAVO_ERR result = kavo_set_answer_iterator(kavo_, node, iterator_.get());
  if (waited != KAVOE_OK && waited != KAVOE_TIMEOUT) result = waited;
  if (result == KAVOE_NODATA) result = KAVOE_TIMEOUT;  // of the iterator: nothing has come yet
  for (Answer &answer : *answers) {
    if (answer.asked && result != KAVOE_OK) answer.error = result;
  }
  const KAVO_ANSWER *answer;
  while (result == KAVOE_OK && (answer = kavo_get_answer(kavo_, iterator_.get())) != nullptr) {
    const auto number = static_cast<size_t>(answer->zone);
    if (number >= questions.zone_of_number.size()) continue;
    const size_t place = questions.zone_of_number[number];
    if (place < answers->size()) (*answers)[place] = read_answer(*answer);
  }
  kavo_unsubscribe_node(kavo_, node);
}

SubjectReport Checker::collect(std::deque<Asked> *all) {
  Asked *asked = &all->front();
  if (!asked->subject) return {asked->text, "invalid", {}, asked->error};
  const Questions &questions = plan_.questions(asked->subject->kind);
  timeval deadline;
  kavo_get_deadline(session_.wait_ms(all->size() * queries_max_), &deadline);
  std::vector<Answer> addresses(questions.zones.size()), reasons(questions.zones.size());
  for (size_t i = 0; i < questions.zones.size(); ++i) {
    addresses[i].asked = questions.zones[i].address;
    reasons[i].asked = questions.zones[i].reason;
  }
  if (asked->address != nullptr) read_node(questions, asked->address, &deadline, &addresses);
  if (asked->reason != nullptr) read_node(questions, asked->reason, &deadline, &reasons);
  SubjectReport report{asked->text, kind_name(asked->subject->kind), {}, asked->error};
  if (!report.error.empty()) return report;
  for (size_t i = 0; i < questions.zones.size(); ++i) {
    report.zones.push_back({&questions.zones[i].name, judge(addresses[i], reasons[i])});
  }
  return report;
}

Widths widths_for(const Plan &plan, const std::deque<Asked> &asked) {
  Widths widths{kSubjectWidthMin, kZoneWidthMin};
  for (const Asked &one : asked) {
    widths.subject = std::max(widths.subject, std::min(columns_of(for_terminal(one.text)), kSubjectWidthMax));
    if (!one.subject) continue;
    for (const AskedZone &zone : plan.questions(one.subject->kind).zones) {
      widths.zone = std::max(widths.zone, columns_of(for_terminal(zone.name)));
    }
  }
  return widths;
}

bool wants_colour() {
  const char *term = std::getenv("TERM");
  return isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr &&
         (term == nullptr || std::string_view(term) != "dumb");
}

// Outcome is what the exit status is made of.
struct Outcome {
  bool listed = false;
  bool failed = false;
  void note(const SubjectReport &report) {
    failed = failed || !report.error.empty();
    for (const ZoneLine &line : report.zones) {
      listed = listed || line.verdict.status == Status::listed;
      failed = failed || line.verdict.query_failed;
    }
  }
  [[nodiscard]] int status() const { return failed ? kExitFailed : listed ? kExitListed : kExitClear; }
};

// The table's columns are set by the first subjects.
Outcome run(const CheckArguments &arguments, const Plan &plan, const Session &session) {
  Checker checker(plan, session);
  std::unique_ptr<Reporter> reporter = arguments.json ? json_reporter() : nullptr;
  Outcome outcome;
  const auto ask = [&](const std::string &text) { return checker.ask(text); };
  const auto show = [&](std::deque<Asked> &asked) {
    if (reporter == nullptr) reporter = table_reporter(widths_for(plan, asked), wants_colour());
    const SubjectReport report = checker.collect(&asked);
    reporter->show(report);
    outcome.note(report);
  };
  ask_all(arguments.subjects, kSubjects, ask, show);
  if (reporter != nullptr) reporter->finish();
  finish_output();
  return outcome;
}

// Reports faults in the command line before anything is asked.
void examine(const CheckArguments &arguments, Plan *plan) {
  if (arguments.subjects.empty())
    throw Usage{"nothing to ask: give an address or a domain name, or - for standard input"};
  try {
    if (!arguments.zones_file.empty()) plan->read_file(arguments.zones_file);
    for (const std::string &zone : arguments.zones)
      plan->add(zone);
    for (const std::string &subject : arguments.subjects) {
      if (subject != "-") (void)parse_subject(subject);
    }
  } catch (const std::runtime_error &fault) {
    throw Usage{fault.what()};
  }
  if (plan->empty()) {
    throw Usage{arguments.zones_file.empty()
                    ? "no zones: name them with --zone or --zones"
                    : "no zones: none is in the sections #IP, #IP_TXT, #DOMAIN and #DOMAIN_TXT of " +
                          arguments.zones_file};
  }
}

}  // namespace

int check(const CheckArguments &arguments) {
  Plan plan;
  examine(arguments, &plan);
  Session session(arguments.network, {kNodesPerSubject * static_cast<int>(kSubjects), kCacheBytes, plan.zones_max()});
  plan.configure(session.kavo());
  session.open();
  return run(arguments, plan, session).status();
}

}  // namespace tool
