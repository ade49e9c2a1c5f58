// How the cost of a message grows with what it holds: parsing and the check for duplicate keys.
//
//   growth-bench ROUNDS DATA
//
// Every series and size once a round, so that other load meets all alike; a sample is the
// milliseconds of one parse or check, as the mean of a burst of messages. No message of a burst
// equals another one: the processor learns the branches that a repeated message takes, and the more
// of them the shorter it is.
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

/// The tokens of one message after the other, as a server reads them.
class Reader {
 public:
  Reader() : tokens_(kova::kMessageTokenCapacity) {}

  [[nodiscard]] bool parse(const std::string& json) {
    return kova::json_parse(json, tokens_.data(), kova::kMessageTokenCapacity, doc_);
  }
  /// Of what `parse` has read.
  [[nodiscard]] bool has_single_keys() const { return !kova::has_duplicate_keys(doc_); }

 private:
  std::vector<kova::JsonToken> tokens_;
  kova::JsonDoc doc_;
};

std::string call(const std::string& arguments) {
  return R"({"jsonrpc":"2.0","id":41,"method":"tools/call","params":{"name":"kova_query",)"
         R"("arguments":)" +
         arguments + "}}";
}

/// Keys in no order, and others in each message.
std::string object_of_keys(int count, int message) {
  const std::string prefix = "\"key_" + std::to_string(10 + message) + "_";
  std::string members;
  for (int i = 0; i < count; ++i) {
    members += (i == 0 ? "{" : ",") + prefix + std::to_string(i * 7919 % count) +
               "\":" + std::to_string(i);
  }
  return call(members + "}");
}

/// Two tokens for each item, as with keys.
std::string list_of_pairs(int count, int message) {
  std::string items;
  for (int i = 0; i < count; ++i) {
    items += (i == 0 ? "[" : ",") + std::to_string((i + message) * 7919 % count) + ",null";
  }
  return call(R"({"list":)" + items + "]}");
}

/// Milliseconds; negative when the message is refused.
using Step = double (*)(Reader& reader, const std::string& json);

template <typename Work>
double timed(const Work& work) {
  const auto start = std::chrono::steady_clock::now();
  const bool good = work();
  const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
  return good ? took.count() : -1.0;
}

double parse(Reader& reader, const std::string& json) {
  return timed([&] { return reader.parse(json); });
}

double check(Reader& reader, const std::string& json) {
  return reader.parse(json) ? timed([&] { return reader.has_single_keys(); }) : -1.0;
}

struct Series {
  const char* name;
  std::string (*json)(int size, int message);
  Step step;
};

constexpr Series kSeries[] = {
    {"keys: parse", object_of_keys, parse},
    {"keys: check for duplicates", object_of_keys, check},
    {"pairs of tokens: parse", list_of_pairs, parse},
};

/// The subject takes the step with one message after the other and tells the mean.
Subject burst(const Series& series, int size) {
  std::vector<std::string> messages(static_cast<std::size_t>(kItemsOfABurst / size));
  for (int i = 0; std::string & json : messages) json = series.json(size, i++);
  const auto reader = std::make_shared<Reader>();
  return {std::to_string(size), [messages = std::move(messages), reader, step = series.step] {
            double total = 0;
            for (const std::string& json : messages) {
              const double took = step(*reader, json);
              if (took < 0) return -1.0;
              total += took;
            }
            return total / static_cast<double>(messages.size());
          }};
}

bool run(int rounds, const char* path) {
  std::vector<Subject> subjects;
  for (const Series& series : kSeries) {
    for (const int size : kSizes) subjects.push_back(burst(series, size));
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
