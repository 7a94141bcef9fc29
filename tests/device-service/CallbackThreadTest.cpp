#include "service/CallbackThread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "CapturedLog.h"
#include "Gate.h"
#include "WaitUntil.h"
#include "Watched.h"

namespace {

using Lumo::CallbackThread;
using std::chrono::milliseconds;
using ::testing::SizeIs;

TEST(CallbackThreadTest, RunsJobsInTheOrderOfPostingAndALaterOneWhenItIsDue) {
  Watched<std::vector<int>> ran;
  CallbackThread thread;
  const auto note = [&ran](int number) {
    ran.Change([number](auto& numbers) { numbers.push_back(number); });
  };
  const auto due = CallbackThread::Clock::now() + milliseconds(50);
  CallbackThread::Clock::time_point when;
  thread.Post(
      [&] {
        when = CallbackThread::Clock::now();
        note(1000);
      },
      due);
  for (int i = 0; i < 1000; ++i) thread.Post([&note, i] { note(i); });
  ASSERT_TRUE(ran.WaitFor([](const auto& numbers) { return numbers.size() == 1001; }));
  const std::vector<int> numbers = ran.Get();
  EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));
  EXPECT_GE(when, due);
}

TEST(CallbackThreadTest, RunsWhatIsAddedInItsTurnOnceItIsWoken) {
  Watched<std::vector<int>> ran;
  Gate begun;
  Gate added;
  CallbackThread thread;
  const auto note = [&ran](int number) {
    ran.Change([number](auto& numbers) { numbers.push_back(number); });
  };
  thread.Post([&] {
    begun.Open();
    added.Wait();
  });
  ASSERT_TRUE(begun.Wait());
  thread.Add([&note] { note(1); });
  thread.Post([&note] { note(2); });
  added.Open();
  ASSERT_TRUE(ran.WaitFor([](const auto& numbers) { return numbers.size() == 2; }));
  thread.Add([&note] { note(3); });
  thread.Wake();
  ASSERT_TRUE(ran.WaitFor([](const auto& numbers) { return numbers.size() == 3; }));
  EXPECT_EQ(ran.Get(), (std::vector<int>{1, 2, 3}));
  thread.Stop();
  thread.Add([&note] { note(4); });
  thread.Wake();
  thread.Join();
  EXPECT_EQ(ran.Get().size(), 3U);
}

TEST(CallbackThreadTest, GoesOnAfterAnException) {
  CapturedLog::Get().Take();
  Gate done;
  CallbackThread thread;
  thread.Post([] { throw std::runtime_error("broken"); });
  thread.Post([] { throw 1; });
  thread.Post([&] { done.Open(); });
  ASSERT_TRUE(done.Wait());
  const auto lines = CapturedLog::Get().Take();
  ASSERT_THAT(lines, SizeIs(2));
  EXPECT_THAT(lines[0].message, ::testing::HasSubstr("broken"));
  EXPECT_EQ(lines[0].tag, "LUMO");
}

TEST(CallbackThreadTest, StopDoesNotWaitAndDropsWhatWaits) {
  Gate started;
  Gate proceed;
  bool dropped = true;
  const auto resource = std::make_shared<int>(0);
  {
    CallbackThread thread;
    thread.Post([&] {
      started.Open();
      proceed.Wait();
    });
    thread.Post([&, resource] { dropped = false; });
    ASSERT_TRUE(started.Wait());
    thread.Stop();
    EXPECT_FALSE(thread.HasEnded());
    EXPECT_EQ(resource.use_count(), 1);
    thread.Post([&, resource] { dropped = false; });
    EXPECT_EQ(resource.use_count(), 1);
    proceed.Open();
    EXPECT_TRUE(WaitUntil([&thread] { return thread.HasEnded(); }));
  }
  EXPECT_TRUE(dropped);
}

TEST(CallbackThreadTest, TheLastJobRunsAfterTheOneThatRunsAndCanBeWaitedForWithALimit) {
  Gate started;
  Gate proceed;
  std::vector<int> ran;
  CallbackThread thread;
  thread.Post([&] {
    started.Open();
    proceed.Wait();
    ran.push_back(1);
  });
  ASSERT_TRUE(started.Wait());
  thread.Refuse();
  thread.Post([&] { ran.push_back(2); });
  thread.Stop([&] { ran.push_back(3); });
  thread.Stop([&] { ran.push_back(4); });
  EXPECT_FALSE(thread.WaitForEnd(CallbackThread::Clock::now() + milliseconds(20)));
  proceed.Open();
  EXPECT_TRUE(thread.WaitForEnd(CallbackThread::Clock::now() + std::chrono::seconds(60)));
  EXPECT_EQ(ran, (std::vector<int>{1, 3}));
}

TEST(CallbackThreadTest, ACallbackIsNotWaitedForAndTheLastJobRunsAllTheSame) {
  Gate started;
  Gate proceed;
  Gate ended;
  CallbackThread thread;
  thread.PostCallback([&] {
    started.Open();
    proceed.Wait();
  });
  ASSERT_TRUE(started.Wait());
  thread.Stop([&] { ended.Open(); });
  EXPECT_FALSE(thread.WaitForEnd(CallbackThread::Clock::time_point::max()));
  proceed.Open();
  EXPECT_TRUE(ended.Wait());
}

TEST(CallbackThreadTest, DestructorWaitsForTheJobThatRuns) {
  bool finished = false;
  {
    Gate started;
    CallbackThread thread;
    thread.Post([&] {
      started.Open();
      std::this_thread::sleep_for(milliseconds(20));
      finished = true;
    });
    ASSERT_TRUE(started.Wait());
  }
  EXPECT_TRUE(finished);
}

}  // namespace
