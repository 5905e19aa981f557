#include "larkspan/platform/base/Dictionary.h"

#include "larkspan/platform/base/Utf8.h"
#include "larkspan/platform/base/Value.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <type_traits>
#include <vector>

namespace larkspan::platform {

namespace {

/// For one value more. Made before the key is stored, so that running out of memory leaves as many keys as values.
void makeRoom(std::vector<Value>& values) {
  if (values.size() == values.capacity()) values.reserve(std::max<std::size_t>(2 * values.size(), 4));
}

}  // namespace

/// Not a std::shared_ptr, whose use_count() orders nothing: whoever writes in place must have seen the last
/// reader on another thread leave.
struct Dictionary::Storage {
  std::atomic<uint32_t> shares{1};
  KeyList keys{};
  std::vector<Value> values{};
  /// The entries as they came. They stay when they have been read, for readers that are under way on other threads, and go
  /// with the first change, which comes from the only owner.
  std::unique_ptr<const Packed> packed{};
  /// What was made of `packed` when somebody asked for more than one entry.
  std::atomic<Storage*> unpacked{nullptr};

  ~Storage() { delete unpacked.load(std::memory_order_relaxed); }
};

Dictionary::Dictionary(const Dictionary& other) noexcept : storage_(other.storage_) {
  if (storage_) storage_->shares.fetch_add(1, std::memory_order_relaxed);
}

Dictionary::~Dictionary() {
  if (storage_ && storage_->shares.fetch_sub(1, std::memory_order_acq_rel) == 1) delete storage_;
}

Dictionary Dictionary::withCapacity(std::size_t capacity) {
  Dictionary result;
  result.writable().values.reserve(capacity);
  return result;
}

Dictionary::Dictionary(KeyList keys, std::vector<Value> values)
    : storage_(new Storage{.keys = std::move(keys), .values = std::move(values)}) {}

Dictionary::Dictionary(Packed packed)
    : storage_(new Storage{.packed = std::make_unique<const Packed>(std::move(packed))}) {}

/// Where the entries are; not for a dictionary without storage.
Dictionary::Storage& Dictionary::unpacked() const {
  if (!storage_->packed) return *storage_;
  Storage* known = storage_->unpacked.load(std::memory_order_acquire);
  if (known) return *known;
  Dictionary made = storage_->packed->coding->unpack(*storage_->packed);
  // Of two threads the first wins.
  if (!storage_->unpacked.compare_exchange_strong(known, made.storage_, std::memory_order_acq_rel))
    return *known;
  return *std::exchange(made.storage_, nullptr);
}

const Dictionary::Packed* Dictionary::packed() const { return storage_ ? storage_->packed.get() : nullptr; }

/// The entries as they came, as long as nobody has asked for more than one of them.
const Dictionary::Packed* Dictionary::unread() const {
  const Packed* const encoded = packed();
  return encoded && !storage_->unpacked.load(std::memory_order_acquire) ? encoded : nullptr;
}

Dictionary::Dictionary(std::initializer_list<NewEntry> entries) {
  writable().values.reserve(entries.size());
  for (const auto& [key, value] : entries) set(key, value);
}

std::size_t Dictionary::size() const {
  const Packed* const encoded = packed();
  return encoded ? encoded->entries : values().size();
}

std::size_t Dictionary::capacity() const { return storage_ ? unpacked().values.capacity() : 0; }

const KeyList& Dictionary::keys() const {
  if (storage_) return unpacked().keys;
  static const auto* const empty = new KeyList;
  return *empty;
}

std::span<const Value> Dictionary::values() const {
  return storage_ ? std::span<const Value>(unpacked().values) : std::span<const Value>();
}

Dictionary::Plain Dictionary::plain() const {
  if (!storage_ || storage_->packed) return {};
  return {&storage_->keys, storage_->values};
}

Dictionary::Iterator Dictionary::begin() const { return {keys().keys().data(), values().data()}; }
Dictionary::Iterator Dictionary::end() const {
  return {keys().keys().data() + size(), values().data() + size()};
}

bool Dictionary::contains(std::string_view key) const {
  if (const Packed* const encoded = unread())
    return (encoded->keyBits & keyBit(key)) != 0 && encoded->coding->find(*encoded, key);
  return keys().find(key) != KeyList::kNone;
}

Value Dictionary::get(std::string_view key) const {
  if (const Packed* const encoded = unread()) {
    if ((encoded->keyBits & keyBit(key)) == 0) return {};
    return encoded->coding->find(*encoded, key).value_or(Value());
  }
  const std::size_t index = keys().find(key);
  return index == KeyList::kNone ? Value() : values()[index];
}

Dictionary::Storage& Dictionary::writable() {
  if (!storage_) {
    storage_ = new Storage;
  } else if (storage_->shares.load(std::memory_order_acquire) > 1) {
    Dictionary copy = withCapacity(std::max(capacity(), size() + 1));
    copy.storage_->keys = keys();
    copy.storage_->values.assign(values().begin(), values().end());
    *this = std::move(copy);
  } else if (storage_->packed) {
    Storage* const entries = &unpacked();
    storage_->unpacked.store(nullptr, std::memory_order_relaxed);
    delete std::exchange(storage_, entries);
  }
  return *storage_;
}

void Dictionary::append(Slice key, Value value) {
  Storage& storage = writable();
  makeRoom(storage.values);
  storage.keys.append(std::move(key));
  storage.values.push_back(std::move(value));
}

template <typename AnyKey>
void Dictionary::put(const AnyKey& key, Value value) {
  Storage& storage = writable();
  const std::size_t index = storage.keys.find(key);
  if (index != KeyList::kNone) {
    storage.values[index] = std::move(value);
    return;
  }
  makeRoom(storage.values);
  if constexpr (std::is_same_v<AnyKey, Key>) {
    storage.keys.append(key);
  } else {
    storage.keys.append(Slice::copy(key));
  }
  storage.values.push_back(std::move(value));
}

void Dictionary::set(Key key, Value value) { put(key, std::move(value)); }

void Dictionary::set(std::string_view key, Value value) {
  if (!isValidUtf8(key)) return put(std::string_view(repairedUtf8(key)), std::move(value));
  put(key, std::move(value));
}

void Dictionary::set(const char* key, Value value) { set(std::string_view(key), std::move(value)); }

void Dictionary::remove(std::string_view key) {
  if (!contains(key)) return;
  Storage& storage = writable();
  const std::size_t index = storage.keys.find(key);
  storage.keys.remove(index);
  storage.values.erase(storage.values.begin() + static_cast<std::ptrdiff_t>(index));
}

Dictionary Dictionary::deepCopy() const {
  if (const Packed* const encoded = packed()) return Dictionary(*encoded);
  std::vector<Value> copies;
  copies.reserve(size());
  for (const Value& value : values()) copies.push_back(value.deepCopy());
  return {keys(), std::move(copies)};
}

std::string Dictionary::description() const { return Value(*this).description(); }

std::vector<std::pair<std::string_view, const Value*>> sortedEntries(const Dictionary& dictionary) {
  std::vector<std::pair<std::string_view, const Value*>> entries;
  entries.reserve(dictionary.size());
  for (const auto& entry : dictionary) entries.emplace_back(entry.key(), &entry.value);
  std::sort(entries.begin(), entries.end());
  return entries;
}

bool operator==(const Dictionary& a, const Dictionary& b) {
  if (a.storage_ == b.storage_) return true;
  if (a.size() != b.size()) return false;
  if (a.keys().isSameAs(b.keys())) return std::ranges::equal(a.values(), b.values());
  return std::ranges::equal(sortedEntries(a), sortedEntries(b), [](const auto& x, const auto& y) {
    return x.first == y.first && *x.second == *y.second;
  });
}

}  // namespace larkspan::platform
