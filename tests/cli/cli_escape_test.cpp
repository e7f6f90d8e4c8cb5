// Strings that are not printable UTF-8 are shown escaped, never raw: in the
// tool's escaping itself, and end to end in list, watch and publish output.
#include <gtest/gtest.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <string>

#include "text_escape.hpp"
#include "tool_test.hpp"

namespace agent::spf::endpointregistry::tool {
namespace {

using nlohmann::json;

TEST(TextEscapeTest, PrintableUtf8IsKept) {
  EXPECT_EQ(escapeText("10.0.0.1 port \xc3\xa9t\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"),
            "10.0.0.1 port \xc3\xa9t\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80");
  EXPECT_TRUE(isValidUtf8("\xc3\xa9\xf0\x9f\x98\x80"));
}

TEST(TextEscapeTest, ControlCharactersAreEscaped) {
  EXPECT_EQ(escapeText("a\x1b[31mb"), "a\\x1b[31mb");
  EXPECT_EQ(escapeText("tab\there\nnext\rend"), "tab\\there\\nnext\\rend");
  EXPECT_EQ(escapeText(std::string("nul\0x\x7f", 6)), "nul\\x00x\\x7f");
  EXPECT_EQ(escapeText("back\\slash"), "back\\\\slash");
}

TEST(TextEscapeTest, InvisibleCodePointsAreEscaped) {
  EXPECT_EQ(escapeText("\xc2\x85"), "\\u{0085}");
  EXPECT_EQ(escapeText("x\xe2\x80\xaey"), "x\\u{202e}y");
  EXPECT_EQ(escapeText("\xe2\x81\xa6"), "\\u{2066}");
}

TEST(TextEscapeTest, BytesOutsideWellFormedUtf8AreEscaped) {
  EXPECT_EQ(escapeText("\xff\xfe"), "\\xff\\xfe");
  EXPECT_EQ(escapeText("\xc0\xaf"), "\\xc0\\xaf");                    // overlong
  EXPECT_EQ(escapeText("\xed\xa0\x80"), "\\xed\\xa0\\x80");           // surrogate
  EXPECT_EQ(escapeText("\xe2\x82"), "\\xe2\\x82");                    // cut short
  EXPECT_EQ(escapeText("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");  // beyond U+10FFFF
  EXPECT_FALSE(isValidUtf8("\xc0\xaf"));
  EXPECT_FALSE(isValidUtf8("ok\xe2\x82"));
}

TEST(TextEscapeTest, EmptyStringIsShownAsQuotes) {
  EXPECT_EQ(displayText(""), "\"\"");
  EXPECT_EQ(escapeText(""), "");
  EXPECT_EQ(displayText("x"), "x");
}

class CliEscapeTest : public er::test::ToolTest {
 protected:
  std::string tag = newTag("cliEscape");
};

TEST_F(CliEscapeTest, ListNeverWritesRawControlOrInvalidBytes) {
  const std::string first = "evil\x1b]0;title\x07";
  const std::string second = "\xff\xfe";
  auto publisher = start({"publish", first, second, "--group", tag});
  EXPECT_EQ(publisher->readLine(), "live: evil\\x1b]0;title\\x07 \\xff\\xfe (group " + tag + ")");

  const auto table = tool({"list", "--group", tag});
  EXPECT_EQ(table.exitCode, 0);
  EXPECT_EQ(table.out, "FIRST                 SECOND\nevil\\x1b]0;title\\x07  \\xff\\xfe\n");

  const auto listed = tool({"list", "--group", tag, "--json"});
  ASSERT_EQ(listed.exitCode, 0);
  EXPECT_EQ(listed.out.find('\x1b'), std::string::npos);
  EXPECT_EQ(json::parse(listed.out),
            json::parse(R"([{"first": "evil\\x1b]0;title\\x07", "second": "\\xff\\xfe", "escaped": true}])"));
}

TEST_F(CliEscapeTest, JsonKeepsValidUtf8ExactlyAndEscapesItsControlCharacters) {
  auto publisher = start({"publish", "line\nbreak", "caf\xc3\xa9", "--group", tag});
  EXPECT_EQ(publisher->readLine(), "live: line\\nbreak caf\xc3\xa9 (group " + tag + ")");
  const auto listed = tool({"list", "--group", tag, "--json"});
  ASSERT_EQ(listed.exitCode, 0);
  EXPECT_NE(listed.out.find(R"("line\nbreak")"), std::string::npos) << listed.out;
  const json parsed = json::parse(listed.out);
  ASSERT_EQ(parsed.size(), 1u);
  EXPECT_EQ(parsed[0], (json{{"first", "line\nbreak"}, {"second", "caf\xc3\xa9"}}));
  EXPECT_EQ(tool({"list", "--group", tag}).out, "FIRST        SECOND\nline\\nbreak  caf\xc3\xa9\n");
}

TEST_F(CliEscapeTest, WatchEscapesToo) {
  auto watcher = start({"watch", "--group", tag});
  ASSERT_EQ(watcher->readLine(), "ready");
  auto publisher = start({"publish",
                          "\xe2\x80\xae"
                          "abc",
                          "\x01", "--group", tag});
  ASSERT_TRUE(publisher->readLine());
  EXPECT_EQ(watcher->readLine(), "+ \\u{202e}abc \\x01");
  publisher->signal(SIGINT);
  EXPECT_EQ(watcher->readLine(), "- \\u{202e}abc \\x01");
  watcher->signal(SIGINT);
  EXPECT_EQ(watcher->wait(), 0);
}

}  // namespace
}  // namespace agent::spf::endpointregistry::tool
