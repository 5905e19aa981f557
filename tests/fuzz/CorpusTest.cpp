#include "fuzz/Targets.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

TEST(Fuzz, NoInputOfTheCorpusBreaksAPromise) {
  for (const auto& [name, run] : larkspan::fuzz::kTargets) {
    std::filesystem::directory_iterator files(LARKSPAN_TEST_SOURCE "/fuzz/corpus/" + std::string(name)), end;
    ASSERT_NE(files, end) << name;
    for (; files != end; ++files) {
      std::ostringstream input;
      input << std::ifstream(files->path(), std::ios::binary).rdbuf();
      run(input.view());
    }
  }
}
