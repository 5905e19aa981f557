#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/base/Value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <string>
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
  EXPECT_EQ(Value(std::make_shared<Numbered>(1)), Value(std::make_shared<Numbered>(1)));
  EXPECT_EQ(Value(std::shared_ptr<Object>()), Value());
  EXPECT_EQ(Value(std::optional<std::string>()), Value());
  EXPECT_EQ(Value(std::optional<std::string>("a")), Value("a"));

  std::vector<Value> twice = all;
  twice.insert(twice.end(), all.rbegin(), all.rend());
  const Set set(twice);
  EXPECT_EQ(set.members().size(), all.size());
  for (const Value& value : all) EXPECT_TRUE(set.contains(value)) << value.description();
  EXPECT_FALSE(set.contains(2));
  const auto a = std::make_shared<Numbered>(1), b = std::make_shared<Numbered>(1);
  EXPECT_EQ(Set({a, b, a}).members().size(), 2u) << "objects of a set are told apart by identity";
  EXPECT_EQ(Set({a, b}), Set({b, a}));
  EXPECT_NE(Set({Value(a)}), Set({Value(b)}));
}

TEST(Value, ConvertsNumbersAndNeverTraps) {
  // clang-format off
  const std::tuple<Value, int64_t, double, bool> cases[] = {
      {true, 1, 1, true}, {uint32_t{4294967295}, 4294967295, 4294967295, true},
      {kMinimum, kMinimum, -0x1p63, true}, {0.5, 0, 0.5, true},
      {-1.9f, -1, static_cast<double>(-1.9f), true}, {0x1p63, kMaximum, 0x1p63, true},
      {-0x1p63, kMinimum, -0x1p63, true},
      {std::nextafter(0x1p63, 0), kMaximum - 1023, 0x1p63 - 1024, true},
      {-std::numeric_limits<double>::infinity(), kMinimum, -std::numeric_limits<double>::infinity(), true},
      {-0.0, 0, 0, false}, {"7", 0, 0, false}};
  // clang-format on
  for (const auto& [value, integer, real, boolean] : cases) {
    SCOPED_TRACE(value.description());
    EXPECT_EQ(value.integerValue(), integer);
    EXPECT_EQ(value.doubleValue(), real);
    EXPECT_EQ(value.boolValue(), boolean);
  }
  EXPECT_EQ(Value(std::nan("")).integerValue(), 0);

  using Kind = Value::Kind;
  for (const Value& value : variety()) {
    SCOPED_TRACE(value.description());
    const Kind kind = value.kind();
    EXPECT_TRUE(value.string().has_value() == (kind == Kind::string) &&
                value.data().has_value() == (kind == Kind::data));
    EXPECT_TRUE(value.date().has_value() == (kind == Kind::date) &&
                value.url().has_value() == (kind == Kind::url));
    EXPECT_EQ(value.error().has_value(), kind == Kind::error);
    EXPECT_EQ(value.object() != nullptr, kind == Kind::object);
    EXPECT_EQ(value.objectOf<Numbered>(), nullptr);
    EXPECT_TRUE(value.isNumber() || value.doubleValue() == 0);
    EXPECT_TRUE(kind == Kind::string || value.text().empty());
    EXPECT_TRUE(kind == Kind::array || (value.array().empty() && value.strings().empty()));
    EXPECT_TRUE(kind == Kind::dictionary || value.dictionary().empty());
    EXPECT_TRUE(kind == Kind::set || value.set().members().empty());
  }
  EXPECT_EQ(Value(Array{"a", 1, "b"}).strings(), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(Value("a\xFFz"), Value("a\xEF\xBF\xBDz"));
}

TEST(Value, DescribesItself) {
  // clang-format off
  const std::pair<Value, const char*> cases[] = {
      {Value(), "(null)"}, {true, "true"}, {kMinimum, "-9223372036854775808"}, {0.1f, "0.1"}, {0.1, "0.1"},
      {100000.0, "100000"}, {1.0 / 3, "0.3333333333333333"}, {0.1 + 0.2, "0.30000000000000004"},
      {1e300, "1e+300"}, {5e-324, "4.94065645841247e-324"},
      {-std::numeric_limits<double>::infinity(), "-inf"}, {Data::copy("abc"), "{3 bytes}"},
      {Date{0, 500000000}, "1970-01-01T00:00:00.5Z"}, {URL::file("/a b"), "file:///a%20b"},
      {Array{"", "", 1}, "(, , 1)"}, {Set({2, 1, 2}), "{1, 2}"},
      {Dictionary{{"b", 1}, {"a", Array()}}, "{b = 1, a = ()}"},
      {Error("d", -3), "Error Domain=d Code=-3 \"The operation could not be completed (d error -3).\""},
      {std::make_shared<Numbered>(4), "No. 4"}};
  // clang-format on
  for (const auto& [value, text] : cases) EXPECT_EQ(value.description(), text);
  Value deep = 1;
  for (int i = 0; i < 100; ++i) deep = Array{deep};
  EXPECT_EQ(deep.description(), std::string(32, '(') + "…" + std::string(32, ')'));
  EXPECT_EQ(Value(Array{1}).description(), "(1)") << "the count of levels was not given back";
  const Object plain;
  EXPECT_TRUE(plain.description().starts_with("<Object:0x")) << plain.description();
  EXPECT_EQ(Numbered(1).className(), "Numbered");
}

TEST(Slice, SharesItsBlockAndOutlivesTheSliceItCameFrom) {
  Slice part;
  {
    const Slice whole = Slice::copy("0123456789");
    part = whole.part(2, 5).part(1, 3);
    EXPECT_EQ(part.data(), whole.data() + 3);
  }
  EXPECT_EQ(Value::wellFormed(part), Value("345"));
  const Slice moved = std::move(part);
  EXPECT_TRUE(part.empty());
  EXPECT_EQ(moved, Slice::copy("345"));
  EXPECT_EQ(Slice::copy(""), Slice());
}

TEST(Error, TellsWhatItCarriesAndMakesUpADescription) {
  const Error full(
      "d", 5, {{kLocalizedDescriptionKey, "D"}, {kLocalizedFailureReasonKey, "R"}, {kHelpAnchorKey, "H"}});
  EXPECT_EQ(format("%@ %@ %@ %@ %@", full.localizedDescription(), full.localizedFailureReason(),
                   full.localizedRecoverySuggestion(), full.helpAnchor(), full),
            "D R (null) H Error Domain=d Code=5 \"D\"");
  const Error odd("d", 5, {{kLocalizedDescriptionKey, 7}});
  EXPECT_EQ(odd.localizedDescription(), "The operation could not be completed (d error 5).");
  EXPECT_EQ(Error::posix(ENOENT, "open /x\xFF").description(),
            "Error Domain=POSIX Code=2 \"open /x\xEF\xBF\xBD: No such file or directory\"");
  EXPECT_EQ(Error("d", 5, Dictionary()), Error("d", 5));
  EXPECT_NE(full, Error("d", 5));
}

}  // namespace
}  // namespace larkspan::platform
