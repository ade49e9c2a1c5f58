#include "http/session_table.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/console.h"
#include "support/child_modes.h"
#include "support/child_watch.h"
#include "support/random_failure.h"

namespace kova {
namespace {

constinit std::atomic<std::uint64_t> now_ms{0};
constinit std::atomic<int> clock_readings{0};

std::uint64_t test_clock() {
  ++clock_readings;
  return now_ms;
}

ChildStarter& starter() {
  static ChildStarter instance(testing::kChildLines);
  static const bool running = instance.run();
  EXPECT_TRUE(running);
  return instance;
}

class SessionTableTest : public ::testing::Test {
 protected:
  class Asker;

  SessionTableTest() {
    prepare_standard_streams();
    now_ms = 1000000;
  }
  ~SessionTableTest() override { table->close_all(); }

  std::string create() {
    const SessionTable::Hold hold = table->create();
    return hold ? hold.id() : "";
  }

  std::vector<std::string> create_all() {
    std::vector<std::string> ids;
    for (std::size_t i = 0; i < kSessionLimit; ++i) ids.push_back(create());
    return ids;
  }

  bool is_there(const std::string& id) { return static_cast<bool>(table->find(id)); }

  void close(const std::string& id) {
    SessionTable::Hold hold = table->find(id);
    if (hold) table->close(hold);
  }

  Exchange tell(const std::string& id, const std::string& message) {
    SessionTable::Hold hold = table->find(id);
    return hold ? table->tell(hold, message + "\n") : Exchange::kSessionGone;
  }

  /// The reply, or what failed.
  std::string ask(const std::string& id, const std::string& message) {
    SessionTable::Hold hold = table->find(id);
    if (!hold) return "not found";
    std::vector<char> reply(kReplyLineLimit);
    std::size_t length = 0;
    switch (table->ask(hold, message + "\n", reply.data(), length)) {
      case Exchange::kSessionGone:
        return "gone";
      case Exchange::kInputFailed:
        return "input failed";
      case Exchange::kReplyFailed:
        return "reply failed";
      case Exchange::kDone:
        break;
    }
    return {reply.data(), length};
  }

  /// Lets the session's child end by itself.
  void let_end(const std::string& id) {
    // No reply comes from an ended child.
    SessionTable::Hold hold = table->find(id);
    ASSERT_TRUE(hold);
    ASSERT_EQ(table->tell(hold, "exit\n"), Exchange::kDone);
  }

  static bool is_failure(const std::string& outcome) {
    return outcome == "reply failed" || outcome == "input failed" || outcome == "gone" ||
           outcome == "not found";
  }

  std::unique_ptr<SessionTable> table = std::make_unique<SessionTable>(starter(), test_clock);
};

/// A thread that asks a session once.
class SessionTableTest::Asker {
 public:
  Asker(SessionTableTest& test, const std::string& id, const std::string& message)
      : readings_before_(clock_readings), thread_([this, &test, id, message] {
          outcome_ = test.ask(id, message);
          done_ = true;
        }) {}
  ~Asker() { join(); }
  Asker(const Asker&) = delete;
  Asker& operator=(const Asker&) = delete;

  /// Whoever asks takes its turn and reads the clock under one lock, and reads the clock again when
  /// its exchange starts.
  void wait_until_waiting() const { wait_for_readings(1); }
  void wait_until_begun() const { wait_for_readings(2); }
  [[nodiscard]] bool is_done() const { return done_; }
  [[nodiscard]] const std::string& outcome() {
    join();
    return outcome_;
  }

 private:
  void wait_for_readings(int count) const {
    while (clock_readings < readings_before_ + count) std::this_thread::yield();
  }
  void join() {
    if (thread_.joinable()) thread_.join();
  }

  int readings_before_;
  std::atomic<bool> done_{false};
  std::string outcome_;
  std::thread thread_;
};

TEST_F(SessionTableTest, AnIdIs64LowerCaseHexadecimalCharacters) {
  const std::string id = create();
  EXPECT_EQ(id.size(), 64U);
  EXPECT_EQ(id.find_first_not_of("0123456789abcdef"), std::string::npos);
}

TEST_F(SessionTableTest, IsFoundByItsWholeId) {
  const std::string id = create();
  EXPECT_TRUE(is_there(id));
  EXPECT_FALSE(is_there(""));
  EXPECT_FALSE(is_there(id.substr(1)));
  EXPECT_FALSE(is_there(id.substr(0, 63)));
  EXPECT_FALSE(is_there(id + "0"));
  std::string upper = id;
  for (char& c : upper) c = static_cast<char>(c >= 'a' ? c - 'a' + 'A' : c);
  EXPECT_EQ(is_there(upper), upper == id);
  EXPECT_FALSE(is_there(std::string(64, '0')));
}

TEST_F(SessionTableTest, SixteenAndNoMore) {
  const std::vector<std::string> ids = create_all();
  EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), kSessionLimit);
  for (const std::string& id : ids) EXPECT_TRUE(is_there(id));
  EXPECT_EQ(create(), "");
  close(ids[7]);
  EXPECT_FALSE(is_there(ids[7]));
  EXPECT_NE(create(), "");
  EXPECT_EQ(create(), "");
}

TEST_F(SessionTableTest, WithoutRandomBytesThereIsNoSession) {
  // Nothing is idle yet: a slot is free at once, or not.
  now_ms = 1;
  const int before = testing::uncollected_children();
  {
    const testing::RandomFailure failure;
    EXPECT_EQ(create(), "");
  }
  EXPECT_EQ(testing::uncollected_children(), before);
  EXPECT_EQ(create_all().back().size(), 64U);
}

TEST_F(SessionTableTest, TheChildOfAClosedSessionEndsWith0) {
  const std::string id = create();
  EXPECT_EQ(ask(id, "x"), "x");
  const int before = testing::uncollected_children();
  close(id);
  EXPECT_EQ(testing::uncollected_children(), before - 1);
  EXPECT_EQ(testing::last_exit_code(), 0U);
}

TEST_F(SessionTableTest, RepliesCarryTheirOwnLines) {
  const std::string one = create();
  const std::string two = create();
  EXPECT_EQ(ask(one, "first"), "first");
  EXPECT_EQ(ask(two, "second"), "second");
  EXPECT_EQ(tell(one, "silent"), Exchange::kDone);
  EXPECT_EQ(ask(one, "third"), "third");
}

TEST_F(SessionTableTest, CarriageReturnsAreDropped) {
  const std::string id = create();
  EXPECT_EQ(ask(id, "raw %ra%r%rb%r%n"), "ab");
}

TEST_F(SessionTableTest, WhatFollowsALineStaysForTheNextExchange) {
  const std::string id = create();
  EXPECT_EQ(ask(id, "raw one%ntwo%nthr"), "one");
  EXPECT_EQ(ask(id, "silent"), "two");
  EXPECT_EQ(ask(id, "raw ee%n"), "three");
  EXPECT_EQ(tell(id, "left behind"), Exchange::kDone);
  EXPECT_EQ(ask(id, "late"), "left behind");
}

TEST_F(SessionTableTest, AnEmptyLineEndsTheSession) {
  for (const char* const line : {"raw %n", "raw %r%n"}) {
    const std::string id = create();
    EXPECT_EQ(ask(id, line), "reply failed");
    EXPECT_FALSE(is_there(id));
  }
}

TEST_F(SessionTableTest, TheLongestAnswer) {
  const std::string id = create();
  EXPECT_TRUE(ask(id, "long 262144") == std::string(262144, 'x'));
  EXPECT_EQ(ask(id, "more"), "more");
  EXPECT_EQ(ask(id, "long 262145"), "reply failed");
  EXPECT_FALSE(is_there(id));
}

TEST_F(SessionTableTest, CarriageReturnsDoNotCountIntoTheLongestAnswer) {
  const std::string id = create();
  const std::string text(262144, 'x');
  EXPECT_TRUE(ask(id, "raw %r" + text + "%r%n") == text);
}

TEST_F(SessionTableTest, AnEndedChildGivesOneFailureAndFreesTheSlot) {
  const std::string id = create();
  let_end(id);
  EXPECT_TRUE(is_there(id));
  EXPECT_TRUE(is_failure(ask(id, "late")));
  EXPECT_FALSE(is_there(id));
}

TEST_F(SessionTableTest, AnEndedChildIsClosedByTheNextCreate) {
  const std::vector<std::string> ids = create_all();
  let_end(ids[3]);
  std::string id;
  while (id.empty()) id = create();
  EXPECT_FALSE(is_there(ids[3]));
  EXPECT_EQ(ask(id, "fresh"), "fresh");
  EXPECT_EQ(create(), "");
}

TEST_F(SessionTableTest, IdleSessionsAreEndedByTheNextCreateOnly) {
  const std::string id = create();
  now_ms += 900001;
  EXPECT_TRUE(is_there(id));
  EXPECT_NE(create(), "");
  EXPECT_FALSE(is_there(id));
}

TEST_F(SessionTableTest, FifteenMinutesAreNotTooLong) {
  const std::string id = create();
  now_ms += 900000;
  EXPECT_NE(create(), "");
  EXPECT_TRUE(is_there(id));
}

TEST_F(SessionTableTest, UseKeepsASessionFromBeingIdle) {
  const std::string asked = create();
  const std::string told = create();
  const std::string found = create();
  now_ms += 500000;
  EXPECT_EQ(ask(asked, "x"), "x");
  EXPECT_EQ(tell(told, "silent"), Exchange::kDone);
  EXPECT_TRUE(is_there(found));
  now_ms += 500000;
  EXPECT_NE(create(), "");
  EXPECT_TRUE(is_there(asked));
  EXPECT_TRUE(is_there(told));
  EXPECT_FALSE(is_there(found));
}

TEST_F(SessionTableTest, WaitingForAnExchangeIsUse) {
  const std::string id = create();
  Asker running(*this, id, "hold");
  running.wait_until_begun();
  now_ms += 500000;
  Asker waiting(*this, id, "late");
  waiting.wait_until_waiting();
  now_ms += 500000;
  EXPECT_NE(create(), "");
  EXPECT_TRUE(is_there(id));
  while (!running.is_done()) EXPECT_EQ(tell(id, "go"), Exchange::kDone);
  EXPECT_EQ(running.outcome(), "held");
  EXPECT_EQ(waiting.outcome(), "late");
}

// One thread reads the clock, another one uses the session before the first compares.
TEST_F(SessionTableTest, ASessionUsedAfterTheClockWasReadIsNotIdle) {
  const std::string id = create();
  now_ms -= 1;
  EXPECT_NE(create(), "");
  EXPECT_TRUE(is_there(id));
}

TEST_F(SessionTableTest, ARunningExchangeOfAnIdleSessionFails) {
  const std::string id = create();
  Asker asker(*this, id, "hold");
  asker.wait_until_begun();
  now_ms += 900001;
  EXPECT_NE(create(), "");
  EXPECT_TRUE(is_failure(asker.outcome()));
}

TEST_F(SessionTableTest, AMessageWithoutAnswerPassesARunningExchange) {
  const std::string id = create();
  Asker asker(*this, id, "hold");
  while (!asker.is_done()) EXPECT_EQ(tell(id, "go"), Exchange::kDone);
  EXPECT_EQ(asker.outcome(), "held");
}

// Six threads call one after the other while an exchange runs.
TEST_F(SessionTableTest, ExchangesFollowEachOtherInTheOrderOfTheCalls) {
  const std::string id = create();
  Asker running(*this, id, "hold");
  running.wait_until_begun();
  std::vector<std::unique_ptr<Asker>> waiting;
  for (int i = 0; i < 6; ++i) {
    waiting.push_back(std::make_unique<Asker>(*this, id, "count"));
    waiting.back()->wait_until_waiting();
  }
  while (!running.is_done()) EXPECT_EQ(tell(id, "go"), Exchange::kDone);
  for (std::size_t i = 0; i < waiting.size(); ++i) {
    EXPECT_EQ(waiting[i]->outcome(), std::to_string(i + 1));
  }
}

TEST_F(SessionTableTest, ClosingFailsTheRunningExchangeAndTurnsTheWaitingOnesAway) {
  const std::string id = create();
  Asker running(*this, id, "hold");
  running.wait_until_begun();
  Asker waiting(*this, id, "late");
  waiting.wait_until_waiting();
  close(id);
  EXPECT_TRUE(is_failure(running.outcome()));
  EXPECT_EQ(waiting.outcome(), "gone");
  EXPECT_FALSE(is_there(id));
}

TEST_F(SessionTableTest, ASlotIsNotReusedWhileItIsHeld) {
  std::vector<std::string> ids = create_all();
  std::optional<SessionTable::Hold> hold;
  hold.emplace(table->find(ids[5]));
  std::atomic<bool> closed{false};
  std::thread closer([&] {
    close(ids[5]);
    closed = true;
  });
  while (is_there(ids[5])) std::this_thread::yield();
  std::atomic<bool> created{false};
  std::string fresh;
  const int readings = clock_readings;
  std::thread creator([&] {
    fresh = create();
    created = true;
  });
  // The first thing that it does is to read the clock.
  while (clock_readings == readings) std::this_thread::yield();
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();
  EXPECT_FALSE(closed);
  EXPECT_FALSE(created);
  EXPECT_EQ(hold->id(), ids[5]);
  hold.reset();
  closer.join();
  creator.join();
  EXPECT_NE(fresh, "");
  EXPECT_EQ(ask(fresh, "x"), "x");
}

TEST_F(SessionTableTest, SeveralThreadsMayCloseOneSession) {
  for (int round = 0; round < 10; ++round) {
    const std::string id = create();
    Asker running(*this, id, "hold");
    std::array<std::thread, 3> closers;
    for (std::thread& closer : closers) closer = std::thread([&] { close(id); });
    for (std::thread& closer : closers) closer.join();
    EXPECT_TRUE(is_failure(running.outcome())) << running.outcome();
    EXPECT_FALSE(is_there(id));
  }
  EXPECT_EQ(create_all().back().size(), 64U);
}

// Clients that create, use and close sessions as they like: nobody sees another one's reply, and
// in the end every slot can be used.
TEST_F(SessionTableTest, ManyClients) {
  constexpr int kClients = 8;
  constexpr int kRounds = 12;
  std::vector<std::thread> clients;
  std::atomic<int> replied{0};
  for (int client = 0; client < kClients; ++client) {
    clients.emplace_back([&, client] {
      for (int round = 0; round < kRounds; ++round) {
        const std::string id = create();
        ASSERT_NE(id, "");
        const std::string text = std::to_string(client) + "." + std::to_string(round);
        std::thread second([&] {
          if (ask(id, "b" + text) == "b" + text) ++replied;
        });
        if (ask(id, "a" + text) == "a" + text) ++replied;
        EXPECT_EQ(tell(id, round % 3 == 0 ? "exit" : "silent"), Exchange::kDone);
        if (round % 2 == 0) close(id);
        second.join();
        close(id);
      }
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_GE(replied.load(), kClients * kRounds);
  EXPECT_EQ(create_all().back().size(), 64U);
}

}  // namespace
}  // namespace kova
