// AI collections: their definitions, and what the engine has learnt and stored for them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "engine/ai/embedding.h"
#include "engine/store.h"

namespace kova::sample {

/// The name that collections and statements give the one provider.
inline constexpr std::string_view kProvider = "LOCAL";

/// A row of AI_COLLECTIONS, the table in which the maker of a database defines its collections.
struct Collection {
  struct TextColumn {
    std::string name;
    float weight;
  };

  std::string name;
  std::string source_table;
  std::string key_column;
  std::vector<TextColumn> texts;  ///< "TITLE 2, BODY"; a column without a number weighs 1
  std::string provider;
};

/// The names of all collections, sorted; empty where none is defined.
[[nodiscard]] std::vector<std::string> collection_names(Store& store);
/// Throws for a name that is not defined, and for a definition that cannot be read.
[[nodiscard]] Collection find_collection(Store& store, std::string_view name);
/// Throws unless it is the one provider.
void check_provider(std::string_view provider);
/// How many vectors a collection has; throws for one that is not built.
[[nodiscard]] std::int64_t count_vectors(Store& store, const Collection& collection);
/// Throws for a collection without vectors.
void check_not_empty(Store& store, const Collection& collection);

/// The SELECT of a collection's keys and texts, up to a WHERE.
[[nodiscard]] std::string select_source(const Collection& collection);
/// The terms of the current row of such a SELECT.
[[nodiscard]] std::vector<Term> terms_of(const Query& row, const Collection& collection);

/// The name between double quotes.
[[nodiscard]] std::string quoted_name(std::string_view name);

/// The model of a collection as the database holds it, read word by word.
class StoredModel {
 public:
  /// Throws for a collection that is not built.
  StoredModel(Store& store, const Collection& collection);

  [[nodiscard]] Vector embed(const std::vector<Term>& terms);

 private:
  [[nodiscard]] const LearntWord* find(const std::string& word);

  Query find_;
  std::uint32_t texts_ = 0;
  LearntWord word_;
};

}  // namespace kova::sample
