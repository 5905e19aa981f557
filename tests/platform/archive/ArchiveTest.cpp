#include "larkspan/platform/archive/InternedKeys.h"
#include "larkspan/platform/archive/KeyedArchiver.h"
#include "larkspan/platform/archive/KeyedUnarchiver.h"
#include "larkspan/platform/archive/ValueCoding.h"
#include "larkspan/platform/base/Limits.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "tests/platform/archive/Bytes.h"

namespace larkspan::platform {
namespace {

using Code = ArchiveErrorCode;
using Result = KeyedUnarchiver::Result;

Code codeOf(const std::optional<Error>& error) { return static_cast<Code>(error ? error->code() : 0); }
constexpr Code kFine{0};

std::string archived(const Value& value) {
  const auto result = KeyedArchiver::archivedData(value);
  EXPECT_FALSE(result.error) << result.error->description();
  return std::string(result.data.view());
}
Result unarchived(std::string_view bytes, const ClassSet& classes) {
  return KeyedUnarchiver::unarchivedValue(Data::copy(bytes), classes);
}

/// A record with fixed fields, each read with its own classes.
class Folder : public Archivable {
 public:
  Value name, children, owner;
  int64_t size = 0, serial = 0;
  bool hidden = false, hadName = false;
  double share = 0;
  float ratio = 0;

  static const ObjectClass& archiveClass() {
    static constexpr ObjectClass kClass{"Folder", decode};
    return kClass;
  }
  const ObjectClass& objectClass() const override { return archiveClass(); }
  void encodeWithCoder(KeyedArchiver& coder) const override {
    coder.encodeObject(name, "name");
    coder.encodeObject(children, "children");
    coder.encodeObject(owner, "owner");
    coder.encodeInt64(size, "size");
    coder.encodeInteger(serial, "serial");
    coder.encodeBool(hidden, "hidden");
    coder.encodeDouble(share, "share");
    coder.encodeFloat(ratio, "ratio");
  }
  bool isEqual(const Object& other) const override {
    const auto* o = dynamic_cast<const Folder*>(&other);
    return o && name == o->name && children == o->children && owner == o->owner && size == o->size &&
           serial == o->serial && hidden == o->hidden && share == o->share && ratio == o->ratio;
  }

 private:
  static std::shared_ptr<Object> decode(KeyedUnarchiver& coder) {
    auto folder = std::make_shared<Folder>();
    folder->hadName = coder.containsValue("name");
    folder->name = coder.decodeObject("name", {ValueClass::string});
    folder->children = coder.decodeObject("children", ClassSet{ValueClass::array}.with<Folder>());
    folder->owner = coder.decodeObject("owner", {ValueClass::number});
    folder->size = coder.decodeInt64("size");
    folder->serial = coder.decodeInteger("serial");
    folder->hidden = coder.decodeBool("hidden");
    folder->share = coder.decodeDouble("share");
    folder->ratio = coder.decodeFloat("ratio");
    if (folder->size == -1) return nullptr;
    if (folder->size == -2) coder.fail(Error("Test", 7, "no such size"));
    return folder;
  }
};

/// An object with fields of any name, which pass on the classes admitted around it.
class Note : public Archivable {
 public:
  Dictionary fields;

  static const ObjectClass& archiveClass() {
    static constexpr ObjectClass kClass{"Note", decode};
    return kClass;
  }
  const ObjectClass& objectClass() const override { return archiveClass(); }
  void encodeWithCoder(KeyedArchiver& coder) const override { coder.encodeEntries(fields); }
  bool isEqual(const Object& other) const override {
    const auto* note = dynamic_cast<const Note*>(&other);
    return note && fields == note->fields;
  }

 private:
  static std::shared_ptr<Object> decode(KeyedUnarchiver& coder) {
    auto note = std::make_shared<Note>();
    note->fields = coder.decodeEntries(coder.allowedClasses());
    return note;
  }
};

const ClassSet& everything() {
  static const ClassSet classes = ClassSet::allValues().with<Folder>().with<Note>();
  return classes;
}

using Entries = std::initializer_list<std::pair<std::string_view, Value>>;
Dictionary dictionaryOf(Entries entries) {
  Dictionary result;
  for (const auto& [key, value] : entries) result.set(key, value);
  return result;
}
std::shared_ptr<Note> noteWith(Dictionary fields) {
  auto note = std::make_shared<Note>();
  note->fields = std::move(fields);
  return note;
}
std::shared_ptr<Note> noteWith(Entries entries) { return noteWith(dictionaryOf(entries)); }

/// A value in which every kind stands, in containers and in objects.
Value richValue() {
  auto inner = std::make_shared<Folder>();
  inner->name = "inner";
  inner->size = -3;
  auto folder = std::make_shared<Folder>();
  folder->name = "Bücher";
  folder->children = Array{inner, inner};
  folder->owner = 1000;
  folder->size = int64_t{1} << 40;
  folder->serial = std::numeric_limits<int64_t>::min();
  folder->hidden = true;
  folder->share = 0.1;
  folder->ratio = 0.5F;
  Dictionary many;
  for (int i = 0; i < 30; ++i) many.set("key" + std::to_string(i), i * 1000);
  const Error cause("POSIX", 2, dictionaryOf({{"path", *URL::parse("file:///tmp/%FF")}}));
  return Array{Value(),
               true,
               false,
               0,
               -1,
               1.5,
               1.5F,
               std::numeric_limits<double>::infinity(),
               "",
               "text",
               std::string(5000, 'x'),
               Data::copy({"\0\xFF", 2}),
               Data::copy(std::string(5000, '\xFE')),
               Date{1'363'896'240, 500'000'000},
               Date{-1, 0},
               *URL::parse("https://example.com/a?b#c"),
               Array(),
               Dictionary(),
               Set(),
               Set({1, "one", Array{2}}),
               Error("Domain", -5, dictionaryOf({{"cause", cause}, {"when", Date{5, 1}}})),
               folder,
               noteWith({{"none", Value()}, {"note", noteWith(many)}, {"dictionary", many}})};
}

TEST(Archive, HasTheBytesOfTheStandards) {
  const struct {
    Value value;
    const char* bytes;
  } cases[] = {
      {Value(), "f6"},
      {false, "f4"},
      {true, "f5"},
      {0, "00"},
      {23, "17"},
      {24, "1818"},
      {255, "18ff"},
      {256, "190100"},
      {1'000'000, "1a000f4240"},
      {1'000'000'000'000, "1b000000e8d4a51000"},
      {std::numeric_limits<int64_t>::max(), "1b7fffffffffffffff"},
      {-1, "20"},
      {-100, "3863"},
      {-1000, "3903e7"},
      {std::numeric_limits<int64_t>::min(), "3b7fffffffffffffff"},
      {1.1, "fb3ff199999999999a"},
      {100000.0F, "fa47c35000"},
      {"", "60"},
      {"IETF", "6449455446"},
      {"\u00fc", "62c3bc"},
      {"\U00010151", "64f0908591"},
      {Data::copy("\1\2\3\4"), "4401020304"},
      {Array{1, Array{2, 3}}, "82 01 82 02 03"},
      {dictionaryOf({{"a", 1}, {"b", Array{2, 3}}}), "a2 6161 01 6162 82 02 03"},
      {Date{1'363'896'240, 0}, "d903e9 a1 01 1a514b67b0"},
      {Date{1'363'896'240, 500'000'000}, "d903e9 a2 01 1a514b67b0 28 1a1dcd6500"},
      {*URL::parse("http://www.example.com"), "d820 76 687474703a2f2f7777772e6578616d706c652e636f6d"},
      {Set({2, 1}), "d90102 82 01 02"},
      {Error("X", 5), "d81b 82 65 4572726f72 a2 66 646f6d61696e 61 58 64 636f6465 05"},
      {noteWith({{"a", -1}}), "d81b 82 64 4e6f7465 a1 6161 20"},
  };
  for (const auto& [value, bytes] : cases) {
    EXPECT_EQ(archived(value), bytesOf(bytes)) << bytes;
    const Result result = unarchived(bytesOf(bytes), everything());
    EXPECT_FALSE(result.error) << result.error->description();
    EXPECT_EQ(result.value, value) << bytes;
  }
}

TEST(Archive, ReadsWhatOtherEncodersWrite) {
  const struct {
    const char* bytes;
    Value value;
  } cases[] = {
      {"1b 0000000000000001", 1},
      {"f9 3c00", 1.0F},
      {"f9 7bff", 65504.0F},
      {"f9 0001", 0x1p-24F},
      {"f9 c400", -4.0F},
      {"f9 fc00", -std::numeric_limits<float>::infinity()},
      {"78 02 6869", "hi"},
      {"b8 01 7801 61 01", dictionaryOf({{"a", 1}})},
      {"c1 1a514b67b0", Date{1'363'896'240, 0}},
      {"c1 20", Date{-1, 0}},
      {"c1 fb41d452d9ec200000", Date{1'363'896'240, 500'000'000}},
      {"c1 f9 b800", Date{-1, 500'000'000}},
      {"d903e9 a2 28 05 01 20", Date{-1, 5}},
      {"d90102 83 01 02 01", Set({1, 2})},
  };
  for (const auto& [bytes, value] : cases) {
    const Result result = unarchived(bytesOf(bytes), everything());
    EXPECT_FALSE(result.error) << result.error->description();
    EXPECT_EQ(result.value, value) << bytes << ": " << result.value.description();
  }
  EXPECT_TRUE(std::isnan(unarchived(bytesOf("f9 7e00"), everything()).value.doubleValue()));

  for (const char* malformed : {"c1 60",
                                "c1 f97e00",
                                "c1 fb7ff0000000000000",
                                "c1 fb43e0000000000000",
                                "d903e9 01",
                                "d903e9 a0",
                                "d903e9 a1 28 05",
                                "d903e9 a2 01 05 28 20",
                                "d903e9 a2 01 05 28 1a3b9aca00",
                                "d903e9 a2 01 05 02 05",
                                "d903e9 a1 01 f5",
                                "d903e9 a1 6131 05",
                                "d903e9 a2 01 05 1801 06",
                                "d820 01",
                                "d820 61 20",
                                "d90102 01",
                                "c0 60",
                                "d9d9f7 01",
                                "d81b 01",
                                "d81b 81 01",
                                "d81b 83 01 01 01",
                                "d81b 82 01 a0",
                                "d81b 82 64 4e6f7465 80",
                                "d81b 82 65 4572726f72 a0",
                                "81 d820 01"}) {
    EXPECT_EQ(codeOf(unarchived(bytesOf(malformed), everything()).error), Code::malformed) << malformed;
  }
}

TEST(Archive, KeepsEveryKindThroughARoundTrip) {
  const Value rich = richValue();
  const Data archive = KeyedArchiver::archivedData(rich).data;
  const Result result = KeyedUnarchiver::unarchivedValue(archive, everything());
  ASSERT_FALSE(result.error) << result.error->description();
  EXPECT_EQ(result.value, rich);

  static constexpr Key kKnown[] = {"archive test key", "archive test key 2", "archive test key"};
  internKeys(kKnown);
  const Data keys =
      Data::copy(archived(dictionaryOf({{std::string_view(kKnown[0]), std::string(kSharedLength, 'y')},
                                        {std::string_view(kKnown[1]), std::string(kSharedLength - 1, 'y')},
                                        {"stranger", Data::copy(std::string(kSharedLength, 'z'))}})));
  const auto within = [&](const char* at) {
    return at >= keys.bytes.data() && at < keys.bytes.data() + keys.bytes.size();
  };
  const Dictionary dictionary = KeyedUnarchiver::unarchivedValue(keys, everything()).value.dictionary();
  ASSERT_EQ(dictionary.size(), 3U);
  const auto* entry = dictionary.begin();
  EXPECT_EQ(entry[0].key().data(), std::string_view(kKnown[0]).data());
  EXPECT_EQ(entry[1].key().data(), std::string_view(kKnown[1]).data());
  EXPECT_FALSE(within(entry[2].key().data()));
  EXPECT_TRUE(within(entry[0].value.text().data())) << "long text shares the archive";
  EXPECT_FALSE(within(entry[1].value.text().data())) << "short text does not pin the archive";
  EXPECT_TRUE(within(entry[2].value.data()->view().data()));
}

TEST(Archive, AdmitsAClassOnlyWhereItsSetNamesIt) {
  const struct {
    ValueClass valueClass;
    std::vector<Value> values;
  } kinds[] = {
      {ValueClass::array, {Array()}},
      {ValueClass::dictionary, {dictionaryOf({{"key", Value()}})}},
      {ValueClass::set, {Set()}},
      {ValueClass::string, {"text", ""}},
      {ValueClass::number, {1, -1, true, 1.0, 1.0F}},
      {ValueClass::data, {Data()}},
      {ValueClass::date, {Date()}},
      {ValueClass::url, {*URL::parse("a:b")}},
      {ValueClass::error, {Error("X", 1, dictionaryOf({{"any", Array{1, Set()}}}))}},
  };
  for (const auto& [admitted, unused] : kinds) {
    const ClassSet alone{admitted};
    const ClassSet contained{admitted, ValueClass::array, ValueClass::dictionary, ValueClass::set};
    EXPECT_FALSE(unarchived(archived(Value()), alone).error);
    EXPECT_EQ(codeOf(unarchived(archived(noteWith({})), contained).error), Code::forbiddenClass);
    const bool onlyContainers = admitted <= ValueClass::set;
    for (const auto& [valueClass, values] : kinds) {
      const bool isContainer = valueClass <= ValueClass::set;
      for (const Value& value : values) {
        const auto expected = [](bool fine) { return fine ? kFine : Code::forbiddenClass; };
        EXPECT_EQ(codeOf(unarchived(archived(value), alone).error), expected(valueClass == admitted));
        const bool within =
            valueClass == admitted || isContainer || (onlyContainers && valueClass == ValueClass::string);
        for (const Value& container :
             {Value(Array{Value(), value}), Value(dictionaryOf({{"a", value}})), Value(Set({value})),
              Value(Array{Array{dictionaryOf({{"deep", value}})}})}) {
          EXPECT_EQ(codeOf(unarchived(archived(container), contained).error), expected(within))
              << container.description() << " in the set of " << static_cast<int>(admitted);
        }
      }
    }
  }
  // A container's set admits strings within only while it names nothing else.
  EXPECT_EQ(codeOf(unarchived(archived("text"), {ValueClass::array}).error), Code::forbiddenClass);
  EXPECT_EQ(codeOf(unarchived(archived(Array{"text"}), {ValueClass::array}).error), kFine);
  EXPECT_EQ(codeOf(unarchived(archived(Array{"text"}), ClassSet{ValueClass::array}.with<Folder>()).error),
            Code::forbiddenClass);
}

TEST(Archive, ReadsObjectsByTheSetsOfTheirOwnKeys) {
  const auto folder = [](Value children, Value name = "n") {
    auto result = std::make_shared<Folder>();
    result->name = std::move(name);
    result->children = std::move(children);
    return result;
  };
  const auto outcome = [](const Value& value, const ClassSet& classes) {
    return codeOf(unarchived(archived(value), classes).error);
  };
  const ClassSet folders = ClassSet().with<Folder>();
  // Beneath a key its set replaces the outer one: what the outer names is not admitted, what it lacks is.
  EXPECT_EQ(outcome(folder(Array{folder(Value())}), folders), kFine);
  EXPECT_EQ(outcome(folder(Array{noteWith({})}), everything()), Code::forbiddenClass);
  EXPECT_EQ(outcome(folder(Array{"text"}), everything()), Code::forbiddenClass);
  EXPECT_EQ(outcome(folder(Array{folder(Array{folder(Value(), 5)})}), everything()), Code::forbiddenClass);
  // An object that passes the outer set on admits no more than that.
  EXPECT_EQ(outcome(noteWith({{"a", "text"}}), ClassSet{ValueClass::string}.with<Note>()), kFine);
  EXPECT_EQ(outcome(noteWith({{"a", 1}}), ClassSet{ValueClass::string}.with<Note>()), Code::forbiddenClass);
  EXPECT_EQ(outcome(noteWith({{"a", noteWith({{"b", Date()}})}}), ClassSet().with<Note>()),
            Code::forbiddenClass);

  const auto object = KeyedUnarchiver::unarchivedObject<Folder>(Data::copy(archived(folder(Array(), "x"))));
  ASSERT_TRUE(object.object);
  EXPECT_EQ(object.object->name, Value("x"));
  EXPECT_EQ(codeOf(KeyedUnarchiver::unarchivedObject<Folder>(Data::copy(archived(Value()))).error),
            Code::forbiddenClass);
  EXPECT_EQ(codeOf(KeyedUnarchiver::unarchivedObject<Folder>(Data::copy(archived(noteWith({})))).error),
            Code::forbiddenClass);
}

TEST(Archive, ReadsFieldsInAnyOrderAndTakesWhatIsMissingForNothing) {
  // The bytes of a Note with another name: fields in an order and of kinds that Folder itself never writes.
  const auto read = [](const Dictionary& fields) {
    std::string bytes = archived(Array{noteWith(fields), "after"});
    bytes.replace(bytes.find("\x64Note"), 5,
                  "\x66"
                  "Folder");
    return unarchived(bytes, everything());
  };
  Dictionary fields;
  for (int i = 0; i < 30; ++i) fields.set("unknown" + std::to_string(i), Array{i, noteWith({{"size", 9}})});
  for (const auto& [key, value] : Entries{{"ratio", 2},
                                          {"share", 1},
                                          {"hidden", 1},
                                          {"serial", "7"},
                                          {"size", 2.9},
                                          {"children", Value()},
                                          {"name", "last"}}) {
    fields.set(key, value);
  }
  const Result result = read(fields);
  ASSERT_FALSE(result.error) << result.error->description();
  const auto folder = result.value.array()[0].objectOf<Folder>();
  EXPECT_EQ(result.value.array()[1], Value("after"));
  EXPECT_EQ(folder->ratio, 2.0F);
  EXPECT_EQ(folder->share, 1.0);
  EXPECT_TRUE(folder->hidden && folder->hadName);
  EXPECT_EQ(folder->serial, 0) << "a string is no number";
  EXPECT_EQ(folder->size, 2);
  EXPECT_TRUE(folder->children.isNone() && folder->owner.isNone());
  EXPECT_EQ(folder->name, Value("last"));
  EXPECT_FALSE(read({}).value.array()[0].objectOf<Folder>()->hadName);

  EXPECT_EQ(codeOf(read(dictionaryOf({{"size", -1}})).error), Code::malformed);
  EXPECT_EQ(read(dictionaryOf({{"size", -2}})).error->domain(), "Test");
  // The first fault counts, and nothing of the value is handed out.
  const Result failed = read(dictionaryOf({{"name", 5}, {"size", -2}}));
  EXPECT_EQ(codeOf(failed.error), Code::forbiddenClass);
  EXPECT_TRUE(failed.value.isNone());
}

TEST(Archive, WritesNothingOfWhatItCannotWrite) {
  class Opaque : public Object {};
  const auto own = noteWith({});
  own->fields = dictionaryOf({{"self", Array{own, own}}});
  Value deepest = 1;
  for (unsigned i = 0; i < limits::kMaximumDepth; ++i) deepest = Array{deepest};
  std::vector<Value> nones(limits::kMaximumElements - 1);
  const Array most(nones);
  nones.emplace_back();
  const Data large = Data::copy(std::string(limits::kMaximumFrame - 5, 'x'));
  const struct {
    Value value;
    Code code;
  } cases[] = {
      {std::make_shared<Opaque>(), Code::notArchivable},
      {Array{1, dictionaryOf({{"a", std::make_shared<Opaque>()}})}, Code::notArchivable},
      {own, Code::tooDeep},
      {deepest, kFine},
      {Array{deepest}, Code::tooDeep},
      {Set({deepest}), Code::tooDeep},
      {most, kFine},
      {Array(nones), Code::tooManyElements},
      {large, kFine},
      {Array{large}, Code::tooLarge},
      {Array{large, 1}, Code::tooLarge},
  };
  for (const auto& [value, code] : cases) {
    const auto result = KeyedArchiver::archivedData(value);
    EXPECT_EQ(codeOf(result.error), code);
    EXPECT_EQ(result.data.bytes.empty(), code != kFine);
    if (code != kFine) continue;
    EXPECT_EQ(codeOf(KeyedUnarchiver::unarchivedValue(result.data, everything()).error), kFine);
  }
  own->fields = {};

  // In a frame: what the caller has written and opened counts, and stays.
  std::string frame = "length";
  CborWriter writer(frame);
  writer.array(2);
  EXPECT_EQ(codeOf(encodeValue(writer, deepest, 1)), Code::tooDeep);
  EXPECT_EQ(codeOf(encodeValue(writer, most, 1)), Code::tooManyElements);
  EXPECT_EQ(codeOf(encodeValue(writer, large, 1)), Code::tooLarge);
  EXPECT_EQ(frame, "length\x82");
  EXPECT_EQ(writer.elements(), 1U);
  EXPECT_FALSE(encodeValue(writer, "first", 1));
  EXPECT_FALSE(encodeValue(writer, Array{2}, 1));
  const Slice received = Slice::copy(frame.substr(6));
  ASSERT_FALSE(checkWellFormed(received.view()));
  CborReader reader(received.view());
  reader.next();
  EXPECT_EQ(decodeValue(received, reader, {ValueClass::string}).value, Value("first"));
  EXPECT_EQ(decodeValue(received, reader, everything()).value, Value(Array{2}));
  EXPECT_TRUE(reader.atEnd());

  // An error travels whatever decorates it.
  const Error decorated("\xFF", 1,
                        dictionaryOf({{"object", std::make_shared<Opaque>()}, {"objects", Set({own})}}));
  const auto error = unarchived(archived(decorated), {ValueClass::error}).value.error();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), "\uFFFD");
  EXPECT_EQ(error->userInfo().get("object").description().substr(0, 8), "<Opaque:");
  EXPECT_EQ(error->userInfo().get("objects").set().members().size(), 1U);
}

TEST(Archive, SurvivesTruncationAndAnyDamage) {
  const std::string rich = archived(richValue());
  for (std::size_t size = 0; size < rich.size(); ++size) {
    ASSERT_EQ(codeOf(checkWellFormed(std::string_view(rich).substr(0, size))), Code::truncated) << size;
  }
  // Without the long strings each byte is worth damaging.
  std::vector<Value> members;
  for (const Value& member : richValue().array()) {
    if (archived(member).size() < kSharedLength) members.push_back(member);
  }
  const std::string sound = archived(Array(members));
  std::mt19937 random(20'261'122);
  const auto below = [&](std::size_t bound) { return random() % bound; };
  int accepted = 0;
  for (int round = 0; round < 20'000; ++round) {
    std::string damaged = sound;
    for (std::size_t hits = 1 + below(3); hits > 0; --hits) {
      const std::size_t at = below(damaged.size());
      switch (below(4)) {
        case 0:
          damaged[at] = static_cast<char>(damaged[at] ^ 1 << below(8));
          break;
        case 1:
          damaged[at] = static_cast<char>(random());
          break;
        case 2:
          damaged.erase(at, 1 + below(4));
          break;
        default:
          damaged.insert(at, damaged.substr(below(damaged.size()), 1 + below(8)));
      }
    }
    const Result result = unarchived(damaged, everything());
    if (result.error) continue;
    ++accepted;
    const std::string again = archived(result.value);
    ASSERT_EQ(archived(unarchived(again, everything()).value), again) << "round " << round;
  }
  EXPECT_GT(accepted, 1000);
  EXPECT_LT(accepted, 19'000);
}

}  // namespace
}  // namespace larkspan::platform
