#include "larkspan/platform/base/Dictionary.h"

#include "larkspan/platform/base/Utf8.h"
#include "larkspan/platform/base/Value.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <optional>
#include <vector>

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

/// Not a std::shared_ptr, whose use_count() orders nothing: whoever writes in place must have seen the last
/// reader on another thread leave.
struct Dictionary::Storage {
  Storage() = default;
  explicit Storage(Packed encoded) : unpacked(false), packed(std::move(encoded)) {}

  std::atomic<uint32_t> shares{1};
  /// Whether `entries` hold. Once they do, they hold for good; `packed` stays for readers that are under way on other
  /// threads, and goes with the first change, which comes from the only owner.
  std::atomic<bool> unpacked{true};
  std::vector<Entry> entries;
  std::optional<Packed> packed;
};

Dictionary::Dictionary(const Dictionary& other) noexcept : storage_(other.storage_) {
  if (storage_) storage_->shares.fetch_add(1, std::memory_order_relaxed);
}

Dictionary::~Dictionary() {
  if (storage_ && storage_->shares.fetch_sub(1, std::memory_order_acq_rel) == 1) delete storage_;
}

Dictionary Dictionary::withCapacity(std::size_t capacity) {
  Dictionary result;
  result.writable().entries.reserve(capacity);
  return result;
}

Dictionary::Dictionary(Packed packed) : storage_(new Storage(std::move(packed))) {}

void Dictionary::unpack() const {
  if (storage_->unpacked.load(std::memory_order_acquire)) return;
  std::vector<Entry> entries = storage_->packed->coding->unpack(*storage_->packed);
  static constinit std::mutex filling;
  const std::lock_guard lock(filling);
  if (storage_->unpacked.load(std::memory_order_relaxed)) return;
  storage_->entries = std::move(entries);
  storage_->unpacked.store(true, std::memory_order_release);
}

const Dictionary::Packed* Dictionary::packed() const {
  return storage_ && storage_->packed ? &*storage_->packed : nullptr;
}

Dictionary::Dictionary(std::initializer_list<NewEntry> entries) {
  writable().entries.reserve(entries.size());
  for (const auto& [key, value] : entries) set(key, value);
}

std::size_t Dictionary::size() const {
  const Packed* const encoded = packed();
  return encoded ? encoded->entries : storage_ ? storage_->entries.size() : 0;
}

std::size_t Dictionary::capacity() const {
  if (!storage_) return 0;
  unpack();
  return storage_->entries.capacity();
}

const Dictionary::Entry* Dictionary::begin() const {
  if (!storage_) return nullptr;
  unpack();
  return storage_->entries.data();
}

const Dictionary::Entry* Dictionary::end() const { return begin() + size(); }

bool Dictionary::contains(std::string_view key) const {
  if (const Packed* const encoded = packed(); encoded && !storage_->unpacked.load(std::memory_order_acquire))
    return (encoded->keyBits & keyBit(key)) != 0 && encoded->coding->find(*encoded, key);
  return findEntry(*this, key) != end();
}

Value Dictionary::get(std::string_view key) const {
  if (const Packed* const encoded = packed();
      encoded && !storage_->unpacked.load(std::memory_order_acquire)) {
    if ((encoded->keyBits & keyBit(key)) == 0) return {};
    return encoded->coding->find(*encoded, key).value_or(Value());
  }
  const Entry* entry = findEntry(*this, key);
  return entry == end() ? Value() : entry->value;
}

Dictionary::Storage& Dictionary::writable() {
  if (!storage_) {
    storage_ = new Storage;
  } else if (storage_->shares.load(std::memory_order_acquire) > 1) {
    Dictionary copy = withCapacity(std::max(capacity(), size() + 1));
    copy.storage_->entries.assign(begin(), end());
    *this = std::move(copy);
  } else if (storage_->packed) {
    unpack();
    storage_->packed.reset();
  }
  return *storage_;
}

void Dictionary::set(Key key, Value value) {
  auto& entries = writable().entries;
  const auto entry = findEntry(entries, key);
  if (entry != entries.end()) {
    entry->value = std::move(value);
  } else {
    entries.push_back({Slice::immortal(key), std::move(value)});
  }
}

void Dictionary::set(std::string_view key, Value value) {
  if (!isValidUtf8(key)) return set(std::string_view(repairedUtf8(key)), std::move(value));
  auto& entries = writable().entries;
  const auto entry = findEntry(entries, key);
  if (entry != entries.end()) {
    entry->value = std::move(value);
  } else {
    entries.push_back({Slice::copy(key), std::move(value)});
  }
}

void Dictionary::set(const char* key, Value value) { set(std::string_view(key), std::move(value)); }

void Dictionary::append(Slice key, Value value) {
  writable().entries.push_back({std::move(key), std::move(value)});
}

void Dictionary::remove(std::string_view key) {
  if (!contains(key)) return;
  auto& entries = writable().entries;
  entries.erase(findEntry(entries, key));
}

Dictionary Dictionary::deepCopy() const {
  if (const Packed* const encoded = packed()) return Dictionary(*encoded);
  Dictionary result = withCapacity(size());
  for (const auto& [name, value] : *this) result.append(name, value.deepCopy());
  return result;
}

std::string Dictionary::description() const { return Value(*this).description(); }

bool operator==(const Dictionary& a, const Dictionary& b) {
  if (a.storage_ == b.storage_) return true;
  if (a.size() != b.size()) return false;
  const auto left = sorted(a);
  const auto right = sorted(b);
  return std::equal(left.begin(), left.end(), right.begin(),
                    [](auto* x, auto* y) { return x->name == y->name && x->value == y->value; });
}

}  // namespace larkspan::platform
