#include "Timing.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <stdexcept>

namespace {

double quantile(std::vector<double> values, double part) {
  std::sort(values.begin(), values.end());
  return values[static_cast<std::size_t>(part * static_cast<double>(values.size() - 1) + 0.5)];
}

}  // namespace

double microsecondsOf(const std::function<void()> &action) {
  const auto start = std::chrono::steady_clock::now();
  action();
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
      .count();
}

void Timing::measure(const Job &job, const Subjects &subjects) {
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
        throw std::runtime_error(job.name + ": " + subject->name +
                                 " did other work: " + found.substr(0, 2000) + "\ninstead of " +
                                 expected.substr(0, 2000));
    }
  }
  addRow(job.name, "us", "floor", samples, job.requests);
}

void Timing::addRow(const std::string &job, const char *unit, const char *base,
                    const Samples &samples, int requests) {
  nlohmann::ordered_json row{{"job", job}, {"unit", unit}, {"base", base}};
  if (requests > 0) row["requests"] = requests;
  for (const auto &[name, values] : samples) {
    row["median"][name] = quantile(values, 0.5);
    row["quartiles"][name] = {quantile(values, 0.25), quantile(values, 0.75)};
  }
  for (const auto &[name, values] : samples)
    if (name != base)
      row["ratio"][name] = quantile(values, 0.5) / row["median"][base].get<double>();
  std::cerr << job << ": " << row["median"] << " " << row["ratio"] << "\n";
  rows.push_back(std::move(row));
}
