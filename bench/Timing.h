#pragma once

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>

#include "Subject.h"

using Subjects = std::vector<std::unique_ptr<Subject>>;  ///< the floor is the first

/// One job of a debugging session. All subjects do the same, and must get the same result.
struct Job {
  std::string name;
  /// How many requests lldb-helper needs. A job's limit is the floor's time and one raw echo for
  /// each: no program at the other end of a pipe can take less.
  int requests;
  int rounds;
  int times;  ///< a round is this many actions of each subject
  std::function<void(Subject &, int number)> prepare;  ///< not timed; may be empty
  std::function<void(Subject &, int number)> action;
  /// The result of the last action. Compared with the floor's; empty means nothing to compare.
  std::function<std::string(Subject &)> result;
};

/// Times jobs, and collects a row of figures for each.
class Timing {
 public:
  using Samples = std::map<std::string, std::vector<double>>;  ///< by the subject's name

  /// Measures the jobs that match the regular expression. `effort` multiplies the rounds.
  Timing(const std::string &only, double effort) : only(only), effort(effort) {}

  bool wants(const std::string &job) const { return std::regex_search(job, only); }
  int roundsOf(int rounds) const { return std::max(2, static_cast<int>(rounds * effort)); }

  /// Times one job on every subject, round by round, so that changes of the machine's speed meet
  /// all of them. Throws std::runtime_error if results differ.
  void measure(const Job &job, const Subjects &subjects);

  /// Adds a row. `base` is the subject to which ratios are formed. `unit` is "us" or "bytes".
  void addRow(const std::string &job, const char *unit, const char *base, const Samples &samples,
              int requests = 0);

  nlohmann::ordered_json rows = nlohmann::ordered_json::array();

 private:
  const std::regex only;
  const double effort;
};

/// How long the action takes, in microseconds.
double microsecondsOf(const std::function<void()> &action);
