#include "cli/Output.h"

#include "cli/Ending.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace larkspan::cli {

void writeOutput(std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = write(STDOUT_FILENO, text.data(), text.size());
    if (count >= 0) {
      text.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno == EAGAIN) {
      pollfd output{STDOUT_FILENO, POLLOUT, 0};
      poll(&output, 1, -1);
    } else if (errno == EPIPE) {
      finish(0);
    } else if (errno != EINTR) {
      fail(std::string("standard output: ") + std::strerror(errno));
    }
  }
}

std::size_t terminalWidth(int descriptor) {
  winsize size{};
  return isatty(descriptor) && ioctl(descriptor, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

std::size_t outputWidth() { return terminalWidth(STDOUT_FILENO); }

}  // namespace larkspan::cli
