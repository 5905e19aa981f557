#include "fuzz/Targets.h"
#include "larkspan/items/LKSIconConstructor.h"
#include "larkspan/platform/appext/ExtensionItem.h"
#include "larkspan/platform/archive/KeyedArchiver.h"
#include "larkspan/platform/archive/KeyedUnarchiver.h"
#include "larkspan/platform/desktop/FileProviderItem.h"

namespace larkspan::fuzz {

using namespace platform;

void archive(std::string_view input) {
  using enum ValueClass;
  static const auto* sets = new std::vector<ClassSet>{
      ClassSet::allValues(),
      ExtensionItem::itemClasses(),
      {array},
      {array, dictionary, number},
      {ValueClass::set, string, error},
      {date, ValueClass::url, data, dictionary},
      ClassSet().with<LKSIconConstructor>(),
      ClassSet{array}.with<FileProviderItem>(),
      {},
  };
  if (input.empty()) return;
  const ClassSet& classes = (*sets)[static_cast<unsigned char>(input.front()) % sets->size()];
  const Data bytes = Data::copy(input.substr(1));
  const auto [value, refusal] = KeyedUnarchiver::unarchivedValue(bytes, classes);
  const bool isWellFormed = !checkWellFormed(bytes.view());
  if (refusal) {
    expect(value.isNone(), "a refused archive makes nothing");
    expect(isWellFormed || refusal->code() < static_cast<int64_t>(ArchiveErrorCode::forbiddenClass),
           "an archive is checked before anything is made of it");
    return;
  }
  expect(isWellFormed, "what is read is well-formed");
  CborReader reader(bytes.view());
  reader.skip();
  expect(reader.atEnd(), "skipping passes the whole item");
  expect(value.isNone() || &classes != &sets->back(), "the empty set admits nothing");

  const auto [archive, fault] = KeyedArchiver::archivedData(value);
  if (fault) return expect(isDateTooDeep(*fault), "what was read can be written");
  const auto again = KeyedUnarchiver::unarchivedValue(archive, classes);
  expect(!again.error, "what was written can be read");
  expect(KeyedArchiver::archivedData(again.value).data == archive, "the same value comes back");
  const Value copy = value.deepCopy();
  expect(KeyedArchiver::archivedData(copy).data == archive, "a deep copy is the same value");
  if (&classes == &sets->front()) expect(again.value == value && copy == value, "equal values come back");
}

}  // namespace larkspan::fuzz
