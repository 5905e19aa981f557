#include "larkspan/runtime/LKSBlockOperation.h"

namespace larkspan {

LKSBlockOperation::LKSBlockOperation()
    : LKSBlockOperation([](LKSBlockOperation& operation) { operation.finishWithError(std::nullopt); }) {}

LKSBlockOperation::LKSBlockOperation(Block block) : block_(std::move(block)) {}

void LKSBlockOperation::main() { block_(*this); }

}  // namespace larkspan
