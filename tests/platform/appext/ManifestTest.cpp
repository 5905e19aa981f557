#include "larkspan/platform/appext/ExtensionDirectories.h"
#include "larkspan/platform/appext/Manifest.h"
#include "larkspan/platform/process/ExecLine.h"
#include "larkspan/platform/process/Identity.h"
#include "tests/support/ManifestTree.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace larkspan::platform {
namespace {

using tests::ManifestTree;
using tests::ScopedVariable;
using Texts = std::vector<std::string>;

TEST(ExecLine, UndoesTheQuotingOfDesktopEntriesAndSaysWhatIsWrong) {
  const std::pair<const char*, Texts> sound[] = {
      {"tool", {"tool"}},
      {"  ../tool  -a   x/y ", {"/f/../tool", "-a", "x/y"}},
      {R"("/my tool" "" "a\"b\`c\$d\\e" 100%% "%%")", {"/my tool", "", R"(a"b`c$d\e)", "100%", "%"}}};
  for (const auto& [line, expected] : sound) EXPECT_EQ(std::get<0>(parseExecLine(line, "/f")), expected);
  const std::pair<const char*, Texts> malformed[] = {
      {"no program in Exec", {"", "  ", R"("" x)"}},
      {"an equals sign in the program of Exec", {"A=b tool", R"("A=b")"}},
      {"a field code in Exec", {"tool %f", "tool %", R"(tool "%u")"}},
      {"an open quote in Exec", {R"(tool "a)", R"(")"}},
      {"a backslash in Exec before a character that needs none", {R"(tool "a\)", R"(tool "\n")"}},
      {"an argument in Exec that is quoted in part", {R"(tool "a"b)", R"("a""b")"}},
      {"an unquoted \" in Exec", {R"(tool a"b")"}},
      {"an unescaped $ in Exec", {R"(tool "$HOME")"}},
      {"an unquoted ; in Exec", {"tool a;b"}},
      {"a control character in Exec", {"tool \"a\nb\"", "tool\x7F"}}};
  for (const auto& [reason, lines] : malformed) {
    for (const auto& line : lines) EXPECT_EQ(std::get<1>(parseExecLine(line, "/f")), reason) << line;
  }
}

TEST(Manifest, IsReadWithItsProgramTakenFromItsOwnFolderOrTheReasonIsNamed) {
  const ManifestTree tree;
  const std::string path = tree.write("a/org.x.extension",
                                      "[Extension]\nIdentifier=org.x\nExtensionPoint=p\nName=N\n"
                                      "Name[C]=In C\nExec=../bin/x \"a b\"\nIcon=i\n");
  const auto m = std::get<Manifest>(readManifest(path));
  EXPECT_EQ((Texts{m.path, m.identifier, m.extensionPoint, m.name, m.icon}),
            (Texts{path, "org.x", "p", "In C", "i"}));
  EXPECT_EQ(m.exec, (Texts{tree.path("a/../bin/x"), "a b"}));
  EXPECT_FALSE(m.hidden);
  EXPECT_TRUE(std::get<0>(readManifest(tree.write("e.extension", "[Extension]\nHidden=true\n"))).hidden);

  const auto reason = [](const std::string& file) { return std::get<1>(readManifest(file)); };
  const std::string id = "[Extension]\nIdentifier=e\n", point = id + "ExtensionPoint=p\n",
                    name = point + "Name=N\n";
  const std::pair<const char*, Texts> cases[] = {
      {"no group [Extension]", {""}},
      {"line 2: neither a group, a key nor a comment", {"[Extension]\nIdentifier\n"}},
      {"Hidden is neither true nor false", {name + "Exec=x\nHidden=yes\n", name + "Exec=x\nHidden=\n"}},
      {"Identifier is not the file's name",
       {"[Extension]\nHidden=true\nIdentifier=f\n", "[Extension]\nIdentifier=\n"}},
      {"no Identifier", {"[Extension]\nExtensionPoint=p\nName=N\nExec=x\n"}},
      {"no ExtensionPoint", {id + "Name=N\nExec=x\n"}},
      {"no Name", {point + "Exec=x\n", point + "Exec=x\nName[C]=N\n"}},
      {"no Exec", {name, name + "Exec=\n"}},
      {"ExtensionPoint is no identifier", {id + "ExtensionPoint=p q\nName=N\nExec=x\n"}},
      {"a field code in Exec", {name + "Exec=x %u\n"}},
      {"a control character in Name or Icon", {name + "Exec=x\nIcon=a\\tb\n"}}};
  for (const auto& [expected, texts] : cases) {
    for (const auto& text : texts) EXPECT_EQ(reason(tree.write("e.extension", text)), expected);
  }
  for (const std::string& bad : {std::string(".e"), std::string("\xC3\xA9"), std::string(129, 'e')}) {
    EXPECT_EQ(reason(tree.add(bad + ".extension")), "the file name is no identifier") << bad;
  }
  EXPECT_EQ(reason(tree.add("e.manifest")), "the file name does not end in .extension");
  ASSERT_EQ(mkfifo(tree.path("pipe.extension").c_str(), 0600), 0);
  EXPECT_EQ(reason(tree.path("pipe.extension")), "not a regular file");
}

TEST(Manifest, IsRefusedWhereSomebodyElseCouldHaveWrittenIt) {
  const ManifestTree tree;
  const std::string target = tree.add("target/e.extension"), path = tree.path("d/e.extension");
  std::filesystem::create_directory(tree.path("d"));
  std::filesystem::create_symlink(target, path);
  const auto reason = [&] {
    const auto result = readManifest(path);
    return result.index() == 0 ? "" : std::get<1>(result);
  };
  for (const auto& [place, prefix] : {std::pair(target, ""), std::pair(tree.path("d"), "its folder: ")}) {
    chmod(place.c_str(), 0770);
    EXPECT_EQ(reason(), "") << "the user's own group";
    chmod(place.c_str(), 01707);
    EXPECT_EQ(reason(), std::string(prefix) + "writable by everybody");
    chmod(place.c_str(), 0770);
    if (geteuid() != 0) GTEST_SKIP() << "Only root can give files to others";
    ASSERT_EQ(chown(place.c_str(), 0, 4321), 0);
    EXPECT_EQ(reason(), std::string(prefix) + "writable by group 4321");
    ASSERT_EQ(chown(place.c_str(), 1234, 0), 0);
    EXPECT_EQ(reason(), std::string(prefix) + "belongs to user 1234, neither root nor the current user");
    const ScopedIdentity other({0, 1234, ""});
    EXPECT_EQ(reason(), "") << "root's and the user's together";
    ASSERT_EQ(chown(place.c_str(), 0, 0), 0);
  }
}

TEST(ExtensionDirectories, FollowTheEnvironmentInOrderWithoutRelativeOnesAndDuplicates) {
  const ScopedIdentity identity({0, 0, "/password"});
  const std::string below = "/larkspan/extensions", local = "/.local/share" + below;
  // LARKSPAN_EXTENSION_PATH, HOME, XDG_DATA_HOME, XDG_DATA_DIRS.
  const std::tuple<const char*, const char*, const char*, const char*, Texts> cases[] = {
      {"", nullptr, "", "", {"/password" + local, "/usr/local/share" + below, "/usr/share" + below}},
      {"/own//:rel:/own:/", "/h", "rel", ":/s/:r:/s:/", {"/own", "/", "/h" + local, "/s" + below, below}},
      {"/a/larkspan/extensions", "/h", "/a", "/a:/b:c", {"/a" + below, "/b" + below}},
      {"", "rel", "/with:colon", "rel", {"/with:colon" + below}}};
  for (const auto& [own, home, dataHome, dataDirs, expected] : cases) {
    const ScopedVariable first("LARKSPAN_EXTENSION_PATH", own), second("HOME", home);
    const ScopedVariable third("XDG_DATA_HOME", dataHome), fourth("XDG_DATA_DIRS", dataDirs);
    EXPECT_EQ(extensionDirectories(), expected);
  }
}

}  // namespace
}  // namespace larkspan::platform
