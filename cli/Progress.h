#pragma once

#include "larkspan/platform/base/NotificationCenter.h"

#include <string_view>

namespace larkspan::cli {

/// While it lives, a line on the terminal that says how much the extensions have found so far: "… 120 items,
/// 3.4 GB". Nothing is shown unless standard error is a terminal.
/// Thread: made and dropped on the main queue's, and drawn on it.
class Progress {
 public:
  Progress();

  /// Whether there is a terminal to show a line on.
  static bool canShow();
  /// Puts another text in the line, cut to the terminal's width; it must be printable. Any thread.
  static void show(std::string_view text);
  /// Takes the line away, if it is there. Any thread.
  static void erase();
  /// Erases the line for good; leaves it where a terminal does not take what is written.
  static void end();

 private:
  platform::NotificationCenter::Token token_;
};

}  // namespace larkspan::cli
