#include "larkspan/platform/base/NotificationCenter.h"
#include "larkspan/platform/base/Value.h"

#include <gtest/gtest.h>

#include <atomic>
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
  tokens.push_back(center.addObserver("a", one.get(), as("a1:")));
  tokens.push_back(center.addObserver(std::nullopt, one.get(), as("1:")));
  center.post("a", one, {{"k", 1}});
  center.post("a", two, {{"k", 2}});
  center.post("b", one, {{"k", 3}});
  center.post("b");
  EXPECT_EQ(log, "any:a1 a1:a1 1:a1 any:a2 any:b3 1:b3 any:b(null) ");
  log.clear();
  tokens[0] = std::move(tokens[1]);  // ends "any"
  tokens[2].reset();
  center.post("a", one);
  EXPECT_EQ(log, "a1:a(null) ");
}

TEST(NotificationCenter, LetsHandlersPostRegisterEndAndThrow) {
  NotificationCenter center;
  std::string log;
  Token late, self, next;
  const auto notes = [&](const char* text) { return [&log, text](const Notification&) { log += text; }; };
  const Token first = center.addObserver("outer", nullptr, [&](const Notification&) {
    log += "first ";
    center.post("inner");
    if (log == "first inner ") late = center.addObserver("outer", nullptr, notes("late "));
    next.reset();  // told in the same post, had it lasted
  });
  const Token inner = center.addObserver("inner", nullptr, notes("inner "));
  self = center.addObserver("outer", nullptr, [&](auto&) {
    log += "self ";
    self.reset();
  });
  next = center.addObserver("outer", nullptr, notes("next "));
  for (int i = 0; i < 2; ++i) center.post("outer");
  EXPECT_EQ(log, "first inner self first inner late ");

  const Token thrower = center.addObserver("throw", nullptr, [](auto&) { throw std::runtime_error("x"); });
  EXPECT_THROW(center.post("throw"), std::runtime_error);
  const Token orphan = NotificationCenter().addObserver("outer", nullptr, notes("orphan "));
}

TEST(NotificationCenter, TokensWaitForTheHandlerOnAnotherThread) {
  NotificationCenter center;
  std::latch entered{1}, ending{1}, leave{1};
  std::atomic<bool> left{false};
  Token token = center.addObserver("a", nullptr, [&](auto&) {
    entered.count_down();
    leave.wait();
    left = true;
  });
  const std::jthread poster([&] { center.post("a"); });
  entered.wait();
  const std::jthread ender([&] {
    ending.count_down();
    token.reset();
    EXPECT_TRUE(left);
  });
  ending.wait();
  leave.count_down();
}

}  // namespace
}  // namespace larkspan::platform
