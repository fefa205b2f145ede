#pragma once

#include <chrono>
#include <functional>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <stdexcept>

#include "Subject.h"

using Subjects = std::vector<std::unique_ptr<Subject>>;  ///< the floor is the first

/// One job of a debugging session. All subjects do the same, and must get the same result.
struct Job {
  std::string name;
  /// How many requests lldb-helper needs. A job's limit is the floor's time and one raw echo for
  /// each. A program at the other end of a pipe takes less only by asking LLDB in a better way.
  int requests;
  int rounds;
  int times;  ///< a round is this many actions of each subject
  std::function<void(Subject &, int number)> prepare;  ///< not timed; may be empty
  std::function<void(Subject &, int number)> action;
  /// The result of the last action. Compared with the floor's. Empty, or an empty text: there is
  /// nothing to compare.
  std::function<std::string(Subject &)> result;
};

/// How long the action takes, in microseconds.
inline double microsecondsOf(const std::function<void()> &action) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();
  action();
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

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
  void measure(const Job &job, const Subjects &subjects) {
    if (!wants(job.name)) return;
    Samples samples;
    // The first round only warms up.
    for (int round = 0; round <= roundsOf(job.rounds); ++round) {
      std::string expected;
      for (const auto &subject : subjects) {
        for (int number = round * job.times; number < (round + 1) * job.times; ++number) {
          if (job.prepare) job.prepare(*subject, number);
          const double time = microsecondsOf([&] { job.action(*subject, number); });
          if (round > 0) samples[subject->name].push_back(time);
        }
        const std::string found = job.result ? job.result(*subject) : "";
        if (expected.empty()) expected = found;
        if (!found.empty() && found != expected)
          throw std::runtime_error(job.name + ": " + subject->name + " did other work: " +
                                   found.substr(0, 2000) + "\nnot " + expected.substr(0, 2000));
      }
    }
    addRow(job.name, "us", "floor", samples, job.requests);
  }

  /// Adds a row. `base` is the subject to which ratios are formed. `unit` is "us" or "bytes".
  void addRow(const std::string &job, const char *unit, const char *base, const Samples &samples,
              int requests = 0) {
    nlohmann::ordered_json row{{"job", job}, {"unit", unit}, {"base", base}};
    if (requests > 0) row["requests"] = requests;
    for (auto [name, values] : samples) {
      const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
      std::nth_element(values.begin(), middle, values.end());
      row["median"][name] = *middle;
    }
    const double whole = row["median"][base];
    for (const auto &[name, values] : samples)
      if (name != base) row["ratio"][name] = row["median"][name].get<double>() / whole;
    std::cerr << job << ": " << row["median"] << " " << row["ratio"] << "\n";
    rows.push_back(std::move(row));
  }

  nlohmann::ordered_json rows = nlohmann::ordered_json::array();

 private:
  const std::regex only;
  const double effort;
};
