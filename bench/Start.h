#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Timing.h"

// The rows that need no debugged program.

/// Empty where there is no such program.
struct Programs {
  std::string helper, lldbDap, gdb;
};

/// New processes for every round: how soon they answer, and the memory they have used by then.
void startToFirstAnswer(Timing &timing, const Programs &programs);

/// A program that only sends the message back shows the least that it can cost. Measured always,
/// for the limits of the other jobs.
void roundTrips(Timing &timing, const std::vector<std::unique_ptr<Subject>> &subjects);

/// The other end of the two pipes in the rows above, as this program's own child. Does not return
/// if `part` is one of its parts.
void playSubject(const std::string &part, int input, int output);
