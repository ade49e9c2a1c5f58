#include "simdjson_contender.h"

#include <simdjson.h>

#include <cmath>
#include <string_view>

namespace kova_bench {

namespace {

namespace ondemand = simdjson::ondemand;

template <typename Value>
std::size_t size_of(Value value) {
  std::string_view text;
  return value.get_string().get(text) ? 0 : text.size();
}

bool walk(ondemand::value value);

bool walk_members(ondemand::object object) {
  for (auto member : object) {
    std::string_view key;
    ondemand::value value;
    if (member.unescaped_key().get(key) || member.value().get(value) || !walk(value)) return false;
  }
  return true;
}

bool walk_elements(ondemand::array array) {
  for (auto element : array) {
    ondemand::value value;
    if (element.get(value) || !walk(value)) return false;
  }
  return true;
}

bool walk(ondemand::value value) {
  switch (value.type()) {
    case ondemand::json_type::object:
      return walk_members(value.get_object());
    case ondemand::json_type::array:
      return walk_elements(value.get_array());
    case ondemand::json_type::string:
      return !value.get_string().error();
    case ondemand::json_type::number:
      return !value.get_number().error();
    case ondemand::json_type::boolean:
      return !value.get_bool().error();
    default:
      return value.is_null();
  }
}

}  // namespace

struct SimdjsonDom::State {
  explicit State(const std::string& json) : text(json) {}

  simdjson::padded_string text;
  simdjson::dom::parser parser;
};

SimdjsonDom::SimdjsonDom(const std::string& json) : state_(std::make_unique<State>(json)) {}

SimdjsonDom::~SimdjsonDom() = default;

bool SimdjsonDom::parse() {
  return !state_->parser.parse(state_->text).error();
}

std::size_t SimdjsonDom::take(const JsonInput& input) {
  simdjson::dom::element root;
  if (state_->parser.parse(state_->text).get(root)) return 0;
  const auto params = root["params"];
  const std::size_t size =
      size_of(root["jsonrpc"]) + size_of(root["method"]) + size_of(params["name"]);
  return input.long_text.empty() ? size : size + size_of(params["arguments"]["text"]);
}

struct SimdjsonOnDemand::State {
  explicit State(const std::string& json) : text(json) {}

  simdjson::padded_string text;
  ondemand::parser parser;
};

SimdjsonOnDemand::SimdjsonOnDemand(const std::string& json)
    : state_(std::make_unique<State>(json)) {}

SimdjsonOnDemand::~SimdjsonOnDemand() = default;

bool SimdjsonOnDemand::parse() {
  ondemand::document document;
  ondemand::value root;
  return !state_->parser.iterate(state_->text).get(document) && !document.get_value().get(root) &&
         walk(root);
}

std::size_t SimdjsonOnDemand::take(const JsonInput& input) {
  ondemand::document document;
  if (state_->parser.iterate(state_->text).get(document)) return 0;
  std::size_t size = size_of(document["jsonrpc"]);
  size += size_of(document["method"]);
  ondemand::object params;
  if (document["params"].get_object().get(params)) return 0;
  size += size_of(params["name"]);
  return input.long_text.empty() ? size : size + size_of(params["arguments"]["text"]);
}

double SimdjsonOnDemand::sum() {
  ondemand::document document;
  ondemand::array vector;
  if (state_->parser.iterate(state_->text).get(document) ||
      document["params"]["arguments"]["vector"].get_array().get(vector)) {
    return NAN;
  }
  double sum = 0;
  for (auto element : vector) {
    double value = 0;
    if (element.get_double().get(value)) return NAN;
    sum += value;
  }
  return sum;
}

}  // namespace kova_bench
