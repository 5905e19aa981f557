#include "larkspan/platform/base/KeyList.h"

#include "larkspan/platform/base/Limits.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <utility>

namespace larkspan::platform {

namespace {

constinit std::size_t foreverCount = 0;
constinit std::mutex growing;

}  // namespace

/// Those that live forever are a tree: a node's successors have one key more.
struct KeyList::Node {
  std::vector<Slice> keys{};
  const bool isForever = false;
  std::atomic<uint32_t> shares{1};  // Unless it lives forever.
  std::atomic<Node*> successors{nullptr};
  Node* next = nullptr;  // Of the successors of one node.

  /// The list with this key more, or null when there is none and may be none.
  Node* successor(const Slice& key);
  Node* knownSuccessor(const Slice& key, std::memory_order order) const {
    Node* node = successors.load(order);
    while (node && (node->keys.back().data() != key.data() || node->keys.back().size() != key.size()))
      node = node->next;
    return node;
  }
  static Node& root() {
    static auto* const node = new Node{.isForever = true};
    return *node;
  }
};

KeyList::Node* KeyList::Node::successor(const Slice& key) {
  if (Node* const known = knownSuccessor(key, std::memory_order_acquire)) return known;
  const std::lock_guard lock(growing);
  Node* const first = successors.load(std::memory_order_relaxed);
  if (Node* const known = knownSuccessor(key, std::memory_order_relaxed)) return known;
  if (foreverCount == limits::kMaximumKeyLists) return nullptr;
  auto* const made = new Node{.keys = keys, .isForever = true, .next = first};
  made->keys.push_back(key);
  ++foreverCount;
  successors.store(made, std::memory_order_release);
  return made;
}

KeyList::KeyList(std::vector<Slice> keys) : node_(new Node{.keys = std::move(keys)}) {}

KeyList::KeyList(const KeyList& other) noexcept : node_(other.node_) {
  if (node_ && !node_->isForever) node_->shares.fetch_add(1, std::memory_order_relaxed);
}

KeyList::~KeyList() {
  if (node_ && !node_->isForever && node_->shares.fetch_sub(1, std::memory_order_acq_rel) == 1) delete node_;
}

std::span<const Slice> KeyList::keys() const noexcept {
  return node_ ? std::span<const Slice>(node_->keys) : std::span<const Slice>();
}

std::size_t KeyList::find(std::string_view key) const noexcept {
  const std::span<const Slice> all = keys();
  // Mostly it is one text in both places, which takes no look at any.
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (all[i].data() == key.data() && all[i].size() == key.size()) return i;
  }
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (all[i].view() == key) return i;
  }
  return kNone;
}

void KeyList::append(Key key) {
  const Slice text = Slice::immortal(key);
  Node& node = node_ ? *node_ : Node::root();
  if (Node* const successor = node.isForever ? node.successor(text) : nullptr) {
    node_ = successor;
  } else {
    writable().push_back(text);
  }
}

void KeyList::append(Slice key) { writable().push_back(std::move(key)); }

void KeyList::remove(std::size_t index) {
  auto& keys = writable();
  keys.erase(keys.begin() + static_cast<std::ptrdiff_t>(index));
}

/// The keys of a node that is nobody else's.
std::vector<Slice>& KeyList::writable() {
  if (!node_) {
    node_ = new Node;
  } else if (node_->isForever || node_->shares.load(std::memory_order_acquire) > 1) {
    *this = KeyList(node_->keys);
  }
  return node_->keys;
}

}  // namespace larkspan::platform
