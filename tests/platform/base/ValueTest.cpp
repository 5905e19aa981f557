#include "larkspan/platform/base/Value.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <ctime>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace larkspan::platform {
namespace {

constexpr auto kMinimum = std::numeric_limits<int64_t>::min(), kMaximum = std::numeric_limits<int64_t>::max();

/// Equal to its like by number.
struct Numbered : Object {
  explicit Numbered(int n) : number(n) {}
  bool isEqual(const Object& other) const override {
    const auto* like = dynamic_cast<const Numbered*>(&other);
    return like && like->number == number;
  }
  std::size_t hash() const override { return static_cast<std::size_t>(number); }
  std::string description() const override { return "No. " + std::to_string(number); }
  const int number;
};

/// One or more of each kind, no two of them equal.
std::vector<Value> variety() {
  const float nan32 = std::numeric_limits<float>::quiet_NaN();
  const Value plain[] = {Value(), false, true, 0,    1,   kMinimum,     kMaximum, 0.0f, -0.0f,
                         1.0f,    nan32, 0.0,  -0.0, 1.0, std::nan(""), "",       "a",  "a "};
  std::vector<Value> all(std::begin(plain), std::end(plain));
  for (const char* text : {"", "a"})
    all.insert(all.end(), {Data::copy(text), URL::file(text), Error("d", 2, text)});
  for (const Value& member : {Value(), Value(1), Value(Array{1, 2}), Value(Array{2, 1})}) {
    all.insert(all.end(),
               {Array{member}, Dictionary{{"a", member}}, Set({member}), Error("d", 1, {{"a", member}})});
  }
  all.insert(all.end(), {Array(), Dictionary(), Set(), Date{}, Date{0, 1}, Error("d", 1), Error("e", 1)});
  all.insert(all.end(),
             {std::make_shared<Object>(), std::make_shared<Object>(), Dictionary{{"a", 1}, {"b", 2}}});
  return all;
}

TEST(Value, ComparesByKindAndContentInATotalOrder) {
  const std::vector<Value> all = variety();
  for (std::size_t i = 0; i < all.size(); ++i) {
    for (std::size_t j = 0; j < all.size(); ++j) {
      SCOPED_TRACE(all[i].description() + " and " + all[j].description());
      EXPECT_EQ(all[i] == all[j], i == j);
      EXPECT_EQ(order(all[i], all[j]) == 0, i == j);
      EXPECT_TRUE((order(all[i], all[j]) < 0) == (order(all[j], all[i]) > 0));
    }
  }
  EXPECT_EQ(Value(Dictionary{{"a", 1}, {"b", 2}}), Value(Dictionary{{"b", 2}, {"a", 1}}));
  EXPECT_EQ(Value(std::shared_ptr<Object>()), Value());
  EXPECT_EQ(Value(std::optional<std::string>()), Value());

  std::vector<Value> twice = all;
  twice.insert(twice.end(), all.rbegin(), all.rend());
  const Set set(twice);
  EXPECT_EQ(set.members().size(), all.size());
  for (const Value& value : all) EXPECT_TRUE(set.contains(value)) << value.description();
  const auto a = std::make_shared<Numbered>(1), b = std::make_shared<Numbered>(1);
  EXPECT_EQ(Value(a), Value(b));
  EXPECT_EQ(Set({a, b, a}).members().size(), 2u) << "objects of a set are told apart by identity";
  EXPECT_EQ(Set({a, b}), Set({b, a}));
}

TEST(Value, ConvertsNumbersAndNeverTraps) {
  // clang-format off
  const std::tuple<Value, int64_t, double, bool> cases[] = {
      {true, 1, 1, true}, {kMinimum, kMinimum, -0x1p63, true}, {0x1p63, kMaximum, 0x1p63, true},
      {std::nextafter(0x1p63, 0), kMaximum - 1023, 0x1p63 - 1024, true},
      {-INFINITY, kMinimum, -INFINITY, true}, {-0.0, 0, 0, false}, {"7", 0, 0, false}};
  // clang-format on
  for (const auto& [value, integer, real, boolean] : cases) {
    EXPECT_EQ(std::tuple(value.integerValue(), value.doubleValue(), value.boolValue()),
              std::tuple(integer, real, boolean))
        << value.description();
  }
  EXPECT_EQ(Value(std::nan("")).integerValue(), 0);
  const Value number(1);
  EXPECT_TRUE(number.array().empty() && number.dictionary().empty() && number.set().members().empty());
  EXPECT_FALSE(number.data() || number.date() || number.url() || number.error() ||
               number.objectOf<Numbered>());
  EXPECT_EQ(Value(Array{"a", 1, "b"}).strings(), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(Value("a\xFFz"), Value("a\xEF\xBF\xBDz"));
}

TEST(Value, DescribesItself) {
  // clang-format off
  const std::pair<Value, const char*> cases[] = {
      {kMinimum, "-9223372036854775808"}, {0.1f, "0.1"}, {0.1, "0.1"},
      {100000.0, "100000"}, {0.1 + 0.2, "0.30000000000000004"}, {5e-324, "4.94065645841247e-324"},
      {-INFINITY, "-inf"}, {Data::copy("abc"), "{3 bytes}"}, {URL::file("/a b"), "file:///a%20b"},
      {Array{"", "", 1}, "(, , 1)"}, {Set({2, 1, 2}), "{1, 2}"}, {std::make_shared<Numbered>(4), "No. 4"}};
  // clang-format on
  for (const auto& [value, text] : cases) EXPECT_EQ(value.description(), text);
  Value deep = 1;
  for (int i = 0; i < 100; ++i) deep = Array{deep};
  EXPECT_EQ(deep.description(), std::string(32, '(') + "…" + std::string(32, ')'));
  EXPECT_EQ(Value(Array{1}).description(), "(1)") << "the count of levels was not given back";
  EXPECT_TRUE(Object().description().starts_with("<Object:0x"));
}

TEST(Dictionary, KeepsTheOrderOfFirstSettingAndRepairsKeys) {
  Dictionary dictionary{{"c", 1}, {"a", 2}, {"c", 3}};
  std::string key = "b";
  dictionary.set(std::string_view(key), 4);
  key = "x";  // the key was copied
  dictionary.set("a", Value());
  EXPECT_EQ(dictionary.description(), "{c = 3, a = (null), b = 4}");
  EXPECT_TRUE(dictionary.contains("a") && dictionary.get("x").isNone());

  dictionary.remove("c");
  dictionary.remove("x");
  dictionary.set("c", 5);
  dictionary.set(std::string_view("\xFF"), 6);
  dictionary.set(std::string_view("\xFE"), 7);
  EXPECT_EQ(dictionary.description(), "{a = (null), b = 4, c = 5, \xEF\xBF\xBD = 7}");

  EXPECT_NE((Dictionary{{"a", 1}}), (Dictionary{{"a", 1}, {"b", 2}}));
  EXPECT_NE((Dictionary{{"a", Value()}}), (Dictionary{{"b", Value()}}));
  EXPECT_EQ(Dictionary(), Dictionary::withCapacity(4));
}

TEST(Dictionary, CopiesOnTheFirstChangeOfAShareAndOnlyThen) {
  Dictionary first = Dictionary::withCapacity(8);
  const void* storage = first.storage();
  first.set("a", 1);
  first.set("a", 2);
  EXPECT_EQ(first.storage(), storage) << "an unshared dictionary is written in place";

  Dictionary second = first;
  second.remove("absent");
  EXPECT_EQ(second.storage(), storage) << "removing what is not there changes nothing";
  second.set("a", 3);
  EXPECT_NE(second.storage(), storage);
  EXPECT_GE(second.capacity(), 8u);
  EXPECT_EQ(first.get("a"), Value(2));

  // The key of an entry of the dictionary's own, which the change moves.
  for (int i = 0; i < 40; ++i) second.set(std::string_view("key " + std::to_string(i)), i);
  const Dictionary share = second;
  second.set(share.keys().keys()[30].view(), "new");
  second.remove(second.keys().keys()[0].view());
  EXPECT_EQ(second.get("key 29"), Value("new"));
  EXPECT_EQ(share.get("key 29"), Value(29));
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

TEST(Error, TellsWhatItCarriesAndMakesUpADescription) {
  EXPECT_EQ(Error("d", 5).localizedDescription(), "The operation could not be completed (d error 5).");
  EXPECT_EQ(Error::posix(ENOENT, "open /x\xFF").description(),
            "Error Domain=POSIX Code=2 \"open /x\xEF\xBF\xBD: No such file or directory\"");
}

TEST(Date, ReadsAndPrintsRFC3339) {
  // Text, seconds, nanoseconds, and how the date prints.
  // clang-format off
  const std::tuple<const char*, int64_t, uint32_t, const char*> cases[] = {
      {"1996-12-19T16:39:57-08:00", 851042397, 0, "1996-12-20T00:39:57Z"},
      {"1990-12-31T23:59:60Z", 662688000, 0, "1991-01-01T00:00:00Z"},
      {"2000-02-29t12:00:00.1234567899z", 951825600, 123456789, "2000-02-29T12:00:00.123456789Z"},
      {"1969-12-31T23:59:59.000000001-00:00", -1, 1, "1969-12-31T23:59:59.000000001Z"},
      {"9999-12-31T23:59:59-23:59", 253402387139, 0, "@253402387139"}};
  // clang-format on
  for (const auto& [text, seconds, nanoseconds, printed] : cases) {
    EXPECT_EQ(Date::parse(text), (Date{seconds, nanoseconds})) << text;
    EXPECT_EQ((Date{seconds, nanoseconds}).description(), printed);
  }
  for (const char* text :
       {"", "2026-11-22", "2026-11-22 20:38:41Z", "2026-11-22T20:38:41", "2026-13-01T00:00:00Z",
        "2026-00-01T00:00:00Z", "2026-11-00T00:00:00Z", "1900-02-29T00:00:00Z", "2026-11-22T24:00:00Z",
        "2026-11-22T23:60:00Z", "2026-11-22T23:00:61Z", "2026-11-22T23:00:00.Z", "2026-11-22T23:00:00+0100",
        "2026-11-22T23:00:00+24:00", "2026-11-22T23:00:00+01:60", "2026-11-22T23:00:00ZZ",
        "2026-1-22T23:00:00Z", "+026-11-22T23:00:00Z"}) {
    EXPECT_FALSE(Date::parse(text)) << text;
  }
}

TEST(Date, AgreesWithTheCLibraryThroughFourCenturiesOfDays) {
  for (int64_t day = -400 * 366; day < 200 * 366; ++day) {
    const time_t seconds = day * 86400 + 86399;
    std::tm fields;
    char expected[64];
    strftime(expected, sizeof expected, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&seconds, &fields));
    ASSERT_EQ((Date{seconds, 0}).description(), expected);
    ASSERT_EQ(Date::parse(expected), (Date{seconds, 0}));
  }
}

TEST(Date, CountsFromTheReferenceDateAndSaturates) {
  constexpr int64_t kReference = 978307200;
  EXPECT_EQ(Date::sinceReferenceDate(-0.25), (Date{kReference - 1, 750000000}));
  EXPECT_EQ(Date::sinceReferenceDate(std::nan("")), (Date{kReference, 0}));
  EXPECT_EQ(Date::sinceReferenceDate(-INFINITY), (Date{kMinimum, 0}));
  EXPECT_EQ((Date{0, 1'000'000'000}), (Date{0, 999'999'999}));
  EXPECT_EQ((Date{kReference - 1, 750000000}).timeIntervalSinceReferenceDate(), -0.25);
}

}  // namespace
}  // namespace larkspan::platform
