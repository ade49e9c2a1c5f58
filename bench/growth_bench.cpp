// How the cost of a message grows with what it holds: parsing and the check for duplicate keys.
//
//   growth-bench ROUNDS DATA
//
// Every series and size once a round, so that other load meets all alike; a sample is the
// milliseconds of one parse or check, as the mean of a burst that takes some tens of microseconds.
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "json/json.h"
#include "mcp/duplicate_keys.h"
#include "rounds.h"
#include "sample_file.h"

namespace kova_bench {

namespace {

/// The longest is what one message may hold: 4,096 tokens.
constexpr int kSizes[] = {125, 250, 500, 1000, 2000};
constexpr int kItemsOfABurst = 8000;

/// A message, its tokens, and what they mean.
class Message {
 public:
  explicit Message(std::string json)
      : json_(std::move(json)), tokens_(kova::kMessageTokenCapacity) {}

  [[nodiscard]] bool parse() {
    return kova::json_parse(json_, tokens_.data(), kova::kMessageTokenCapacity, doc_);
  }
  /// Of what `parse` has read.
  [[nodiscard]] bool has_single_keys() const { return !kova::has_duplicate_keys(doc_); }

 private:
  std::string json_;
  std::vector<kova::JsonToken> tokens_;
  kova::JsonDoc doc_;
};

std::string call(const std::string& arguments) {
  return R"({"jsonrpc":"2.0","id":41,"method":"tools/call","params":{"name":"kova_query",)"
         R"("arguments":)" +
         arguments + "}}";
}

/// Keys in no order.
std::string object_of_keys(int count) {
  std::string members;
  for (int i = 0; i < count; ++i) {
    members += (i == 0 ? "{\"column_" : ",\"column_") + std::to_string(i * 7919 % count) +
               "\":" + std::to_string(i);
  }
  return call(members + "}");
}

/// Two tokens for each item, as with keys.
std::string list_of_pairs(int count) {
  std::string items;
  for (int i = 0; i < count; ++i) items += (i == 0 ? "[" : ",") + std::to_string(i) + ",null";
  return call(R"({"list":)" + items + "]}");
}

using Step = bool (*)(Message&);

/// The subject runs the step over and over and tells the time of one.
Subject burst(int size, const std::string& json, Step step) {
  const auto message = std::make_shared<Message>(json);
  const int repeats = kItemsOfABurst / size;
  return {std::to_string(size), [message, repeats, step] {
            if (!message->parse()) return -1.0;
            const auto start = std::chrono::steady_clock::now();
            bool good = true;
            for (int i = 0; i < repeats; ++i) good = step(*message) && good;
            const std::chrono::duration<double, std::milli> took =
                std::chrono::steady_clock::now() - start;
            return good ? took.count() / repeats : -1.0;
          }};
}

struct Series {
  const char* name;
  std::string (*json)(int size);
  Step step;
};

constexpr Series kSeries[] = {
    {"keys: parse", object_of_keys, [](Message& message) { return message.parse(); }},
    {"keys: check for duplicates", object_of_keys,
     [](Message& message) { return message.has_single_keys(); }},
    {"pairs of tokens: parse", list_of_pairs, [](Message& message) { return message.parse(); }},
};

bool run(int rounds, const char* path) {
  std::vector<Subject> subjects;
  for (const Series& series : kSeries) {
    for (const int size : kSizes) subjects.push_back(burst(size, series.json(size), series.step));
  }
  const std::vector<Samples> samples = run_rounds(subjects, rounds);
  SampleFile file;
  if (samples.empty() || !file.open(path)) return false;
  constexpr auto kSizeCount = static_cast<std::ptrdiff_t>(std::size(kSizes));
  auto subject = subjects.begin();
  auto sample = samples.begin();
  for (const Series& series : kSeries) {
    file.group(series.name, {subject, subject + kSizeCount}, {sample, sample + kSizeCount});
    subject += kSizeCount;
    sample += kSizeCount;
  }
  return file.close();
}

}  // namespace

}  // namespace kova_bench

int main(int count, char** arguments) {
  const int rounds = count == 3 ? static_cast<int>(std::strtol(arguments[1], nullptr, 10)) : 0;
  if (rounds < 1) {
    std::fprintf(stderr, "usage: %s ROUNDS DATA\n", arguments[0]);
    return 2;
  }
  return kova_bench::run(rounds, arguments[2]) ? 0 : 1;
}
