#include "tools/tool_table.h"

#include <algorithm>
#include <iterator>

#include "tools/ai_collection.h"
#include "tools/ai_search_tools.h"
#include "tools/ai_status_tool.h"
#include "tools/execute_tool.h"
#include "tools/hybrid_search_tool.h"
#include "tools/query_tool.h"
#include "tools/schema_tools.h"

namespace kova {

namespace {

constexpr Tool kTools[] = {
    {.name = "kova_list_databases",
     .description = "List policy-allowed Vantreo databases.",
     .input_schema = R"({"type":"object","additionalProperties":false})",
     .access = ToolAccess::kRead,
     .check = nullptr,
     .handler = list_databases_tool},
    {.name = "kova_list_tables",
     .description = "List policy-allowed tables and views.",
     .input_schema = R"({"type":"object","additionalProperties":false})",
     .access = ToolAccess::kRead,
     .check = nullptr,
     .handler = list_tables_tool},
    {.name = "kova_describe_table",
     .description = "Describe one allowed table without returning row data.",
     .input_schema = R"({"type":"object","properties":{"table":{"type":"string","maxLength":63}},)"
                     R"("required":["table"],"additionalProperties":false})",
     .access = ToolAccess::kRead,
     .check = nullptr,
     .handler = describe_table_tool},
    {.name = "kova_query",
     .description = "Execute exactly one parsed read-only SELECT with bounded output.",
     .input_schema = R"({"type":"object","properties":{"sql":{"type":"string","maxLength":32768},)"
                     R"("max_rows":{"type":"integer","minimum":1,"maximum":256}},)"
                     R"("required":["sql"],"additionalProperties":false})",
     .access = ToolAccess::kRead,
     .check = nullptr,
     .handler = query_tool},
    {.name = "kova_vector_search",
     .description = "Search an AI collection with a numeric vector.",
     .input_schema =
         R"({"type":"object","properties":{"collection":{"type":"string","maxLength":63},)"
         R"("vector":{"type":"array","minItems":1,"maxItems":4096,"items":{"type":"number"}},)"
         R"("top":{"type":"integer","minimum":1,"maximum":256}},)"
         R"("required":["collection","vector","top"],"additionalProperties":false})",
     .access = ToolAccess::kRead,
     .check = check_collection,
     .handler = vector_search_tool},
    {.name = "kova_text_search",
     .description = "Embed bounded text using the collection provider and search.",
     .input_schema =
         R"({"type":"object","properties":{"collection":{"type":"string","maxLength":63},)"
         R"("text":{"type":"string","maxLength":8192},)"
         R"("top":{"type":"integer","minimum":1,"maximum":256}},)"
         R"("required":["collection","text","top"],"additionalProperties":false})",
     .access = ToolAccess::kProviderRead,
     .check = check_collection,
     .handler = text_search_tool},
    {.name = "kova_hybrid_search",
     .description = "Search an AI collection and join ranked hits to authorized source columns.",
     .input_schema =
         R"({"type":"object","properties":{"collection":{"type":"string","maxLength":63},)"
         R"("text":{"type":"string","maxLength":8192},)"
         R"("top":{"type":"integer","minimum":1,"maximum":256},)"
         R"("source_table":{"type":"string","maxLength":63},)"
         R"("key_field":{"type":"string","maxLength":63},)"
         R"("columns":{"type":"array","minItems":1,"maxItems":16,)"
         R"("items":{"type":"string","maxLength":63}}},)"
         R"("required":["collection","text","top","source_table","key_field","columns"],)"
         R"("additionalProperties":false})",
     .access = ToolAccess::kProviderRead,
     .check = check_hybrid_search,
     .handler = hybrid_search_tool},
    {.name = "kova_ai_status",
     .description =
         "Show bounded AI collection, optional provider, and durable job health without secrets.",
     .input_schema =
         R"({"type":"object","properties":{"collection":{"type":"string","maxLength":63},)"
         R"("provider":{"type":"string","maxLength":63}},)"
         R"("required":["collection"],"additionalProperties":false})",
     .access = ToolAccess::kRead,
     .check = check_ai_status,
     .handler = ai_status_tool},
    {.name = "kova_execute",
     .description = "Execute one policy-approved INSERT, UPDATE, or DELETE.",
     .input_schema = R"({"type":"object","properties":{"sql":{"type":"string","maxLength":32768},)"
                     R"("approval_token":{"type":"string","maxLength":255}},)"
                     R"("required":["sql"],"additionalProperties":false})",
     .access = ToolAccess::kWrite,
     .check = nullptr,
     .handler = execute_tool},
};

}  // namespace

std::span<const Tool> tool_table() {
  return kTools;
}

const Tool* find_tool(std::string_view name) {
  const auto* const found = std::find_if(std::begin(kTools), std::end(kTools),
                                         [&](const Tool& tool) { return tool.name == name; });
  return found != std::end(kTools) ? found : nullptr;
}

}  // namespace kova
