#include "larkspan/platform/base/Dictionary.h"

#include "larkspan/platform/base/Utf8.h"
#include "larkspan/platform/base/Value.h"

#include <algorithm>

namespace larkspan::platform {

namespace {

/// Pointers to the entries, sorted by key.
std::vector<const Dictionary::Entry*> sorted(const Dictionary& dictionary) {
  std::vector<const Dictionary::Entry*> entries;
  entries.reserve(dictionary.size());
  for (const auto& entry : dictionary) entries.push_back(&entry);
  std::sort(entries.begin(), entries.end(), [](auto* a, auto* b) { return a->key() < b->key(); });
  return entries;
}

template <typename Entries>
auto findEntry(Entries& entries, std::string_view key) {
  return std::find_if(entries.begin(), entries.end(), [&](const Dictionary::Entry& entry) {
    return entry.name.size() == key.size() && (entry.name.data() == key.data() || entry.key() == key);
  });
}

}  // namespace

Dictionary Dictionary::withCapacity(std::size_t capacity) {
  Dictionary result;
  result.writable().reserve(capacity);
  return result;
}

Dictionary::Dictionary(std::initializer_list<std::pair<Key, Value>> entries) {
  writable().reserve(entries.size());
  for (const auto& [key, value] : entries) set(key, value);
}

std::size_t Dictionary::size() const { return entries_ ? entries_->size() : 0; }
std::size_t Dictionary::capacity() const { return entries_ ? entries_->capacity() : 0; }
const Dictionary::Entry* Dictionary::begin() const { return entries_ ? entries_->data() : nullptr; }
const Dictionary::Entry* Dictionary::end() const {
  return entries_ ? entries_->data() + entries_->size() : nullptr;
}

bool Dictionary::contains(std::string_view key) const {
  return entries_ && findEntry(*entries_, key) != entries_->end();
}

Value Dictionary::get(std::string_view key) const {
  if (!entries_) return {};
  const auto entry = findEntry(*entries_, key);
  return entry == entries_->end() ? Value() : entry->value;
}

Dictionary::Entries& Dictionary::writable() {
  if (!entries_) {
    entries_ = std::make_shared<Entries>();
  } else if (entries_.use_count() > 1) {
    auto copy = std::make_shared<Entries>();
    copy->reserve(std::max(entries_->capacity(), entries_->size() + 1));
    copy->assign(entries_->begin(), entries_->end());
    entries_ = std::move(copy);
  }
  return *entries_;
}

void Dictionary::set(Key key, Value value) {
  Entries& entries = writable();
  const auto entry = findEntry(entries, key);
  if (entry != entries.end()) {
    entry->value = std::move(value);
  } else {
    entries.push_back({Slice::immortal(key), std::move(value)});
  }
}

void Dictionary::set(std::string_view key, Value value) {
  if (!isValidUtf8(key)) return set(std::string_view(repairedUtf8(key)), std::move(value));
  Entries& entries = writable();
  const auto entry = findEntry(entries, key);
  if (entry != entries.end()) {
    entry->value = std::move(value);
  } else {
    entries.push_back({Slice::copy(key), std::move(value)});
  }
}

void Dictionary::append(Slice key, Value value) { writable().push_back({std::move(key), std::move(value)}); }

void Dictionary::remove(std::string_view key) {
  if (!contains(key)) return;
  Entries& entries = writable();
  entries.erase(findEntry(entries, key));
}

Dictionary Dictionary::deepCopy() const {
  Dictionary result = withCapacity(size());
  for (const auto& [name, value] : *this) result.append(name, value.deepCopy());
  return result;
}

std::string Dictionary::description() const { return Value(*this).description(); }

bool operator==(const Dictionary& a, const Dictionary& b) {
  if (a.entries_ == b.entries_) return true;
  if (a.size() != b.size()) return false;
  const auto left = sorted(a);
  const auto right = sorted(b);
  return std::equal(left.begin(), left.end(), right.begin(),
                    [](auto* x, auto* y) { return x->name == y->name && x->value == y->value; });
}

}  // namespace larkspan::platform
