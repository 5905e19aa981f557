#include "larkspan/platform/base/NotificationCenter.h"
#include "larkspan/platform/base/Value.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace larkspan::platform {
namespace {

using Token = NotificationCenter::Token;

TEST(NotificationCenter, TellsThoseWhoAskedByNameAndObjectInOrder) {
  NotificationCenter center;
  const auto one = std::make_shared<Object>(), two = std::make_shared<Object>();
  std::string log;
  const auto as = [&](const char* who) {
    return
        [&log, who](const Notification& n) { log += who + n.name + n.userInfo.get("k").description() + " "; };
  };
  std::vector<Token> tokens;
  tokens.push_back(center.addObserver(std::nullopt, nullptr, as("any:")));
  tokens.push_back(center.addObserver("a", nullptr, as("a:")));
  tokens.push_back(center.addObserver("a", one.get(), as("a1:")));
  tokens.push_back(center.addObserver(std::nullopt, one.get(), as("1:")));
  center.post("a", one, {{"k", 1}});
  center.post("a", two, {{"k", 2}});
  center.post("b", one, {{"k", 3}});
  center.post("b");
  EXPECT_EQ(log, "any:a1 a:a1 a1:a1 1:a1 any:a2 a:a2 any:b3 1:b3 any:b(null) ");
  log.clear();
  tokens[0] = std::move(tokens[1]);  // ends "any"
  tokens[3].reset();
  center.post("a", one);
  EXPECT_EQ(log, "a:a(null) a1:a(null) ");
  EXPECT_EQ(one.use_count(), 1);
}

TEST(NotificationCenter, LetsHandlersPostRegisterEndAndThrow) {
  NotificationCenter center;
  std::string log;
  Token late, self, next, thrower;
  const Token first = center.addObserver("outer", nullptr, [&](const Notification&) {
    log += "first ";
    center.post("inner");
    if (log == "first inner ") late = center.addObserver("outer", nullptr, [&](auto&) { log += "late "; });
    next.reset();  // told in the same post, had it lasted
  });
  const Token inner = center.addObserver("inner", nullptr, [&](auto&) { log += "inner "; });
  self = center.addObserver("outer", nullptr, [&](auto&) {
    log += "self ";
    self.reset();
  });
  next = center.addObserver("outer", nullptr, [&](auto&) { log += "next "; });
  center.post("outer");
  EXPECT_EQ(log, "first inner self ");
  center.post("outer");
  EXPECT_EQ(log, "first inner self first inner late ");

  thrower = center.addObserver("throw", nullptr, [](auto&) { throw std::runtime_error("x"); });
  EXPECT_THROW(center.post("throw"), std::runtime_error);
  thrower.reset();  // not running any more: does not wait
  const Token orphan = NotificationCenter().addObserver("outer", nullptr, [](auto&) {});
}

TEST(NotificationCenter, TokensWaitForTheHandlerOnAnotherThread) {
  NotificationCenter center;
  std::latch entered{1};
  std::promise<void> leave;
  std::atomic<bool> left{false};
  Token token = center.addObserver("a", nullptr, [&](auto&) {
    entered.count_down();
    leave.get_future().wait();
    left = true;
  });
  std::thread poster([&] { center.post("a"); });
  entered.wait();
  std::latch ending{1};
  std::thread ender([&] {
    ending.count_down();
    token.reset();
    EXPECT_TRUE(left);
  });
  ending.wait();
  leave.set_value();
  ender.join();
  poster.join();
}

TEST(NotificationCenter, SurvivesObserversThatComeAndGoUnderPosts) {
  NotificationCenter center;
  std::atomic<bool> stop{false};
  std::atomic<int> heard{0};
  const Token lasting = center.addObserver("a", nullptr, [&](auto&) { ++heard; });
  std::vector<std::thread> comers;
  for (int i = 0; i < 3; ++i) {
    comers.emplace_back([&] {
      while (!stop) {
        auto alive = std::make_unique<int>(1);
        Token token = center.addObserver("a", nullptr, [&center, plain = alive.get()](const Notification& n) {
          EXPECT_EQ(*plain, 1);
          if (n.userInfo.empty()) center.post("a", nullptr, {{"nested", true}});
        });
        if (heard % 2) center.post("a", nullptr, {{"nested", true}});
        token.reset();
        *alive = 2;  // freed next: a handler that still ran would read it
      }
    });
  }
  std::thread other([&] {
    for (int n = 0; n < 1000; ++n) center.post("a");
  });
  for (int n = 0; n < 1000; ++n) center.post("a");
  other.join();
  stop = true;
  for (auto& comer : comers) comer.join();
  EXPECT_GE(heard, 2000);
}

}  // namespace
}  // namespace larkspan::platform
