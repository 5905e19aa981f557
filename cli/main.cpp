#include "cli/Ending.h"
#include "cli/Options.h"
#include "cli/Run.h"
#include "cli/Watch.h"
#include "larkspan/platform/dispatch/DispatchQueue.h"

#include <climits>
#include <clocale>
#include <cstdlib>
#include <string>

#include <langinfo.h>
#include <unistd.h>

namespace {

/// Adds the data folder of the prefix that this program lies in, last, so that it finds the extensions that
/// came with it. The default is that of freedesktop.org's basedir-spec.
void findOwnData() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
  if (length <= 0 || length == sizeof path) return;
  std::string prefix(path, static_cast<std::size_t>(length));
  for (int level = 0; level < 2; ++level) prefix = prefix.substr(0, prefix.rfind('/'));
  const char* folders = std::getenv("XDG_DATA_DIRS");
  const std::string before = folders && *folders ? folders : "/usr/local/share:/usr/share";
  setenv("XDG_DATA_DIRS", (before + ":" + prefix + "/share").c_str(), 1);
}

/// Messages and characters only, so that numbers keep their point. What is printed is UTF-8.
void chooseLocale() {
  std::setlocale(LC_MESSAGES, "");
  std::setlocale(LC_CTYPE, "");
  if (std::string(nl_langinfo(CODESET)) != "UTF-8") std::setlocale(LC_CTYPE, "C.UTF-8");
}

}  // namespace

int main(int argc, char** argv) {
  chooseLocale();
  findOwnData();
  const auto options = larkspan::cli::parseArguments(argc, argv);
  larkspan::cli::watchSignals();
  if (options.command == larkspan::cli::Options::Command::watch) {
    larkspan::cli::watch(options);
  } else {
    larkspan::cli::run(options);
  }
  larkspan::platform::runMainQueue();
}
