#pragma once

#include "larkspan/platform/base/NotificationCenter.h"

namespace larkspan::cli {

/// While it lives, a line on the terminal that says how much the extensions have found so far: "… 120 items,
/// 3.4 GB". Nothing is shown unless standard error is a terminal.
/// Thread: made and dropped on the main queue's, and drawn on it.
class Progress {
 public:
  Progress();

  /// Takes the line away, if it is there. Any thread.
  static void erase();

 private:
  platform::NotificationCenter::Token token_;
};

}  // namespace larkspan::cli
