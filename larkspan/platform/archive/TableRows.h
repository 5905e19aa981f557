#pragma once

#include "larkspan/platform/archive/WellFormed.h"
#include "larkspan/platform/base/Slice.h"
#include "larkspan/platform/base/Value.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string_view>
#include <vector>

namespace larkspan::platform {

struct ObjectClass;

/// The objects of a table whose rows are plain, in their encoded form: each is made when somebody asks for it. A list of
/// many thousands so costs little more than its bytes.
/// Owner:  std::shared_ptr. It keeps all of the frame, and each object that was made; an object keeps the frame.
/// Thread: any. An object that was made is not to be changed while its row is read.
class TableRows final : public PackedMembers {
 public:
  /// The rows were found in the frame by `checkWellFormed`, each with a value for each of the keys, which differ.
  TableRows(const ObjectClass& objectClass, Slice frame, std::shared_ptr<const std::vector<Slice>> keys,
            std::span<const PlainRun> rows);

  const ObjectClass& objectClass() const { return objectClass_; }
  std::size_t size() const override { return rows_.size(); }
  /// What the row's object has in its dictionary under the key, or none.
  Value get(std::size_t row, std::string_view key) const;
  /// The row's object, the same each time.
  std::shared_ptr<Object> object(std::size_t row) const;
  void unpack(std::vector<Value>& members) const override;

 private:
  struct Row {
    uint32_t start;
    uint32_t end;
    uint32_t elements;
    uint8_t levels;
  };
  Object* madeObject(std::size_t row) const;

  const ObjectClass& objectClass_;
  const Slice frame_;
  const std::shared_ptr<const std::vector<Slice>> keys_;
  uint64_t keyBits_ = 0;
  std::vector<Row> rows_;

  mutable std::atomic<bool> anyMade_{false};
  mutable std::mutex mutex_;
  mutable std::vector<std::shared_ptr<Object>> made_;  // Empty, or one for each row.
};

}  // namespace larkspan::platform
