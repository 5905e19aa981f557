#pragma once

#include "larkspan/platform/base/Slice.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace larkspan::platform {

/// One bit of 64 that tells most different keys apart.
constexpr uint64_t keyBit(std::string_view key) {
  if (key.empty()) return 1;
  const auto byteAt = [&](std::size_t index) {
    return static_cast<uint32_t>(static_cast<uint8_t>(key[index]));
  };
  const std::size_t size = key.size();
  const uint32_t sample = byteAt(size / 4) | byteAt(size / 2) << 8 | byteAt(size - size / 4 - 1) << 16;
  return uint64_t{1} << ((sample ^ static_cast<uint32_t>(size) << 22) * 0x9E3779B1U >> 26);
}

/// A key written in the program: its text lives forever, so that storing under it copies nothing.
/// Converts to std::string_view for reading.
class Key {
 public:
  template <std::size_t size>
  consteval Key(const char (&literal)[size]) : text_(literal, size - 1), bit_(keyBit(text_)) {}
  constexpr operator std::string_view() const { return text_; }
  constexpr uint64_t bit() const { return bit_; }  ///< See `keyBit`.
  friend constexpr bool operator==(const Key&, const Key&) = default;
  friend constexpr bool operator==(const Key& key, std::string_view text) { return key.text_ == text; }

 private:
  std::string_view text_;
  uint64_t bit_;
};

/// The different keys of a dictionary in the order in which they were set. Lists that grew by the same `Key`s, as objects
/// of the program and not only by their text, in the same order are one list, which lives forever: thousands of
/// dictionaries that are made alike keep their keys once, and one comparison tells that they have the same. Beyond
/// `limits::kMaximumKeyLists`, and for keys that are copied, each list is its own.
/// A value: copies share their storage until one of them is changed.
/// Thread: as std::vector; copies may be used from different threads.
class KeyList {
 public:
  static constexpr std::size_t kNone = SIZE_MAX;

  KeyList() noexcept = default;
  /// For decoders: the keys are well-formed UTF-8 and differ.
  explicit KeyList(std::vector<Slice> keys);
  KeyList(const KeyList& other) noexcept;
  KeyList(KeyList&& other) noexcept : node_(std::exchange(other.node_, nullptr)) {}
  KeyList& operator=(KeyList other) noexcept {
    std::swap(node_, other.node_);
    return *this;
  }
  ~KeyList();

  std::span<const Slice> keys() const noexcept;
  std::size_t size() const noexcept { return keys().size(); }
  /// Where the key is, or `kNone`.
  std::size_t find(std::string_view key) const noexcept;
  /// Appends a key that is not in the list.
  void append(Key key);
  void append(Slice key);
  void remove(std::size_t index);
  /// Whether the two are one list; lists with equal keys may be two.
  bool isSameAs(const KeyList& other) const noexcept { return node_ == other.node_; }

 private:
  struct Node;
  std::vector<Slice>& writable();
  Node* node_ = nullptr;
};

}  // namespace larkspan::platform
