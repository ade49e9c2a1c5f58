#include "parse_bench.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/text.h"
#include "contender.h"
#include "json/json.h"
#include "json_inputs.h"
#include "mcp/duplicate_keys.h"
#include "rapidjson_document.h"
#include "simdjson_contender.h"

namespace kova_bench {

namespace {

constexpr unsigned kUnchecked = rapidjson::kParseDefaultFlags;
constexpr unsigned kChecked = rapidjson::kParseValidateEncodingFlag;
constexpr std::size_t kTextCapacity = 1 << 20;

/// The product's parser with the token array that the product gives it.
struct Ours {
  [[nodiscard]] bool parse(std::string_view json) {
    return kova::json_parse(json, tokens.data(), kova::kMessageTokenCapacity, doc);
  }

  std::vector<kova::JsonToken> tokens = std::vector<kova::JsonToken>(kova::kMessageTokenCapacity);
  kova::JsonDoc doc;
  std::vector<char> text = std::vector<char>(kTextCapacity);
};

template <unsigned kFlags>
bool parse_events(const char* text) {
  rapidjson::Reader reader;
  rapidjson::StringStream stream(text);
  rapidjson::BaseReaderHandler<> handler;
  return !reader.Parse<kFlags>(stream, handler).IsError();
}

// Parsing in place spoils the text, so that each run needs a fresh one; the copies are made outside
// the measured time, many at once.
void register_in_place(const JsonInput& input) {
  const std::string name = "parse/" + input.name + "/RapidJSON in place";
  benchmark::RegisterBenchmark(name.c_str(), [&input](benchmark::State& state) {
    const std::string& json = input.json;
    const std::size_t stride = json.size() + 1;
    const std::size_t copies = std::max<std::size_t>(1, 262144 / stride);
    std::vector<char> texts(stride * copies);
    RapidJsonDocument document;
    bool good = true;
    while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(copies))) {
      state.PauseTiming();
      for (std::size_t i = 0; i < copies; ++i) {
        std::copy(json.c_str(), json.c_str() + stride, texts.data() + i * stride);
      }
      state.ResumeTiming();
      for (std::size_t i = 0; i < copies; ++i) {
        good = document.parse_in_place(texts.data() + i * stride) && good;
      }
    }
    if (!good) state.SkipWithError("failed");
    state.SetBytesProcessed(static_cast<std::int64_t>(json.size()) * state.iterations());
  });
}

void register_parse(const JsonInput& input) {
  const std::string& json = input.json;
  const auto add = [&](const char* contender, std::function<bool()> run) {
    register_contender("parse", input.name, contender, json.size(), std::move(run));
  };
  const auto ours = std::make_shared<Ours>();
  const auto dom = std::make_shared<SimdjsonDom>(json);
  const auto on_demand = std::make_shared<SimdjsonOnDemand>(json);
  const auto document = std::make_shared<RapidJsonDocument>();
  add("ours", [ours, &json] { return ours->parse(json); });
  add("ours and duplicate keys",
      [ours, &json] { return ours->parse(json) && !kova::has_duplicate_keys(ours->doc); });
  add("simdjson DOM", [dom] { return dom->parse(); });
  add("simdjson on demand", [on_demand] { return on_demand->parse(); });
  add("RapidJSON DOM", [document, &json] { return document->parse<kUnchecked>(json.c_str()); });
  add("RapidJSON DOM, UTF-8",
      [document, &json] { return document->parse<kChecked>(json.c_str()); });
  add("RapidJSON SAX", [&json] { return parse_events<kUnchecked>(json.c_str()); });
  add("RapidJSON SAX, UTF-8", [&json] { return parse_events<kChecked>(json.c_str()); });
  register_in_place(input);
}

/// What the dispatcher reads of a message, and the long text of the arguments. Every contender
/// returns the number of bytes, which must be the same.
std::size_t take_ours(Ours& ours, const JsonInput& input) {
  const auto take = [&](int index) {
    kova::TextOut out(ours.text.data(), ours.text.size());
    return kova::json_get_scalar_text(ours.doc, index, out) ? std::strlen(out.data()) : 0;
  };
  if (!ours.parse(input.json)) return 0;
  const kova::JsonDoc& doc = ours.doc;
  const int params = kova::json_find(doc, 0, "params");
  std::size_t size = take(kova::json_find(doc, 0, "jsonrpc"));
  size += take(kova::json_find(doc, 0, "method"));
  size += take(kova::json_find(doc, params, "name"));
  if (input.long_text.empty()) return size;
  return size + take(kova::json_find(doc, kova::json_find(doc, params, "arguments"), "text"));
}

template <unsigned kFlags>
std::size_t take_rapidjson(RapidJsonDocument& document, const JsonInput& input) {
  if (!document.parse<kFlags>(input.json.c_str())) return 0;
  const auto& root = document.root();
  const auto& params = root["params"];
  const std::size_t size = root["jsonrpc"].GetStringLength() + root["method"].GetStringLength() +
                           params["name"].GetStringLength();
  if (input.long_text.empty()) return size;
  return size + params["arguments"]["text"].GetStringLength();
}

void register_take(const JsonInput& input) {
  const auto ours = std::make_shared<Ours>();
  const auto dom = std::make_shared<SimdjsonDom>(input.json);
  const auto on_demand = std::make_shared<SimdjsonOnDemand>(input.json);
  const auto document = std::make_shared<RapidJsonDocument>();
  const std::size_t expected = take_rapidjson<kChecked>(*document, input);
  const auto add = [&](const char* contender, std::function<std::size_t()> take) {
    register_contender("take", input.name, contender, input.json.size(),
                       [take, expected] { return expected > 0 && take() == expected; });
  };
  add("ours", [ours, &input] { return take_ours(*ours, input); });
  add("simdjson DOM", [dom, &input] { return dom->take(input); });
  add("simdjson on demand", [on_demand, &input] { return on_demand->take(input); });
  add("RapidJSON DOM", [document, &input] { return take_rapidjson<kUnchecked>(*document, input); });
  add("RapidJSON DOM, UTF-8",
      [document, &input] { return take_rapidjson<kChecked>(*document, input); });
}

bool near(double sum, double expected) {
  return std::abs(sum - expected) < 1e-2;
}

double sum_ours(Ours& ours, const JsonInput& input) {
  if (!ours.parse(input.json)) return -1e9;
  const kova::JsonDoc& doc = ours.doc;
  const int arguments = kova::json_find(doc, kova::json_find(doc, 0, "params"), "arguments");
  const int vector = kova::json_find(doc, arguments, "vector");
  double sum = 0;
  for (int i = vector + 1, end = kova::json_skip(doc, vector); i < end;
       i = kova::json_skip(doc, i)) {
    float value = 0;
    if (!kova::json_get_float(doc, i, value)) return -1e9;
    sum += static_cast<double>(value);
  }
  return sum;
}

double sum_rapidjson(RapidJsonDocument& document, const JsonInput& input) {
  if (!document.parse<kChecked>(input.json.c_str())) return -1e9;
  double sum = 0;
  for (const auto& element : document.root()["params"]["arguments"]["vector"].GetArray()) {
    sum += static_cast<double>(element.GetFloat());
  }
  return sum;
}

void register_numbers(const JsonInput& input) {
  const auto ours = std::make_shared<Ours>();
  const auto on_demand = std::make_shared<SimdjsonOnDemand>(input.json);
  const auto document = std::make_shared<RapidJsonDocument>();
  const double expected = sum_rapidjson(*document, input);
  const auto add = [&](const char* contender, std::function<double()> sum) {
    register_contender("numbers", input.name, contender, input.json.size(),
                       [sum, expected] { return near(sum(), expected); });
  };
  add("ours", [ours, &input] { return sum_ours(*ours, input); });
  add("simdjson on demand", [on_demand] { return on_demand->sum(); });
  add("RapidJSON DOM, UTF-8", [document, &input] { return sum_rapidjson(*document, input); });
}

}  // namespace

void register_parse_benchmarks() {
  for (const JsonInput& input : json_inputs()) {
    register_parse(input);
    register_take(input);
    if (input.json.find("vector\":[") != std::string::npos) register_numbers(input);
  }
}

}  // namespace kova_bench
