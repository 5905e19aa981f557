#pragma once

#include "larkspan/provider/LKSExtension.h"

#include <memory>

namespace larkspan {

/// Serves the host with this extension until the host goes away, and returns the program's exit status. To be
/// called by `main` on the initial thread, whose main queue runs meanwhile.
int runStorageExtension(std::shared_ptr<LKSExtension> extension);

/// The whole `main` of an extension of class T.
template <typename T>
int extensionMain() {
  return runStorageExtension(std::make_shared<T>());
}

}  // namespace larkspan
