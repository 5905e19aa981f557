#include "larkspan/platform/base/Format.h"
#include "larkspan/platform/base/URL.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <string>

#include <unistd.h>

namespace larkspan::platform {
namespace {

TEST(URL, ResolvesTheExamplesOfRFC3986) {
  const URL base = *URL::parse("http://a/b/c/d;p?q");
  // Each reference, then what it means.
  // clang-format off
  const char* const examples[] = {
      "g:h", "g:h", "g", "http://a/b/c/g", "g/", "http://a/b/c/g/", "/g", "http://a/g", "//g", "http://g",
      "?y", "http://a/b/c/d;p?y", "g?y#s", "http://a/b/c/g?y#s", "#s", "http://a/b/c/d;p?q#s",
      "g;x?y#s", "http://a/b/c/g;x?y#s", "", "http://a/b/c/d;p?q", "./", "http://a/b/c/",
      "..", "http://a/b/", "../g", "http://a/b/g", "../../../../g", "http://a/g", "/./g", "http://a/g", "/../g", "http://a/g",
      "g.", "http://a/b/c/g.", "..g", "http://a/b/c/..g", "./g/.", "http://a/b/c/g/",
      "g/../h", "http://a/b/c/h", "g;x=1/../y", "http://a/b/c/y", "g?y/../x", "http://a/b/c/g?y/../x",
      "g#s/../x", "http://a/b/c/g#s/../x", "http:g", "http:g"};
  // clang-format on
  for (std::size_t i = 0; i < std::size(examples); i += 2) {
    EXPECT_EQ(base.resolve(*URL::parse(examples[i])).absoluteString(), examples[i + 1]) << examples[i];
  }
  // Merged with less than all, and with what would read as the host g, or the scheme b.
  EXPECT_EQ(URL::parse("http://a")->resolve(*URL::parse("g")).absoluteString(), "http://a/g");
  EXPECT_EQ(URL::parse("s:a/b")->resolve(*URL::parse("../../g")).absoluteString(), "s:/g");
  EXPECT_EQ(URL::parse("s:/a")->resolve(*URL::parse("/.//g")).absoluteString(), "s:/.//g");
  EXPECT_EQ(URL::parse("a")->resolve(*URL::parse("./b:c")).absoluteString(), "./b:c");
}

TEST(URL, TakesReferencesApart) {
  // Each reference, then scheme, authority, host, port, path, query, fragment, last component.
  const std::pair<const char*, const char*> cases[] = {
      {"HTTP://u:p@h.x:80/a%20b/?q?/#f", "http u:p@h.x:80 h.x 80 </a b> q?/ f <a b> folder"},
      {"s://[2001:db8::7]:65536/", "s [2001:db8::7]:65536 [2001:db8::7] (null) </> (null) (null) </> folder"},
      {"mailto:a@b?", "mailto (null)  (null) <a@b>  (null) <a@b>"},
      {"FILE://LocalHost/a%2Fb/%7E//",
       "file LocalHost LocalHost (null) </a/b/~> (null) (null) <~> file folder"},
      {"file://elsewhere/x", "file elsewhere elsewhere (null) </x> (null) (null) <x>"},
      {"../a:b#", " (null)  (null) <../a:b> (null)  <a:b>"},
  };
  for (const auto& [text, parts] : cases) {
    const auto url = URL::parse(text);
    ASSERT_TRUE(url) << text;
    EXPECT_EQ(url->absoluteString(), text);
    EXPECT_EQ(format("%@ %@ %@ %@ <%@> %@ %@ <%@>%@%@", url->scheme(), url->authority(), url->host(),
                     url->port(), url->path(), url->query(), url->fragment(), url->lastPathComponent(),
                     url->isFileURL() ? " file" : "", url->hasDirectoryPath() ? " folder" : ""),
              parts);
  }
}

TEST(URL, RefusesWhatBreaksTheGrammarInAnyLocale) {
  const std::string locale = setlocale(LC_CTYPE, nullptr);
  if (!setlocale(LC_CTYPE, "tr_TR.UTF-8")) setlocale(LC_CTYPE, "C.UTF-8");
  // clang-format off
  for (const char* text : {
         ":", "://x", "1a:b", "a_b:c", "\xE9:x", "a b", "\xC3\xA9", "%4", "%4g", "a#b#c", "s://h:8x/",
         "s://h:1:2/", "s://a@b@c/", "s://[::1/", "s://::1/", "s://[]/", "s://[zzzz]/", "s://[::1]x/",
         "s://[v.a]/", "s://[v1.]/", "s://[1:2:3:4:5:6:7:8:9]/", "s://a[b]/", "file:///a%00b", "file:///%4g", "file:a%00b", "a%00b"}) {
    // clang-format on
    EXPECT_FALSE(URL::parse(text)) << text;
  }
  EXPECT_EQ(URL::parse("FILE:///I")->scheme(), "file");
  setlocale(LC_CTYPE, locale.c_str());
  EXPECT_FALSE(URL::parse(std::string_view("a\0b", 3)));
  EXPECT_FALSE(URL::parse(std::string_view("s://[::1\0]", 10)));
  EXPECT_TRUE(URL::parse("s:a%00b"));
  // Each byte, also within a triplet, wherever it stands against those that are looked at together: paths of files are
  // judged many bytes at once, others one by one.
  for (std::size_t at = 0; at < 40; ++at) {
    for (int byte = 0; byte < 256; ++byte) {
      const std::string text{'%', static_cast<char>(byte), '4', static_cast<char>(byte)};
      for (const auto& [first, size] : {std::pair(1, 1), {0, 2}, {0, 4}, {0, 3}, {2, 2}}) {
        const std::string path = std::string(at, 'a') + text.substr(first, size) + std::string(at % 3, 'b');
        const bool isOther = path.find_first_of("?#") != path.npos;
        EXPECT_TRUE(isOther || bool(URL::parse("file:///" + path)) == bool(URL::parse("s:///" + path)))
            << path;
      }
    }
  }
  EXPECT_TRUE(URL::parse(std::string(URL::kMaximumLength, 'a')));
  EXPECT_FALSE(URL::parse(std::string(URL::kMaximumLength + 1, 'a')));
}

TEST(URL, CarriesAnyFileNameButNoNul) {
  EXPECT_EQ(percentDecoded("%4%%41%zz%2"), "%4%A%zz%2");
  const URL folder = URL::file("/tmp/d", true);
  EXPECT_EQ(folder.absoluteString(), "file:///tmp/d/");
  EXPECT_EQ(folder.path(), "/tmp/d");
  EXPECT_EQ(URL::file(std::string_view("/a\0b", 4)).path(), "/a");
  EXPECT_EQ(folder.appending("50%", true).absoluteString(), "file:///tmp/d/50%25/");
  EXPECT_EQ(URL::parse("s://h?q#f")->appending("a/b").absoluteString(), "s://h/a%2Fb");
  EXPECT_EQ(URL::parse("")->appending("b:c").absoluteString(), "./b:c");
  const std::string longest = "/" + std::string(URL::kMaximumLength - URL::kFilePrefix.size(), 'a');
  EXPECT_EQ(URL::file(longest).path(), longest);
  EXPECT_FALSE(URL::file(longest, true).isFileURL() || URL::file(longest).appending("a").isFileURL());
}

TEST(URL, TakesRelativePathsFromTheWorkingDirectory) {
  char* before = getcwd(nullptr, 0);
  char folder[] = "/tmp/larkspan-url-XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  ASSERT_EQ(chdir(folder), 0);
  EXPECT_EQ(URL::file("x/y").path(), std::string(folder) + "/x/y");
  EXPECT_FALSE(URL::file("", true).isFileURL()) << "a path that was lost became the working directory";
  ASSERT_EQ(rmdir(folder), 0);
  EXPECT_NE(access(URL::file("etc").path().c_str(), F_OK), 0)
      << "a removed folder's file became one of the root's";
  ASSERT_EQ(chdir(before), 0);
  std::free(before);
}

}  // namespace
}  // namespace larkspan::platform
