#pragma once

#include "larkspan/platform/base/Slice.h"

#include <cstddef>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace larkspan::platform {

/// A key written in the program: its text lives forever, so that storing under it copies nothing.
/// Converts to std::string_view for reading.
class Key {
 public:
  template <std::size_t size>
  consteval Key(const char (&literal)[size]) : text_(literal, size - 1) {}
  constexpr operator std::string_view() const { return text_; }
  friend constexpr bool operator==(const Key&, const Key&) = default;
  friend constexpr bool operator==(const Key& key, std::string_view text) { return key.text_ == text; }

 private:
  std::string_view text_;
};

/// The different keys of a dictionary in the order in which they were set. Lists that grew by the same keys of the
/// program in the same order are one list, which lives forever: thousands of dictionaries that are made alike keep
/// their keys once, and one comparison tells that they have the same.
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
