#include "tests/platform/files/TestTree.h"

#include <gtest/gtest.h>

#include <fstream>

namespace larkspan::platform {
namespace {

TEST(Guide, LeadsToAnExtensionThatDeletesAndRecommends) {
  const TestTree home;
  // What the page has typed, and what it has put into the class and, further indented, into the loop.
  std::ofstream commands(home / "commands"), members(home / "members"), loop(home / "loop"),
      includes(home / "includes");
  std::ifstream page(LARKSPAN_TEST_SOURCE "/docs/writing-an-extension.md");
  std::string block, previous;
  for (std::string line; std::getline(page, line); previous = line) {
    const auto include = line.find("`#include \"");
    if (line.starts_with("```")) {
      block = line.substr(3);
    } else if (block == "sh") {
      commands << line << '\n';
    } else if (block == "cpp") {
      (previous == "```cpp" && line.starts_with("      ") ? loop : members) << line << '\n';
    } else if (include != line.npos) {
      includes << line.substr(include + 1, line.find('`', include + 1) - include - 1) << '\n';
    }
  }
  for (std::ofstream* file : {&commands, &members, &loop, &includes}) file->close();
  EXPECT_EQ(shell("export HOME=" + home.path() +
                  R"(; unset XDG_DATA_HOME LARKSPAN_LOG; cd; mkdir -p larkspan/build Downloads
      ln -s )" LARKSPAN_TEST_SOURCE "/larkspan " LARKSPAN_TEST_SOURCE
                  "/examples larkspan; ln -s " LARKSPAN_TEST_BIN R"(/.. larkspan/build/release
      printf '#!/bin/sh\n' >larkspan/dev; chmod +x larkspan/dev
      cat >bash <<'TXT'
      set -e
      g++() {
        sed -i '1e cat ../includes
          /setLks_deletable(false)/d
          /resources.push_back/e cat ../loop
          /int64_t totalSpaceUsed/e cat ../members' main.cpp
        )" LARKSPAN_TEST_CXX R"( "$@"
      }
      . ~/commands
TXT
      head -c 9000 /dev/zero | tee Downloads/a.iso >Downloads/b.iso
      bash bash >said 2>error || cat said error >&2
      grep -E '^(_CONFIRM_TITLE_|Total)' said | sed 's/[ab]\.iso/one of them/'; ls Downloads)"),
            "Total: 2 items, 25 KB\n_CONFIRM_TITLE_: Delete “one of them”?\n"
            "_CONFIRM_TITLE_: Delete the disk image for good?\nTotal: 0 items, 0 bytes\n");
}

}  // namespace
}  // namespace larkspan::platform
