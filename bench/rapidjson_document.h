// RapidJSON's document as its fastest user has it: memory that is got once and used again.
#pragma once

// The product is built for plain x86-64, so RapidJSON gets the vector instructions of that too.
#define RAPIDJSON_SSE2
#include <rapidjson/document.h>
#include <rapidjson/reader.h>

#include <cstddef>
#include <string>
#include <vector>

namespace kova_bench {

class RapidJsonDocument {
 public:
  template <unsigned kFlags>
  [[nodiscard]] bool parse(const char* text) {
    pool_.Clear();
    return !document_.Parse<kFlags>(text).HasParseError();
  }
  [[nodiscard]] bool parse_in_place(char* text) {
    pool_.Clear();
    return !document_.ParseInsitu(text).HasParseError();
  }
  [[nodiscard]] const rapidjson::Value& root() const { return document_; }

 private:
  static constexpr std::size_t kPoolSize = 8u << 20;

  std::vector<char> memory_ = std::vector<char>(kPoolSize);
  rapidjson::MemoryPoolAllocator<> pool_{memory_.data(), memory_.size()};
  rapidjson::Document document_{&pool_};
};

}  // namespace kova_bench
