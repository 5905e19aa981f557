#pragma once

#include "larkspan/runtime/LKSOperation.h"

#include <functional>
#include <memory>

namespace larkspan {

/// An operation whose body is a block. The block must call `finishWithError` on the operation it is given,
/// now or later; until then the operation executes.
class LKSBlockOperation : public LKSOperation {
 public:
  using Block = std::function<void(LKSBlockOperation&)>;

  /// Finishes at once, successfully.
  LKSBlockOperation();
  /// The block must not be empty.
  explicit LKSBlockOperation(Block block);

  void main() override;

  /// Not to be changed once the operation is queued.
  const Block& block() const { return block_; }
  void setBlock(Block block) { block_ = std::move(block); }

 private:
  Block block_;
};

}  // namespace larkspan
