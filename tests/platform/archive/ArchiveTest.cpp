#include "larkspan/platform/appext/ExtensionItem.h"
#include "larkspan/platform/archive/Cbor.h"
#include "larkspan/platform/archive/InternedKeys.h"
#include "larkspan/platform/archive/KeyedArchiver.h"
#include "larkspan/platform/archive/KeyedUnarchiver.h"
#include "larkspan/platform/archive/ValueCoding.h"
#include "larkspan/platform/base/Limits.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <iterator>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

namespace larkspan::platform {
namespace {

using Code = ArchiveErrorCode;
using Result = KeyedUnarchiver::Result;

Code codeOf(const std::optional<Error>& error) { return static_cast<Code>(error ? error->code() : 0); }
constexpr Code kFine{0};

/// The bytes of a hexadecimal text, with blanks or without.
std::string bytesOf(std::string digits) {
  std::erase(digits, ' ');
  std::string bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

std::string head(CborMajor major, uint32_t argument) {
  std::string bytes(1, static_cast<char>(static_cast<unsigned>(major) << 5 | 26));
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(argument >> shift);
  return bytes;
}

/// The parts of a text between blanks.
std::vector<std::string> words(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

std::string archived(const Value& value) {
  const auto result = KeyedArchiver::archivedData(value);
  EXPECT_FALSE(result.error) << result.error->description();
  return std::string(result.data.view());
}
/// Reads an archive with dictionaries that stay encoded, and with all of it made at once, which must not differ; answers
/// the latter, so that archiving it again writes all of it anew.
Result unarchived(std::string_view bytes, const ClassSet& classes) {
  const Data archive = Data::copy(bytes);
  const Result kept = KeyedUnarchiver::unarchivedValue(archive, classes);
  Result made;
  made.error = checkWellFormed(archive.view());
  CborReader reader(archive.view());
  if (!made.error) made = decodeValue(archive.bytes, reader, classes);
  EXPECT_EQ(codeOf(kept.error), codeOf(made.error));
  EXPECT_EQ(kept.value.description(), made.value.description());
  return made;
}

/// How reading the archive of a value ends.
Code outcome(const Value& value, const ClassSet& classes) {
  return codeOf(unarchived(archived(value), classes).error);
}

/// A record with fixed fields, each read with its own classes.
class Folder : public Archivable {
 public:
  Value name, children;
  int64_t size = 0;
  bool hidden = false;
  double share = 0;
  float ratio = 0;

  static const ObjectClass& archiveClass() {
    static constexpr ObjectClass kClass{"Folder", decode};
    return kClass;
  }
  const ObjectClass& objectClass() const override { return archiveClass(); }
  std::string description() const override { return "Folder of " + Value(name).description(); }
  void encodeWithCoder(KeyedArchiver& coder) const override {
    coder.encodeObject(name, "name");
    coder.encodeObject(children, "children");
    coder.encodeInt64(size, "size");
    coder.encodeBool(hidden, "hidden");
    coder.encodeDouble(share, "share");
    coder.encodeFloat(ratio, "ratio");
  }

 private:
  static std::shared_ptr<Object> decode(KeyedUnarchiver& coder) {
    auto folder = std::make_shared<Folder>();
    if (coder.containsValue("name")) folder->name = coder.decodeObject("name", {ValueClass::string});
    folder->children = coder.decodeObject("children", ClassSet{ValueClass::array}.with<Folder>());
    folder->size = coder.decodeInt64("size");
    folder->hidden = coder.decodeBool("hidden");
    folder->share = coder.decodeDouble("share");
    folder->ratio = coder.decodeFloat("ratio");
    if (folder->size == -1) return nullptr;
    if (folder->size == -2) coder.fail(Error("Test", 7, "no such size"));
    return folder;
  }
};

/// An object that writes fields of any name and reads those that these tests write.
class Note : public Archivable {
 public:
  Dictionary fields;

  static const ObjectClass& archiveClass() {
    static constexpr ObjectClass kClass{"Note", decode};
    return kClass;
  }
  const ObjectClass& objectClass() const override { return archiveClass(); }
  std::string description() const override { return "Note " + fields.description(); }
  void encodeWithCoder(KeyedArchiver& coder) const override {
    for (const auto& entry : fields) coder.encodeObject(entry.value, entry.key());
  }

 private:
  static std::shared_ptr<Object> decode(KeyedUnarchiver& coder);
};

const ClassSet& everything() {
  static const ClassSet classes = ClassSet::allValues().with<Folder>().with<Note>();
  return classes;
}

std::shared_ptr<Object> Note::decode(KeyedUnarchiver& coder) {
  auto note = std::make_shared<Note>();
  std::vector<std::string> names{"a", "b", "note", "dictionary"};
  for (int i = 0; i < 30; ++i) names.push_back("key" + std::to_string(i));
  for (const std::string& name : names) {
    if (const Value value = coder.decodeObject(name, everything()); !value.isNone())
      note->fields.set(name, value);
  }
  return note;
}

template <typename... Values>
Array listOf(Values... values) {
  return Array{Value(values)...};
}
std::shared_ptr<Note> noteWith(Dictionary fields) {
  auto note = std::make_shared<Note>();
  note->fields = std::move(fields);
  return note;
}

std::shared_ptr<Folder> folderWith(Value children, Value name = "n") {
  auto folder = std::make_shared<Folder>();
  folder->name = std::move(name);
  folder->children = std::move(children);
  return folder;
}

/// A value in which every kind stands, in containers and in objects; with long strings if `isLong`.
Value richValue(bool isLong) {
  const std::string text(isLong ? 5000 : 5, 'x');
  const auto folder = folderWith(Value(), "Bücher");
  folder->size = int64_t{1} << 40;
  folder->share = 0.1;
  Dictionary many;
  for (int i = 0; i < 30; ++i) many.set("key" + std::to_string(i), i * 1000);
  const Error cause("POSIX", 2, Dictionary{{"path", *URL::parse("file:///tmp/%FF")}});
  return listOf(listOf(Value(), true, false, 0, -1, 1.5, 1.5F, std::numeric_limits<double>::infinity()),
                listOf("", text, Data::copy("\xFF"), Data::copy(text), Date{-1, 5}, Dictionary(), Set(),
                       *URL::parse("https://example.com/a?b#c"), Set({1, "one", Array{2}})),
                Error("Domain", -5, Dictionary{{"cause", cause}, {"when", Date{5, 1}}}),
                folderWith(Array{folder, folder}),
                noteWith({{"none", Value()}, {"note", noteWith(many)}, {"dictionary", many}}));
}

TEST(Archive, HasTheBytesOfTheStandards) {
  constexpr auto kLeast = std::numeric_limits<int64_t>::min();
  const Array values =
      listOf(Value(), false, true, 0, 23, 24, 255, 256, 1'000'000, 1'000'000'000'000, ~kLeast, -1, -100,
             -1000, kLeast, 1.1, 100000.0F, "", "IETF", "\u00fc", "\U00010151", Data::copy("\1\2\3\4"),
             Array{1, Array{2, 3}}, Dictionary{{"a", 1}, {"b", Array{2, 3}}}, Date{1'363'896'240, 0},
             Date{1'363'896'240, 500'000'000}, *URL::parse("http://www.example.com"), Set({2, 1}),
             Error("X", 5), noteWith({{"a", -1}}));
  const auto bytes = words(
      "f6 f4 f5 00 17 1818 18ff 190100 1a000f4240 1b000000e8d4a51000 1b7fffffffffffffff 20 3863 3903e7 "
      "3b7fffffffffffffff fb3ff199999999999a fa47c35000 60 6449455446 62c3bc 64f0908591 4401020304 "
      "8201820203 a26161016162820203 d903e9a1011a514b67b0 d903e9a2011a514b67b0281a1dcd6500 "
      "d82076687474703a2f2f7777772e6578616d706c652e636f6d d90102820102 "
      "d81b82654572726f72a266646f6d61696e615864636f646505 d81b82644e6f7465a1616120");
  ASSERT_EQ(values.size(), bytes.size());
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    EXPECT_EQ(archived(values[i]), bytesOf(bytes[i])) << bytes[i];
    const Result result = unarchived(bytesOf(bytes[i]), everything());
    EXPECT_EQ(result.value.kind(), values[i].kind()) << bytes[i];
    EXPECT_EQ(archived(result.value), bytesOf(bytes[i]));
  }
}

TEST(Archive, ReadsWhatOtherEncodersWrite) {
  const auto bytes = words(
      "1b0000000000000001 f93c00 f97bff f90001 f9c400 f9fc00 78026869 b80178016101 c11a514b67b0 c120 "
      "c1fb41d452d9ec200000 c1f9b800 d903e9a228050120 d9010283010201");
  const Array values =
      listOf(1, 1.0F, 65504.0F, 0x1p-24F, -4.0F, -std::numeric_limits<float>::infinity(), "hi",
             Dictionary{{"a", 1}}, Date{1'363'896'240, 0}, Date{-1, 0}, Date{1'363'896'240, 500'000'000},
             Date{-1, 500'000'000}, Date{-1, 5}, Set({1, 2}));
  ASSERT_EQ(values.size(), bytes.size());
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    EXPECT_EQ(unarchived(bytesOf(bytes[i]), everything()).value, values[i]) << bytes[i];
  }
  EXPECT_TRUE(std::isnan(unarchived(bytesOf("f97e00"), everything()).value.doubleValue()));

  for (const std::string& malformed :
       words("c160 c1f97e00 c1fb7ff0000000000000 c1fb43e0000000000000 d903e901 d903e9a0 d903e9a12805 "
             "d903e9a201052820 d903e9a20105281a3b9aca00 d903e9a201050205 d903e9a101f5 d903e9a1613105 "
             "d903e9a20105180106 d82001 d8206120 d9010201 c060 d9d9f701 d81b01 d81b8101 d81b83010101 "
             "d81b8201a0 d81b82644e6f746580 d81b82654572726f72a0 81d82001")) {
    EXPECT_EQ(codeOf(unarchived(bytesOf(malformed), everything()).error), Code::malformed) << malformed;
  }
}

TEST(Archive, CopiesShortStringsAndSharesLongOnesAndKnownKeys) {
  static constexpr Key kKnown[] = {"archive test key", "archive test key 2"};
  internKeys(kKnown);
  const std::string large(kSharedLength, 'y');
  const Data archive = Data::copy(archived(
      Dictionary{{kKnown[0], large}, {kKnown[1], large.substr(1)}, {"stranger", Data::copy(large)}}));
  const auto isShared = [&](const char* at) {
    return at >= archive.bytes.data() && at < archive.bytes.data() + archive.bytes.size();
  };
  const Dictionary dictionary = KeyedUnarchiver::unarchivedValue(archive, everything()).value.dictionary();
  ASSERT_EQ(dictionary.size(), 3U);
  const auto keys = dictionary.keys().keys();
  const auto values = dictionary.values();
  for (int i : {0, 1}) EXPECT_EQ(keys[i].data(), std::string_view(kKnown[i]).data());
  EXPECT_FALSE(isShared(keys[2].data()));
  EXPECT_TRUE(isShared(values[0].text().data()));
  EXPECT_FALSE(isShared(values[1].text().data())) << "a short text does not pin its frame";
  EXPECT_TRUE(isShared(values[2].data()->view().data()));
}

TEST(Archive, KeepsADictionaryEncodedUntilSomebodyAsks) {
  const Dictionary whole{{"name", "text"},
                         {"size", 5},
                         {"when", Date{1, 2}},
                         {"none", Value()},
                         {"data", Data::copy("\xFF")},
                         {"list", Array{1, "x"}},
                         {"url", URL::file("/a")}};
  const Data archive = Data::copy(archived(whole));
  const auto read = [&] {
    return KeyedUnarchiver::unarchivedValue(archive, everything()).value.dictionary();
  };
  const Dictionary kept = read();
  for (const auto& entry : whole) {
    EXPECT_EQ(kept.get(entry.key()), entry.value);
    EXPECT_TRUE(kept.contains(entry.key()));
  }
  // Enough for each bit that tells keys apart.
  for (int i = 0; i < 1000; ++i) EXPECT_FALSE(kept.contains("nam" + std::to_string(i)));
  Dictionary changed = kept, own = read();
  changed.set("size", 6);
  changed.remove("name");
  own.set("new", 7);
  EXPECT_EQ(kept.get("size"), Value(5));
  EXPECT_EQ(changed.size(), whole.size() - 1);
  EXPECT_EQ(unarchived(archived(own), everything()).value.dictionary(), own) << "not as it came";
  EXPECT_EQ(own.size(), whole.size() + 1);
  EXPECT_EQ(kept, whole);
  EXPECT_EQ(read().deepCopy(), whole);
  EXPECT_EQ(Value(read().get("name")), Value("text")) << "outlives its dictionary";

  // Two make the entries, others look one up meanwhile.
  const Dictionary shared = read();
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([mine = shared, i, &whole] {
      if (i % 2 == 0) {
        EXPECT_EQ(mine.get("size"), Value(5));
      }
      EXPECT_EQ(mine, whole);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

/// The bytes for a reader that knows no tables; the code of the failure, if it fails.
std::string archivedWithoutTables(const Value& value, Code* code = nullptr) {
  ByteBuffer bytes;
  CborWriter writer(bytes);
  const Code outcome = codeOf(encodeValue(writer, value));
  if (code) *code = outcome;
  return std::string(bytes.view());
}

TEST(Archive, WritesNeighboursOfTheSameKeysAsTables) {
  const auto itemWith = [](Dictionary userInfo) {
    auto item = std::make_shared<ExtensionItem>();
    item->setUserInfo(std::move(userInfo));
    return Value(item);
  };
  const auto alike = [&](Value last) {
    return itemWith(
        {{"k1", "t\u00E9xt"}, {"k2", Date{-5'000'000'000, 7}}, {"k3", URL::file("/a")}, {"k4", last}});
  };
  const Value turned = itemWith({{"k2", 1}, {"k1", 2}, {"k3", 3}, {"k4", Data::copy("\xFF")}});
  const Value few = itemWith({{"k1", 1}, {"k2", 2}, {"k3", 3}});
  std::vector<Value> many(300, alike(-1.5)), varied, extreme;
  for (const int64_t number :
       {INT64_MIN, INT64_MIN + 1, int64_t{-129}, int64_t{-128}, int64_t{127}, int64_t{128}, int64_t{-32769},
        int64_t{32768}, int64_t{INT32_MIN}, int64_t{INT32_MAX} + 1, INT64_MAX}) {
    // Tables of three, the last as the first, so that each number tells how wide its column is. Texts begin with a part of
    // the same character, and mostly are of one length.
    for (const int64_t own : {number, int64_t{0}, number}) {
      Dictionary userInfo{
          {"flag", own != 0},
          {"text",
           std::string(13, 'x') + (own ? "\u00E8" : "\u00E9") + std::string(own < 0 ? 4000 : 200, 'y')},
          {"date", Date{own, own < 0 ? Date::kMostNanoseconds : static_cast<uint32_t>(number & 0xFFFF)}},
          {"url", URL::file(own ? "/a b/%" : "/a b/ \xFF")}};
      userInfo.set("table " + std::to_string(extreme.size() / 3), own);
      extreme.push_back(itemWith(userInfo));
    }
  }
  for (int i = 0; i < 1100; ++i) {
    varied.push_back(itemWith({{"k1", std::string(i % 40, 'x') + "\u00E9"},
                               {"k2", Date{-i, static_cast<uint32_t>(i)}},
                               {"k3", URL::file("/a b/" + std::to_string(i))},
                               {"k4", -i}}));
  }
  const struct {
    Array items;
    std::size_t tables;
  } cases[] = {
      {{alike(1), alike("x"), alike(Value()), alike(true)}, 1},
      {{alike(1)}, 0},
      {{few, few, alike(1), turned, alike(2)}, 0},
      {{alike(1), alike(2), "stranger", few, alike(3), alike(4), turned, turned}, 3},
      {{alike(1), alike(2), alike(Array{3}), alike(Dictionary{{"x", 1}}), alike(4)}, 1},
      {many, 1},
      {varied, 3},
      {extreme, extreme.size() / 3},
  };
  const ClassSet& classes = ExtensionItem::itemClasses();
  for (const auto& [items, tables] : cases) {
    const std::string bytes = archived(items), plain = archivedWithoutTables(items);
    std::size_t found = 0;
    for (std::size_t at = 0; (at = bytes.find("Table", at)) != bytes.npos; ++at) ++found;
    EXPECT_EQ(found, tables);
    EXPECT_EQ(plain.find("Table"), plain.npos);
    EXPECT_EQ(unarchived(bytes, classes).value.description(), Value(items).description());
    EXPECT_EQ(unarchived(plain, classes).value.description(), Value(items).description());
    const Value kept = KeyedUnarchiver::unarchivedValue(Data::copy(bytes), classes).value;
    EXPECT_EQ(archived(kept), bytes);
    EXPECT_EQ(archivedWithoutTables(kept.deepCopy()), plain);
    EXPECT_EQ(codeOf(unarchived(bytes, {ValueClass::array, ValueClass::string}).error), Code::forbiddenClass);
  }

  // A row that is kept goes on when all others have gone, and changes alone.
  Array rows = KeyedUnarchiver::unarchivedValue(Data::copy(archived(Array(many))), classes).value.array();
  const auto kept = rows[299].objectOf<ExtensionItem>();
  rows[298].objectOf<ExtensionItem>()->setUserInfoObject(5, "k1");
  EXPECT_EQ(archived(rows).find("Table"), archived(Array(many)).find("Table"));
  rows = {};
  EXPECT_EQ(kept->userInfo(), many[0].objectOf<ExtensionItem>()->userInfo());

  // Tables never make a value too deep that fits without them.
  Value nested = Array{alike(1), alike(2)};
  for (Code code = kFine; code == kFine; nested = Array{nested}) {
    const std::string plain = archivedWithoutTables(nested, &code);
    EXPECT_EQ(codeOf(KeyedArchiver::archivedData(nested).error), code);
    if (code == kFine) {
      EXPECT_EQ(unarchived(archived(nested), classes).value.description(),
                unarchived(plain, classes).value.description());
    }
  }

  const std::string table = archived(Array{itemWith({{"k1", 1}, {"k2", 2}, {"k3", 3}, {"k4", 4}}),
                                           itemWith({{"k1", 5}, {"k2", 6}, {"k3", 7}, {"k4", 8}})});
  const struct {
    std::string_view from, to;
    Code code;
  } patches[] = {
      {"bk4", "bk5", kFine},
      {"bk4", "bk1", Code::malformed},
      {"\x84\x62k1\x62k2\x62k3\x62k4", "\x83\x62k1\x62k2\x62k3", Code::malformed},
      {"bk4", "\x01", Code::malformed},
      {"rows\x02", {"rows\x00", 5}, Code::malformed},
      {"rows\x02", "rows\x03", Code::malformed},
      {"rows\x02", "rows\x21", Code::malformed},
      {"rows\x02", "rows\xF9\x41\x33", Code::malformed},
      {"rows\x02", "rows\x1A\x01\x1E\x84\x80", Code::tooManyElements},
      {"ExtensionItem", "ExtensionItex", Code::forbiddenClass},
      {"keys", "kezs", Code::malformed},
      {"rows", "rowz", Code::malformed},
      {"columns", "kolumns", Code::malformed},
      {"class", "klass", Code::malformed},
      {"Table", "Tabla", Code::forbiddenClass},
      {"\xA4\x65"
       "class",
       "\xA5\x61x\xF6\x65"
       "class",
       kFine},
  };
  for (const auto& [from, to, code] : patches) {
    std::string patched = table;
    patched.replace(table.find(from), from.size(), to);
    EXPECT_EQ(codeOf(unarchived(patched, classes).error), code) << to;
  }
  EXPECT_EQ(codeOf(unarchived(table.substr(1), classes).error), Code::forbiddenClass) << "beside no array";

  const std::string column = "82 68 696e746567657273 42 01 05";
  const struct {
    std::string column;
    Code code;
  } columns[] = {
      {column, kFine},
      {"82 68 696e746567657274 42 01 05", Code::malformed},
      {"82 68 696e746567657273 58 02 01 05", kFine},
      {"82 68 696e746567657273 44 0001 0005", kFine},
      {"82 68 696e746567657273 50 0000000000000001 0000000000000005", kFine},
      {"82 68 696e746567657273 41 01", Code::malformed},
      {"82 68 696e746567657273 40", Code::malformed},
      {"82 68 696e746567657273 46 000001 000005", Code::malformed},
      {"83 68 696e746567657273 42 01 05 f6", Code::malformed},
      {"01", Code::malformed},
      {"82 01 01", Code::malformed},
      {"82 64 73616d65 f6", kFine},
      {"82 64 73616d65 80", Code::malformed},
      {"82 64 73616d65 d90102 80", Code::malformed},
      {"82 64 73616d65 d90103 01", Code::malformed},
      {"82 66 76616c756573 82 01 c103", kFine},
      {"82 66 76616c756573 81 01", Code::malformed},
      {"82 66 76616c756573 82 f4 f5", kFine},
      {"82 66 76616c756573 82 f4 61 f5", Code::invalidUtf8},
      {"82 66 76616c756573 82 01 a0", Code::malformed},
      {"84 65 7465787473 60 42 01 01 62 6162", kFine},
      {"84 65 7465787473 60 44 0001 0001 62 6162", kFine},
      {"84 65 7465787473 62 c3a9 42 01 01 62 6162", kFine},
      {"84 65 7465787473 42 c3a9 42 01 01 62 6162", Code::malformed},
      {"83 65 7465787473 42 01 01 62 6162", Code::malformed},
      {"84 65 7465787473 60 42 01 01 42 6162", Code::malformed},
      {"84 65 7465787473 60 42 01 01 62 c3a9", Code::malformed},
      {"84 65 7465787473 60 42 01 01 63 616263", Code::malformed},
      {"84 65 7465787473 60 42 01 ff 60", Code::malformed},
      {"84 65 7465787473 60 42 03 00 63 61c3a9", kFine},
      {"84 64 75726c73 60 42 03 03 66 613a62 633a64", kFine},
      {"84 64 75726c73 60 42 03 03 66 613a62 633a20", Code::malformed},
      {"84 64 75726c73 61 61 42 02 02 64 3a62 3a63", kFine},
      {"84 64 75726c73 61 3a 42 01 01 62 6162", Code::malformed},
      {"84 64 75726c73 61 31 42 02 02 64 3a62 3a63", Code::malformed},
      {"84 64 75726c73 60 42 ff 01 63 613a62", Code::malformed},
      {"84 64 75726c73 60 50 0000000000000003 fffffffffffffffe 63 613a62", Code::malformed},
      {"84 64 75726c73 68 66696c653a2f2f2f 42 01 03 64 61 253230", kFine},
      {"84 64 75726c73 68 66696c653a2f2f2f 42 01 03 64 61 253030", Code::malformed},
      {"84 64 75726c73 68 66696c653a2f2f2f 42 01 01 62 6120", Code::malformed},
      {"84 64 75726c73 68 66696c653a2f2f2f 42 01 03 64 61253431", kFine},
      {"84 64 75726c73 68 66696c653a2f2f2f 42 02 02 64 61253431", Code::malformed},
      {"84 64 75726c73 68 66696c653a2f2f2f 42 03 01 64 61253431", Code::malformed},
      {"84 64 75726c73 69 66696c653a2f2f2f25 42 02 02 64 3230 3231", kFine},
      {"84 64 75726c73 69 66696c653a2f2f2f25 42 02 02 64 3230 3030", Code::malformed},
      {"84 64 75726c73 69 66696c653a2f2f2f23 42 01 01 62 61 3f", kFine},
      {"83 65 6461746573 50 00000000000000000000000000000000 48 3b9ac9ff00000000", kFine},
      {"83 65 6461746573 42 ff01 42 00ff", kFine},
      {"83 65 6461746573 50 00000000000000000000000000000000 48 000000003b9aca00", Code::malformed},
      {"83 65 6461746573 42 0000 50 0000000000000000 0000000100000000", Code::malformed},
      {"83 65 6461746573 42 0000 41 00", Code::malformed},
      {"82 65 6461746573 50 00000000000000000000000000000000", Code::malformed},
  };
  for (const auto& [form, code] : columns) {
    std::string patched = table;
    patched.replace(table.find(bytesOf(column)), bytesOf(column).size(), bytesOf(form));
    EXPECT_EQ(codeOf(unarchived(patched, classes).error), code) << form;
  }
  const std::string path = "file:///" + std::string(URL::kMaximumLength - 8, 'a');
  for (const std::string& last : {path, path + 'a'}) {
    const std::string_view folder = "file:///";
    for (const std::string_view prefix : {std::string_view(), folder}) {
      const std::string one = path.substr(prefix.size()), other = last.substr(prefix.size());
      std::string urls =
          bytesOf("84 64 75726c73") + char(0x60 + prefix.size()) + std::string(prefix) + '\x48';
      for (const std::string& text : {one, other}) {
        char size[4], *to = size;
        detail::storeBigEndian(to, static_cast<uint32_t>(text.size()));
        urls.append(size, sizeof size);
      }
      urls += head(CborMajor::text, static_cast<uint32_t>(one.size() + other.size())) + one + other;
      std::string patched = table;
      patched.replace(table.find(bytesOf(column)), bytesOf(column).size(), urls);
      EXPECT_EQ(codeOf(unarchived(patched, classes).error), last == path ? kFine : Code::malformed);
    }
  }

  // The same one behind the other, where what both begin with may end inside a triplet.
  for (const char* last :
       {"file:///a%4F", "file:///a%4g", "file:///a%4", "file:///a%", "file:///a%00", "file:///b%4F"}) {
    const Dictionary two{{"k1", URL::wellFormed(Slice::copy("file:///a%4E/"))},
                         {"k2", URL::wellFormed(Slice::copy(last))},
                         {"k3", "what is read quickly stands far from the end"}};
    const Code code = URL::isWellFormed(last) ? kFine : Code::malformed;
    EXPECT_EQ(codeOf(unarchived(archived(two), classes).error), code) << last;
  }

  // Rows that cost their sender nothing are counted, and none is made before somebody asks.
  std::string same = table.substr(1, table.find("columns") + 6);
  same.replace(same.find("rows\x02"), 5, bytesOf("726f7773 1a 00030d40"));
  same += bytesOf("84 8264 73616d65 01 8264 73616d65 01 8264 73616d65 01 8264 73616d65 01");
  EXPECT_EQ(unarchived('\x82' + same + same, classes).value.array().size(), 400'000U);
  const Value beside =
      unarchived('\x82' + same + head(CborMajor::bytes, 1 << 20) + std::string(1 << 20, 'x'), classes).value;
  EXPECT_EQ(beside.array().packed().size(), 2U) << "nor when they are a small part of their frame";
  EXPECT_EQ(codeOf(unarchived('\x83' + same + same + same, classes).error), Code::tooManyElements);
  const std::string tooLong = "\x78\xA8" + std::string(0xA8, 'x');
  std::string prefixed = same;
  prefixed.replace(prefixed.rfind(bytesOf("8264 73616d65 01")), 7,
                   bytesOf("84 65 7465787473") + tooLong + head(CborMajor::bytes, 200'000) +
                       std::string(200'000, '\0') + '\x60');
  same.replace(same.rfind('\x01'), 1, tooLong);
  for (const std::string& one : {same, prefixed})
    EXPECT_EQ(codeOf(unarchived('\x81' + one, classes).error), Code::tooLarge);
  // What all rows have and what all begin with are counted apart.
  const struct {
    std::size_t same, prefix;
    int rows;
    Code code;
  } repeated[] = {
      {2000, 2000, 16'000, kFine}, {2000, 5, 17'000, Code::tooLarge}, {5, 2000, 17'000, Code::tooLarge}};
  for (const auto& [one, prefix, count, code] : repeated) {
    std::vector<Value> items;
    for (int i = 0; i < count; ++i) {
      items.push_back(itemWith({{"k1", std::string(one, 'x')},
                                {"k2", std::string(prefix, 'x') + std::to_string(i)},
                                {"k3", i},
                                {"k4", i}}));
    }
    const auto written = KeyedArchiver::archivedData(Array(items));
    EXPECT_EQ(codeOf(written.error), code);
    if (code == kFine) {
      const Array read = KeyedUnarchiver::unarchivedValue(written.data, classes).value.array();
      EXPECT_EQ(read.size(), items.size());
      EXPECT_EQ(KeyedArchiver::archivedData(read).data, written.data);
    }
  }

  // Many small tables cost no more than as many rows of one.
  constexpr int kTables = 20'000;
  ByteBuffer small;
  CborWriter writer(small);
  writer.array(kTables);
  for (int i = 0; i < kTables; ++i) small.append(std::string_view(table).substr(1));
  const auto megabytes = [] {
    long total = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * sysconf(_SC_PAGESIZE) >> 20;
  };
  [[maybe_unused]] const long before = megabytes();
  const Value all = KeyedUnarchiver::unarchivedValue(Data::copy(small.view()), classes).value;
  EXPECT_EQ(all.array().size(), 2U * kTables);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_LT(megabytes() - before, 50);
#endif
}

TEST(Archive, AdmitsAClassOnlyWhereItsSetNamesIt) {
  // In the order of ValueClass.
  const Array samples = listOf(Array(), Dictionary{{"key", Value()}}, Set(), "text", 1.5, Data(), Date(),
                               *URL::parse("a:b"), Error("X", 1, Dictionary{{"any", Array{1, Set()}}}));
  const auto expected = [](bool fine) { return fine ? kFine : Code::forbiddenClass; };
  for (std::size_t admitted = 0; admitted < samples.size(); ++admitted) {
    const auto valueClass = static_cast<ValueClass>(admitted);
    const ClassSet alone{valueClass};
    const ClassSet contained{valueClass, ValueClass::array, ValueClass::dictionary, ValueClass::set};
    EXPECT_EQ(outcome(Value(), alone), kFine);
    EXPECT_EQ(outcome(noteWith({}), contained), Code::forbiddenClass);
    for (std::size_t i = 0; i < samples.size(); ++i) {
      const Value& value = samples[i];
      EXPECT_EQ(outcome(value, alone), expected(i == admitted)) << i << " in the set of " << admitted;
      const bool onlyContainers = admitted < 3;
      const bool within = i == admitted || i < 3 || (onlyContainers && value.kind() == Value::Kind::string);
      for (const Value& container : Array{Array{Value(), value}, Dictionary{{"a", value}}, Set({value}),
                                          Array{Array{Dictionary{{"deep", value}}}}}) {
        EXPECT_EQ(outcome(container, contained), expected(within))
            << container.description() << " in " << admitted;
      }
    }
  }
  // A container's set admits strings within only while it names nothing else.
  EXPECT_EQ(outcome(Array{"text"}, {ValueClass::array}), kFine);
  EXPECT_EQ(outcome(Array{"text"}, ClassSet{ValueClass::array}.with<Folder>()), Code::forbiddenClass);
}

TEST(Archive, ReadsObjectsByTheSetsOfTheirOwnKeys) {
  // Beneath a key its set replaces the outer one: what the outer names is not admitted, what it lacks is.
  EXPECT_EQ(outcome(folderWith(Array{folderWith(Value())}), ClassSet().with<Folder>()), kFine);
  for (const Value& child : listOf(noteWith({}), "text", folderWith(Array{folderWith(Value(), 5)}))) {
    EXPECT_EQ(outcome(folderWith(Array{child}), everything()), Code::forbiddenClass);
  }
  // An object that passes the outer set on admits no more than that.

  const auto only = [](const Value& value) {
    return KeyedUnarchiver::unarchivedObject<Folder>(Data::copy(archived(value)));
  };
  EXPECT_EQ(only(folderWith(Array(), "x")).object->name, Value("x"));
  EXPECT_EQ(codeOf(only(noteWith({})).error), Code::forbiddenClass);
}

TEST(Archive, ReadsFieldsInAnyOrderAndTakesWhatIsMissingForNothing) {
  // The bytes of a Note with another name: fields in an order and of kinds that Folder itself never writes.
  const auto read = [](const Dictionary& fields) {
    std::string bytes = archived(Array{noteWith(fields), "after"});
    bytes.replace(bytes.find("dNote"), 5, "fFolder");
    return unarchived(bytes, everything());
  };
  Dictionary fields = Dictionary{{"ratio", 2}, {"share", 1}, {"hidden", 1}, {"size", 2.9}};
  for (int i = 0; i < 30; ++i) fields.set("unknown" + std::to_string(i), Array{1, noteWith({{"size", 9}})});
  fields.set("name", "last");
  const Result result = read(fields);
  ASSERT_FALSE(result.error) << result.error->description();
  EXPECT_EQ(result.value.array()[1], Value("after"));
  const auto folder = result.value.array()[0].objectOf<Folder>();
  EXPECT_TRUE(folder->ratio == 2 && folder->share == 1 && folder->hidden && folder->children.isNone());
  EXPECT_EQ(folder->size, 2);
  EXPECT_EQ(folder->name, Value("last"));
  EXPECT_EQ(codeOf(read({{"size", -1}}).error), Code::malformed);
  // The first fault counts, and nothing of the value is handed out.
  const Result failed = read(Dictionary{{"name", 5}, {"size", -2}});
  EXPECT_EQ(codeOf(failed.error), Code::forbiddenClass);
  EXPECT_TRUE(failed.value.isNone());
}

TEST(Archive, WritesNothingOfWhatItCannotWrite) {
  class Opaque : public Object {};
  const auto own = noteWith({});
  own->fields = Dictionary{{"self", Array{own, own}}};
  Value deepest = 1;
  for (unsigned i = 0; i < limits::kMaximumDepth; ++i) deepest = Array{deepest};
  std::vector<Value> nones(limits::kMaximumElements - 1);
  const Array most(nones);
  nones.emplace_back();
  const Data large = Data::copy(std::string(limits::kMaximumFrame - 5, 'x'));
  const std::pair<Value, Code> cases[] = {
      {std::make_shared<Opaque>(), Code::notArchivable},
      {Array{1, Dictionary{{"a", std::make_shared<Opaque>()}}}, Code::notArchivable},
      {own, Code::tooDeep},
      {deepest, kFine},
      {Array{deepest}, Code::tooDeep},
      {most, kFine},
      {Array(nones), Code::tooManyElements},
      {large, kFine},
      {Array{large, 1}, Code::tooLarge}};
  for (const auto& [value, code] : cases) {
    const auto result = KeyedArchiver::archivedData(value);
    EXPECT_EQ(codeOf(result.error), code);
    EXPECT_EQ(result.data.bytes.empty(), code != kFine);
    if (code != kFine) continue;
    EXPECT_EQ(codeOf(KeyedUnarchiver::unarchivedValue(result.data, everything()).error), kFine);
  }
  own->fields = {};

  // In a frame: what the caller has written and opened counts, and stays.
  ByteBuffer frame;
  frame.append("length");
  CborWriter writer(frame);
  writer.array(1);
  EXPECT_EQ(codeOf(encodeValue(writer, deepest, 1)), Code::tooDeep);
  EXPECT_EQ(codeOf(encodeValue(writer, most, 1)), Code::tooManyElements);
  EXPECT_EQ(codeOf(encodeValue(writer, large, 1)), Code::tooLarge);
  EXPECT_EQ(frame.view(), "length\x81");
  EXPECT_FALSE(encodeValue(writer, "first", 1));
  EXPECT_EQ(unarchived(std::string(frame.view().substr(6)), everything()).value, Value(Array{"first"}));

  // An error travels whatever decorates it.
  const Error decorated("\xFF", 1,
                        Dictionary{{"object", std::make_shared<Opaque>()}, {"objects", Set({own})}});
  const auto error = unarchived(archived(decorated), {ValueClass::error}).value.error();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), "\uFFFD");
}

TEST(Archive, SurvivesTruncationAndAnyDamage) {
  const std::string rich = archived(richValue(true));
  ASSERT_EQ(archived(unarchived(rich, everything()).value), rich);
  for (std::size_t size = 0; size < rich.size(); ++size) {
    ASSERT_EQ(codeOf(checkWellFormed(std::string_view(rich).substr(0, size))), Code::truncated) << size;
  }
  // Without the long strings each byte is worth damaging.
  const std::string sound = archived(richValue(false));
  std::mt19937 random(20'261'122);
  const auto below = [&](std::size_t bound) { return random() % bound; };
  int accepted = 0;
  for (int round = 0; round < 20'000; ++round) {
    std::string damaged = sound;
    for (std::size_t hits = 1 + below(3); hits > 0; --hits) {
      damaged.replace(below(damaged.size()), below(3), damaged.substr(below(damaged.size()), below(4)));
      damaged[below(damaged.size())] ^= static_cast<char>(below(2) << below(8));
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

Code checked(std::string_view item) { return codeOf(checkWellFormed(item)); }

TEST(Cbor, RefusesWhatBreaksTheFormatAndNamesTheByte) {
  const struct {
    Code code;
    const char* described;
    const char* items;
  } cases[] = {{Code::truncated, "(byte 0)", "18 1b00000000000000 6261 8201 5b b8ff6161"},
               {Code::truncated, "(byte 2)", "d820 818161 82f681 8181a1"},
               {Code::malformed, "indefinite length", "5f4101ff 7f6161ff 9fff bfff ff 811f df00"},
               {Code::malformed, "reserved", "1c 3d 5e 7d 9e bc dd fe"},
               {Code::malformed, "simple value", "e0 f3 f7 f8ff"},
               {Code::malformed, "64 bits", "1b8000000000000000 3b8000000000000000 1bffffffffffffffff"},
               {Code::invalidUtf8, "(byte 1)", "8161ff 8162c0af 8163eda080 8164f4908080 a161ff01"},
               {Code::malformed, "key that is not text",
                "a10102 a1f602 a18002 a1c1616102 d903e981a10102 d903e9a1410102"},
               {Code::duplicateKey, "(byte 5)", "a2616101616102 a2616180616101"},
               {Code::duplicateKey, "(byte 6)", "d903e9a201020103"},
               {Code::duplicateKey, "(byte 9)", "81a26161a1616201616102 a26161fa7fc00000616101"},
               {Code::malformed, "(byte 1)", "0000 80f6 6000"}};
  EXPECT_EQ(checked(""), Code::truncated);
  for (const auto& [code, described, items] : cases) {
    for (const std::string& item : words(items)) {
      ASSERT_EQ(checked(bytesOf(item)), code) << item;
      EXPECT_NE(checkWellFormed(bytesOf(item))->description().find(described), std::string::npos) << item;
    }
  }
  for (const std::string& item : words("1800 3b7fffffffffffffff 1b7fffffffffffffff f97e00 a0 80 d9ffff01 "
                                       "a26161a16161016162a1616101 d903e9a20102610103")) {
    EXPECT_EQ(checked(bytesOf(item)), kFine) << item;
  }
}

TEST(Cbor, FindsARepeatedKeyAmongAnyNumber) {
  for (const uint32_t size : {2U, 23U, 24U, 25U, 48U, 49U, 1000U, 100'000U}) {
    for (const uint32_t repeatAt : {size, size - 1}) {
      ByteBuffer bytes;
      CborWriter writer(bytes);
      writer.map(size);
      for (uint32_t i = 0; i < size; ++i) {
        writer.text("key" + std::to_string(i == repeatAt ? i - 1 : i));
        writer.null();
      }
      EXPECT_EQ(checked(bytes.view()), repeatAt == size ? kFine : Code::duplicateKey) << size;
    }
  }
}

TEST(Cbor, HoldsTheLimitsToTheUnit) {
  for (const unsigned tags : {0, 3}) {
    const auto nested = [&](unsigned depth) {
      return checked(std::string(tags, '\xC1') + std::string(depth - tags, '\x81') + '\x01');
    };
    EXPECT_EQ(nested(limits::kMaximumDepth), kFine);
    EXPECT_EQ(nested(limits::kMaximumDepth + 1), Code::tooDeep);
    EXPECT_EQ(nested(1'000'000), Code::tooDeep);
  }

  constexpr auto kElements = static_cast<uint32_t>(limits::kMaximumElements);
  const std::string nulls(kElements, '\xF6');
  EXPECT_EQ(checked(head(CborMajor::array, kElements - 1) + nulls.substr(1)), kFine);
  for (const std::string& start : {head(CborMajor::array, kElements), head(CborMajor::map, kElements / 2),
                                   "\x82" + head(CborMajor::array, kElements - 2)}) {
    EXPECT_EQ(checked(start + nulls), Code::tooManyElements);
  }
  constexpr auto kContent = static_cast<uint32_t>(limits::kMaximumFrame - 5);
  EXPECT_EQ(checked(head(CborMajor::bytes, kContent) + std::string(kContent, 'x')), kFine);
  EXPECT_EQ(checked(head(CborMajor::text, kContent + 1) + std::string(kContent + 1, 'x')), Code::tooLarge);
}

TEST(Cbor, TakesNoMemoryForLengthsThatAreOnlyClaimed) {
  // With a mebibyte of address space to spare a claim of any of these sizes could not be met.
  const auto claims = words(
      "5bffffffffffffffff 7bffffffffffffffff 9bffffffffffffffff bbffffffffffffffff "
      "9b8000000000000000 bb8000000000000000 bb7fffffffffffffff 5affffffff 9affffffff ba00ffffff "
      "82f69a00ffffff");
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  rlim_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  const rlimit tight{pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (1 << 20), before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_AS, &tight), 0);
#endif
  std::vector<Code> found;
  for (const std::string& claim : claims) found.push_back(checked(bytesOf(claim)));
  ASSERT_EQ(setrlimit(RLIMIT_AS, &before), 0);
  EXPECT_EQ(found, std::vector<Code>(claims.size(), Code::truncated));
}

}  // namespace
}  // namespace larkspan::platform
