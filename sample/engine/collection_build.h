// Building a collection from all rows of its source.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

#include "engine/collections.h"
#include "engine/store.h"

namespace kova::sample {

/// Is told how far the building of a collection is.
using BuildProgress = std::function<void(std::string_view collection, int percent)>;

/// The build of one collection, in three passes over its source rows: counting the words, relating
/// them, and embedding. Changes nothing before the third, which is one transaction.
class Build {
 public:
  Build(Store& store, const Collection& collection, const BuildProgress& progress)
      : store_(store), collection_(collection), progress_(progress) {}

  /// False leaves the words in the store's `error()`, and the job as it was.
  [[nodiscard]] bool run(std::int64_t job);

 private:
  [[nodiscard]] bool learn();
  [[nodiscard]] bool write(std::int64_t job);
  [[nodiscard]] bool write_words();
  [[nodiscard]] bool write_vectors(std::int64_t job);
  [[nodiscard]] bool for_each_row(const std::function<bool(const Query& row)>& visit);
  [[nodiscard]] bool count_rows();

  static constexpr std::int64_t kPasses = 3;

  Store& store_;
  const Collection& collection_;
  const BuildProgress& progress_;
  Embedding embedding_;
  std::int64_t rows_ = 0;
  std::int64_t visited_ = 0;
};

}  // namespace kova::sample
