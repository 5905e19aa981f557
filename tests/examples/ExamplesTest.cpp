#include "tests/platform/files/TestTree.h"

#include <gtest/gtest.h>

namespace larkspan::platform {
namespace {

TEST(Examples, TheSmallestHostAsksTheSmallestExtension) {
  const TestTree home;
  home.folder("Downloads");
  home.folder("Downloads/album");
  home.file("Downloads/album/song", std::string(300 * 1024, 'x'));
  home.file("Downloads/letter", std::string(200 * 1024, 'x'));
  const std::string run =
      "env -i LARKSPAN_LOG=none XDG_DATA_HOME=/nowhere XDG_DATA_DIRS=/nowhere HOME=" + home.path() +
      " LARKSPAN_EXTENSION_PATH=" LARKSPAN_TEST_BIN "/examples " LARKSPAN_TEST_BIN "/examples/smallest-host";
  EXPECT_EQ("org.example.downloads: 512 KB\n", shell(run));
  shell("rm -r " + home / "Downloads");
  EXPECT_EQ("org.example.downloads: 0 bytes\n", shell(run)) << "no folder is no failure";
}

}  // namespace
}  // namespace larkspan::platform
