#include "tests/platform/files/TestTree.h"

#include <gtest/gtest.h>

namespace larkspan::platform {
namespace {

TEST(Examples, TheSmallestHostAsksTheSmallestExtension) {
  const TestTree home;
  EXPECT_EQ(home.shell("bin=" LARKSPAN_TEST_BIN R"(/examples
      run() {
        env -i LARKSPAN_LOG=none XDG_DATA_HOME=/no XDG_DATA_DIRS=/no HOME="$PWD" LARKSPAN_EXTENSION_PATH=$bin $bin/smallest-host; }
      mkdir -p Downloads/album; head -c 300K /dev/zero >Downloads/album/song; head -c 200K /dev/zero >Downloads/letter
      run; rm -r Downloads; run)"),
            "org.example.downloads: 512 KB\norg.example.downloads: 0 bytes\n");
}

TEST(Examples, TheExtensionInPythonAnswersEachCommandAndDeletesNothingButBytecode) {
  const TestTree home;
  EXPECT_EQ(home.shell("bin=" LARKSPAN_TEST_BIN R"(
      ask() {
        env -i LARKSPAN_LOG=none HOME="$PWD" XDG_DATA_DIRS=/nowhere LARKSPAN_EXTENSION_PATH=$bin/examples/python-extension \
          $bin/larkspan ask bytecode "$@" --json; }
      files() { find . -name '*.*' ! -type d -printf '%f\n' | LC_ALL=C sort | tr '\n' ' '; echo; }
      odd=$(printf 'a b\377')
      mkdir -p "$odd/__pycache__" p/__pycache__ .venv/__pycache__ empty
      head -c 8192 /dev/zero | tee p/__pycache__/m.cpython-311.pyc "$odd/__pycache__/x.pyc" >.venv/__pycache__/h.pyc
      cp .venv/__pycache__/h.pyc p/__pycache__/gone.cpython-311.opt-1.pyc
      ln -s ../../.venv/__pycache__/h.pyc p/__pycache__/link.pyc
      touch p/m.py "$odd/x.py" "$odd/__pycache__/note.txt"

      ask INFO? | jq -c '.[1] | [._SIZE_, ._ISSUMMARY_]'
      ask RESOURCES? >all; jq -c '.[1:] | sort_by(._SIZE_) | .[] | [._NAME_, (._URL_ | split("/")[-2]), ._SIZE_]' all
      ask TIPS? | jq -c '.[1] | [._NAME_, ._SIZE_]'
      ask TIP_CONFIRM? | jq -c '.[1] | [._CONFIRM_TITLE_, ._CONFIRM_OK_]'
      ask NEW? | jq -c .
      ask TIP_PERFORM | jq -c '.[0]._ERROR_'; files
      jq -c --arg url "file://$PWD/empty" '.[1:] + [{_URL_: $url}]' all >items
      ask RESOURCE_DELETE --items items 2>error | jq -r '.[]._ERROR_.description' | sed "s|$PWD|~|"
      cat error | sed "s|$PWD|~|"; files; ls -d "$PWD"/*/ | wc -l
      cp p/m.py p/__pycache__/new.pyc; ask SUMMARY_PERFORM | jq -c '.[0]._ERROR_'; files)"),
            R"([24576,true]
["a b�/__pycache__","a%20b%FF",8192]
["p/__pycache__","p",16384]
["Delete bytecode whose source is gone",8192]
["Delete the bytecode whose source is gone?","Delete"]
[{"_KIND_":"COMMAND","•COMMAND":"NEW?"}]
null
h.pyc link.pyc m.cpython-311.pyc m.py note.txt x.py x.pyc 
1 of the folders could not be emptied: ~/empty holds no bytecode
larkspan: 1 of the folders could not be emptied: ~/empty holds no bytecode
h.pyc link.pyc m.py note.txt x.py 
3
null
h.pyc link.pyc m.py note.txt x.py 
)");
}

}  // namespace
}  // namespace larkspan::platform
