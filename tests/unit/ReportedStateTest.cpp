#include <gtest/gtest.h>

#include <future>

#include "events/ReportedState.h"

namespace {

using namespace std::chrono_literals;

constexpr auto running = lldb::eStateRunning;
constexpr auto stepping = lldb::eStateStepping;
constexpr auto stopped = lldb::eStateStopped;
constexpr auto exited = lldb::eStateExited;

TEST(ReportedState, TheHostReceivesWhatItCanActOn) {
  struct Row {
    lldb::StateType state;
    bool isRestarted;
    std::uint32_t process;
    bool isForHost, isRunning;
  };
  const Row beforeHiding[] = {
      {stopped, false, 1, true, false},
      {stopped, false, 1, true, false},  // a second stop is news, such as another signal
      {running, false, 1, true, true},
      {running, false, 1, false, true},  // LLDB sends it again after an expression
      {stopped, true, 1, false, true},   // LLDB has resumed the process already
      {running, false, 1, false, true},  // and for the host it has never stopped
      {stepping, false, 1, true, true},
      {stopped, false, 1, true, false},
      {running, false, 1, true, true},
  };
  const Row whileHiding[] = {
      {stopped, false, 2, true, false},  // another process's stop is not hidden
      {running, false, 1, true, true},
      {stopped, false, 1, false, false},  // the stop that ends the process
      {running, false, 1, true, true},    // a run after it is news
      {exited, false, 1, true, false},
  };
  ReportedState states;
  int number = 0;
  const auto check = [&](const Row &row) {
    ++number;
    EXPECT_EQ(states.take(row.state, row.isRestarted, row.process), row.isForHost) << number;
    EXPECT_EQ(states.isRunning(), row.isRunning) << number;
  };
  for (const Row &row : beforeHiding) check(row);
  states.hideStopsOf(1);
  for (const Row &row : whileHiding) check(row);
  states.showStops();
  check({stopped, false, 1, true, false});
  states.setRunning(true);
  states.hideStopsOf(1);
  states.reset();
  EXPECT_FALSE(states.isRunning());
  for (const Row &row : beforeHiding) check(row);
}

TEST(ReportedState, ItsFirstStateCountsOnceItsMessageIsOut) {
  ReportedState states;
  for (int round = 1; round <= 2; ++round, states.reset()) {
    auto waiting = std::async(std::launch::async, [&] { states.waitForFirstState(1min); });
    const auto isOver = [&] { return waiting.wait_for(10ms) == std::future_status::ready; };
    states.take(stopped, true, 1);
    states.setHandled();
    EXPECT_FALSE(isOver()) << "a restarted stop is no state";
    states.take(stopped, false, 1);
    EXPECT_FALSE(isOver()) << "the message is not out";
    states.setHandled();
    EXPECT_EQ(waiting.wait_for(1min), std::future_status::ready);
  }
  states.waitForFirstState(10ms);  // gives up
}

TEST(ReportedState, AfterAStopTheSteppedThreadIsForgottenOnlyWhenItIsSelected) {
  ReportedState states;
  states.setStepped(7);
  states.take(stopped, false, 1);
  auto forgetting = std::async(std::launch::async, [&] { states.forgetStepped(1min); });
  EXPECT_EQ(forgetting.wait_for(10ms), std::future_status::timeout);
  EXPECT_EQ(states.takeStepped(), 7);
  states.endSelection();
  EXPECT_EQ(forgetting.wait_for(1min), std::future_status::ready);

  states.hideStopsOf(1);
  states.setStepped(8);
  states.take(stopped, false, 1);  // selects nothing
  forgetting = std::async(std::launch::async, [&] { states.forgetStepped(1min); });
  EXPECT_EQ(forgetting.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(states.takeStepped(), std::nullopt);
}

}  // namespace
