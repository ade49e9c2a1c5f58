// The table of the nine tools.
#include "tools/tool_table.h"

#include <gtest/gtest.h>

#include <iterator>

#include "json/json.h"

namespace kova::testing {
namespace {

TEST(ToolTable, HasNineToolsInTheOrderOfTheList) {
  constexpr const char* kNames[] = {
      "kova_list_databases", "kova_list_tables",   "kova_describe_table",
      "kova_query",          "kova_vector_search", "kova_text_search",
      "kova_hybrid_search",  "kova_ai_status",     "kova_execute",
  };
  ASSERT_EQ(tool_table().size(), std::size(kNames));
  for (std::size_t i = 0; i < std::size(kNames); ++i) {
    EXPECT_EQ(tool_table()[i].name, kNames[i]);
    EXPECT_EQ(find_tool(kNames[i]), &tool_table()[i]);
  }
  for (const char* name : {"", "kova_", "KOVA_QUERY", "kova_query "})
    EXPECT_EQ(find_tool(name), nullptr) << name;
}

TEST(ToolTable, HasSchemasOfStrictObjects) {
  for (const Tool& tool : tool_table()) {
    JsonToken tokens[256];
    JsonDoc doc;
    ASSERT_TRUE(json_parse(tool.input_schema, tokens, 256, doc)) << tool.name;
    EXPECT_EQ(doc.raw(json_find(doc, 0, "type")), "object");
    EXPECT_EQ(doc.raw(json_find(doc, 0, "additionalProperties")), "false");
    EXPECT_FALSE(tool.description.empty());
  }
}

}  // namespace
}  // namespace kova::testing
