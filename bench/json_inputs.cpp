#include "json_inputs.h"

#include <cstddef>
#include <string_view>

namespace kova_bench {

namespace {

constexpr std::size_t kLongText = 1000000;
constexpr std::size_t kEscapedText = 16384;

std::string call(std::string_view tool, std::string_view arguments) {
  return std::string(R"({"jsonrpc":"2.0","id":41,"method":"tools/call","params":{"name":")") +
         std::string(tool) + R"(","arguments":)" + std::string(arguments) + "}}";
}

std::string repeated(std::string_view piece, std::size_t size) {
  std::string text;
  while (text.size() + piece.size() <= size) text += piece;
  return text;
}

JsonInput small() {
  return {
      "small call",
      call("kova_query", R"({"sql":"SELECT NAME, VERSION FROM PACKAGES WHERE SECTION = 'utils'",)"
                         R"("max_rows":50})"),
      ""};
}

JsonInput keys() {
  std::string members;
  for (int i = 0; i < 2000; ++i) {
    members += (i == 0 ? "{\"" : ",\"") + std::string("column_") + std::to_string(i * 7919 % 2000) +
               "\":" + std::to_string(i);
  }
  return {"2,000 keys", call("kova_query", members + "}"), ""};
}

JsonInput numbers() {
  std::string vector;
  unsigned seed = 12345;
  for (int i = 0; i < 4000; ++i) {
    seed = seed * 1103515245U + 12345U;
    vector += (i == 0 ? "" : ",") + std::string(seed % 2 == 0 ? "-0." : "0.") +
              std::to_string(1000000 + seed / 7 % 9000000);
  }
  return {"4,000 numbers",
          call("kova_vector_search", R"({"collection":"DOCS","vector":[)" + vector + "]}"), ""};
}

// Thirty towers as deep as a message may be: its own two levels and the list take three.
JsonInput nested() {
  constexpr int kTowers = 30;
  constexpr std::size_t kHeight = 124;
  std::string towers;
  for (int i = 0; i < kTowers; ++i) {
    towers += (i == 0 ? "" : ",") + std::string(kHeight, '[') + std::string(kHeight, ']');
  }
  return {"nested arrays", call("kova_query", R"({"list":[)" + towers + "]}"), ""};
}

JsonInput long_string(std::string name, std::string_view piece) {
  const std::string text = repeated(piece, kLongText);
  return {std::move(name), call("kova_text_search", R"({"text":")" + text + "\"}"), text};
}

}  // namespace

const std::vector<JsonInput>& json_inputs() {
  static const std::vector<JsonInput> inputs{
      small(),
      keys(),
      numbers(),
      nested(),
      long_string("1 MB ASCII", "The quick brown fox jumps over the lazy dog, and once more. "),
      long_string("1 MB escapes", R"(\tif (a < b) {\n\t\tputs(\"less\");\n\t}\n)"),
      long_string("1 MB \\u escapes", R"(caf\u00e9 \u4e2d\u6587 \ud83d\ude00 )"),
      long_string("1 MB Latin", "Größere Städte wie Köln und Zürich können es auch. "),
      long_string("1 MB Greek", "Η γρήγορη καφέ αλεπού πηδάει πάνω από το σκυλί. "),
      long_string("1 MB Chinese", "敏捷的棕色狐狸跳过了懒狗，然后又跳了一次。"),
      long_string("1 MB emoji", "😀🚀🌍🎉🔥✨💡📚"),
  };
  return inputs;
}

const std::vector<TextInput>& text_inputs() {
  static const std::vector<TextInput> inputs{
      {"no escapes",
       repeated("The quick brown fox jumps over the lazy dog, and on. ", kEscapedText)},
      {"few escapes",
       repeated("A line of some eighty bytes that ends as lines do, and holds no other"
                " escape at all\n",
                kEscapedText)},
      {"JSON rows", repeated(R"(["zlib1g","1:1.2.13","libs",163],)", kEscapedText)},
      {"many escapes", repeated("\t\"a\"\\\n", kEscapedText)},
      {"control bytes", repeated("a\x01"
                                 "b\x02"
                                 "c\x1f",
                                 kEscapedText)},
      {"Chinese", repeated("敏捷的棕色狐狸跳过了懒狗，然后又跳了一次。", kEscapedText)},
  };
  return inputs;
}

}  // namespace kova_bench
