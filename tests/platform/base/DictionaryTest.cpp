#include "larkspan/platform/base/Dictionary.h"
#include "larkspan/platform/base/Value.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace larkspan::platform {
namespace {

std::string keys(const Dictionary& dictionary) {
  std::string result;
  for (const auto& entry : dictionary) result.append(entry.key()).append(" ");
  return result;
}

TEST(Dictionary, KeepsTheOrderOfFirstSettingAndRepairsKeys) {
  Dictionary dictionary{{"c", 1}, {"a", 2}, {"c", 3}};
  std::string key = "b";
  dictionary.set(std::string_view(key), 4);
  key = "x";  // the key was copied
  dictionary.set("a", Value());
  EXPECT_EQ(keys(dictionary), "c a b ");
  EXPECT_EQ(dictionary.get("c"), Value(3));
  EXPECT_TRUE(dictionary.contains("a"));
  EXPECT_TRUE(dictionary.get("x").isNone());

  dictionary.remove("c");
  dictionary.remove("x");
  dictionary.set("c", 5);
  EXPECT_EQ(keys(dictionary), "a b c ");
  dictionary.set(std::string_view("\xFF"), 6);
  dictionary.set(std::string_view("\xFE"), 7);
  EXPECT_EQ(dictionary.get("\xEF\xBF\xBD"), Value(7));
  EXPECT_EQ(dictionary.size(), 4u);
  dictionary.set("self", dictionary);
  EXPECT_EQ(dictionary.description().substr(0, 23), "{a = (null), b = 4, c =");

  EXPECT_EQ((Dictionary{{"a", 1}, {"b", 2}}), (Dictionary{{"b", 2}, {"a", 1}}));
  EXPECT_NE((Dictionary{{"a", 1}}), (Dictionary{{"a", 1}, {"b", 2}}));
  EXPECT_NE((Dictionary{{"a", Value()}}), (Dictionary{{"b", Value()}}));
  EXPECT_EQ(Dictionary(), Dictionary::withCapacity(4));
}

TEST(Dictionary, CopiesOnTheFirstChangeOfAShareAndOnlyThen) {
  Dictionary first = Dictionary::withCapacity(8);
  EXPECT_GE(first.capacity(), 8u);
  const void* storage = first.storage();
  first.set("a", 1);
  first.set("a", 2);
  EXPECT_EQ(first.storage(), storage) << "an unshared dictionary is written in place";

  Dictionary second = first;
  EXPECT_EQ(second.storage(), storage);
  second.remove("absent");
  EXPECT_EQ(second.storage(), storage) << "removing what is not there changes nothing";
  second.set("a", 3);
  EXPECT_NE(second.storage(), storage);
  EXPECT_GE(second.capacity(), 8u);
  EXPECT_EQ(first.get("a"), Value(2));

  // The key of an entry of the dictionary's own, which the change moves.
  for (int i = 0; i < 40; ++i) second.set(std::string_view("key " + std::to_string(i)), i);
  const Dictionary share = second;
  second.set(share.begin()[30].key(), "new");
  second.remove(second.begin()[0].key());
  EXPECT_EQ(second.get("key 29"), Value("new"));
  EXPECT_EQ(share.get("key 29"), Value(29));

  Dictionary moved = std::move(first);
  EXPECT_TRUE(moved.storage() == storage && first.storage() == nullptr);
  const Dictionary& alias = moved;
  moved = alias;
  EXPECT_EQ(moved.get("a"), Value(2));
}

TEST(Dictionary, IsWrittenInPlaceOnlyAfterTheLastReaderOnAnotherThreadHasLeft) {
  Dictionary mine{{"a", 1}};  // no text, whose own count would put the threads in order
  const void* storage = mine.storage();
  std::atomic<bool> left{false};
  std::thread reader([&left, copy = mine]() mutable {
    EXPECT_EQ(copy.get("a"), Value(1));
    copy = {};
    left.store(true, std::memory_order_relaxed);  // orders nothing: the dictionary itself must
  });
  while (!left.load(std::memory_order_relaxed)) std::this_thread::yield();
  mine.set("a", 2);
  EXPECT_EQ(mine.storage(), storage);
  reader.join();
}

}  // namespace
}  // namespace larkspan::platform
