#include "app/prescan.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "support/guard_page.h"

namespace kova {
namespace {

using testing::GuardedText;

struct Row {
  std::string message;
  bool is_tool_call;
  bool is_cancel;
  std::string raw_id;
  std::string cancelled_id;
};

void check(const Row& row) {
  SCOPED_TRACE(row.message.substr(0, 200));
  const GuardedText text(row.message);
  const Prescan found = prescan(text.view());
  EXPECT_EQ(found.is_tool_call, row.is_tool_call);
  EXPECT_EQ(found.is_cancel, row.is_cancel);
  EXPECT_EQ(std::string(found.raw_id), row.raw_id);
  if (row.is_cancel) {
    EXPECT_EQ(std::string(found.cancelled_id), row.cancelled_id);
  }
}

std::string call_message(std::string_view id) {
  return R"({"jsonrpc":"2.0","id":)" + std::string(id) + R"(,"method":"tools/call"})";
}

std::string cancel_message(std::string_view request_id) {
  return R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":)" +
         std::string(request_id) + "}}";
}

TEST(Prescan, MessagesThatYieldNothing) {
  for (const std::string_view message :
       {"", " ", "x", "[]", "1", "null", "\"tools/call\"", "{", R"({"id":1})",
        R"([{"id":1,"method":"tools/call"}])", R"({"id":1,"method":"tools/call"} x)",
        R"({"id":1,"method":7})", R"({"id":1,"method":null})",
        R"({"id":1,"method":["tools/call"]})", R"({"id":1,"method":"\ud800"})",
        R"({"id":1,"m\u0065thod":"tools/call"})", R"({"id":1,"method":"tools/call",})"}) {
    check({std::string(message), false, false, "", ""});
  }
}

TEST(Prescan, MethodsOfNinetyFiveBytes) {
  const std::string m95(95, 'm');
  check({R"({"id":1,"method":")" + m95 + "\"}", false, false, "1", ""});
  check({R"({"id":1,"method":")" + m95 + "m\"}", false, false, "", ""});
}

TEST(Prescan, TheEnvelopeIsNotJudged) {
  check({R"({"id":7,"method":"tools/call"})", true, false, "7", ""});
  check({R"({"jsonrpc":"1.0","id":7,"method":"tools/call"})", true, false, "7", ""});
  check({R"({"jsonrpc":{},"params":[],"id":7,"method":"tools/call"})", true, false, "7", ""});
  check({R"( {"id":7,"method":"tools/call"} )", true, false, "7", ""});
}

TEST(Prescan, DuplicateKeysDoNotMatter) {
  check({R"({"id":1,"id":2,"method":"tools/call"})", true, false, "1", ""});
  check({R"({"id":1,"method":"ping","method":"tools/call"})", false, false, "1", ""});
  check({R"({"method":"tools/call","method":"ping","id":3})", true, false, "3", ""});
  check({R"({"\u0069d":1,"id":2,"method":"tools/call"})", true, false, "2", ""});
}

TEST(Prescan, TheMethodIsDecoded) {
  check({R"({"id":1,"method":"tools\/call"})", true, false, "1", ""});
  check({R"({"id":1,"method":"\u0074ools/call"})", true, false, "1", ""});
  check({R"({"id":1,"method":"tools/call\u0000x"})", true, false, "1", ""});
  check({R"({"id":1,"method":"TOOLS/CALL"})", false, false, "1", ""});
  check({R"({"id":1,"method":"tools/call "})", false, false, "1", ""});
  check({R"({"id":1,"method":"tools/cal"})", false, false, "1", ""});
  check({R"({"id":1,"method":"tools/list"})", false, false, "1", ""});
}

TEST(Prescan, AToolCallNeedsAnId) {
  check({R"({"jsonrpc":"2.0","method":"tools/call"})", false, false, "", ""});
  check({R"({"jsonrpc":"2.0","method":"tools/call","\u0069d":1})", false, false, "", ""});
  check({R"({"jsonrpc":"2.0","method":"tools/call","params":{"id":1}})", false, false, "", ""});
}

TEST(Prescan, IdsAreKeptAsReceived) {
  for (const std::string_view id :
       {"7", "-1.50e+3", "true", "false", "null", "\"\"", "\"7\"", R"("a\u0041\n")", R"("null")",
        "[ 1, {\"a\":2} ]", "{ }", R"("\ud800")"}) {
    check({call_message(id), true, false, std::string(id), ""});
  }
}

TEST(Prescan, IdsOfNinetyNineCharacters) {
  for (const std::size_t length : {95U, 97U, 99U, 100U, 101U, 5000U}) {
    SCOPED_TRACE(length);
    const bool fits = length <= 99;
    const std::string number(length, '1');
    check({call_message(number), fits, false, fits ? number : "", ""});
    const std::string text = "\"" + std::string(length - 2, 'x') + "\"";
    check({call_message(text), fits, false, fits ? text : "", ""});
    const std::string array = "[" + std::string(length - 2, ' ') + "]";
    check({call_message(array), fits, false, fits ? array : "", ""});
  }
  // Heavily escaped: 15 bytes when decoded, but 92 or 104 characters as received.
  std::string escaped;
  for (int i = 0; i < 15; ++i) escaped += "\\u0041";
  check({call_message("\"" + escaped + "\""), true, false, "\"" + escaped + "\"", ""});
  check({call_message("\"" + escaped + "\\u0041\\u0041\""), false, false, "", ""});
}

TEST(Prescan, AnOverlongIdClearsACancelToo) {
  const std::string id(100, '1');
  check({R"({"id":)" + id + R"(,"method":"notifications/cancelled","params":{"requestId":1}})",
         false, false, "", ""});
}

TEST(Prescan, Cancels) {
  const std::string n95(95, '9');
  const std::string x95(95, 'x');
  check({cancel_message("7"), false, true, "", "7"});
  check({cancel_message("\"7\""), false, true, "", "7"});
  check({cancel_message("-1.50e+3"), false, true, "", "-1.50e+3"});
  check({cancel_message("true"), false, true, "", "true"});
  check({cancel_message("null"), false, true, "", "null"});
  check({cancel_message(R"("abc")"), false, true, "", "abc"});
  check({cancel_message(R"("\u0061bc")"), false, true, "", "abc"});
  check({cancel_message("[1]"), false, true, "", "[1]"});
  check({cancel_message("{}"), false, true, "", "{}"});
  check({cancel_message(n95), false, true, "", n95});
  check({cancel_message("\"" + x95 + "\""), false, true, "", x95});
  check({R"({"id":"own","method":"notifications/cancelled","params":{"requestId":7}})", false, true,
         "\"own\"", "7"});
  check({R"({"method":"notifications\/cancelled","params":{"requestId":7,"reason":"x"}})", false,
         true, "", "7"});
  check({R"({"method":"notifications/cancelled","params":{"requestId":7,"requestId":8}})", false,
         true, "", "7"});
}

TEST(Prescan, NoCancels) {
  for (const std::string_view message :
       {R"({"method":"notifications/cancelled"})",
        R"({"method":"notifications/cancelled","requestId":7})",
        R"({"method":"notifications/cancelled","params":null})",
        R"({"method":"notifications/cancelled","params":[7]})",
        R"({"method":"notifications/cancelled","params":["requestId",7]})",
        R"({"method":"notifications/cancelled","params":{}})",
        R"({"method":"notifications/cancelled","params":{"requestID":7}})",
        R"({"method":"notifications/cancelled","params":{"\u0072equestId":7}})",
        R"({"method":"notifications/cancelled","params":{"x":{"requestId":7}}})",
        R"({"method":"notifications/initialized","params":{"requestId":7}})",
        R"({"method":"cancel","params":{"requestId":7}})"}) {
    check({std::string(message), false, false, "", ""});
  }
}

TEST(Prescan, ARequestIdThatCannotBeReadMatchesNothing) {
  for (const std::string& id :
       {std::string(96, '9'), "\"" + std::string(96, 'x') + "\"", std::string(R"("\ud800")")}) {
    SCOPED_TRACE(id);
    const GuardedText text(cancel_message(id));
    const Prescan found = prescan(text.view());
    // No call is known by an empty id, so an empty text is as good as no cancel.
    EXPECT_TRUE(!found.is_cancel || found.cancelled_id[0] == '\0');
  }
}

TEST(Prescan, TokenCapacity) {
  // The message around the array has 7 tokens.
  const auto with_elements = [](int count) {
    std::string text = R"({"id":1,"method":"tools/call","x":[)";
    for (int i = 0; i < count; ++i) text += i == 0 ? "0" : ",0";
    return text + "]}";
  };
  check({with_elements(4096 - 7), true, false, "1", ""});
  check({with_elements(4096 - 6), false, false, "", ""});
}

TEST(Prescan, EveryTruncationYieldsNothing) {
  const std::string message =
      R"({"jsonrpc":"2.0","id":"abc","method":"tools/call","params":{"name":"kova_query"}})";
  for (std::size_t length = 0; length < message.size(); ++length) {
    check({message.substr(0, length), false, false, "", ""});
  }
  check({message, true, false, "\"abc\"", ""});
}

}  // namespace
}  // namespace kova
