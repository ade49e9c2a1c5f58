// The calls with the largest values.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "admin/audit/record.h"

namespace kova::admin {

/// One call of a list.
struct TopCall {
  std::uint64_t value;
  std::string timestamp;
  std::string client;
  std::string tool;
  std::string objects;
  std::string correlation_id;
  std::uint64_t duration_ms;
  std::uint64_t rows;
  std::uint64_t bytes;
};

/// Keeps the kLimit calls with the largest values above 0, the largest first; of equal ones the
/// earlier record.
class TopCalls {
 public:
  static constexpr std::size_t kLimit = 20;

  void add(std::uint64_t value, const AuditRecord& record) {
    if (value > (calls_.size() < kLimit ? 0 : calls_.back().value)) insert(value, record);
  }
  [[nodiscard]] const std::vector<TopCall>& calls() const { return calls_; }

 private:
  void insert(std::uint64_t value, const AuditRecord& record) {
    if (calls_.size() == kLimit) calls_.pop_back();
    const auto place = std::find_if(calls_.begin(), calls_.end(),
                                    [value](const TopCall& call) { return call.value < value; });
    calls_.insert(place, {.value = value,
                          .timestamp = std::string(record.timestamp),
                          .client = std::string(record.client),
                          .tool = std::string(record.tool),
                          .objects = std::string(record.objects),
                          .correlation_id = std::string(record.correlation_id),
                          .duration_ms = record.duration_ms,
                          .rows = record.rows,
                          .bytes = record.bytes});
  }

  std::vector<TopCall> calls_;
};

}  // namespace kova::admin
