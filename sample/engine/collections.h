// AI collections: their definitions, and their vectors in memory.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "engine/embedding.h"
#include "engine/store.h"
#include "engine/vector_index.h"

namespace kova::sample {

/// A row of AI_COLLECTIONS, the table in which whoever makes a database defines its collections.
struct Collection {
  struct TextColumn {
    std::string name;
    float weight;
  };

  std::string name;
  std::string source_table;
  std::string key_column;
  std::string text_columns;  ///< as defined: "TITLE 2, BODY"; a column without a number weighs 1
  std::string provider;
  std::vector<TextColumn> texts;
};

/// Whether the database has a table of this name.
[[nodiscard]] bool has_table(Store& store, std::string_view name);

/// False leaves the words in the store's `error()`.
[[nodiscard]] bool find_collection(Store& store, std::string_view name, Collection& collection);

/// The names of all collections, none where none is defined.
[[nodiscard]] bool collection_names(Store& store, std::vector<std::string>& names);

/// How many vectors a collection has; fails for one that has not been built.
[[nodiscard]] bool count_vectors(Store& store, const Collection& collection, std::int64_t& vectors);

/// False, with words in the store's `error()`, unless it is the name of the one provider.
[[nodiscard]] bool check_provider(Store& store, std::string_view provider);

/// The SELECT of a collection's key and texts, up to a WHERE.
[[nodiscard]] std::string select_source(const Collection& collection);
/// The terms of the current row of such a SELECT.
[[nodiscard]] std::vector<Term> terms_of(const Query& row, const Collection& collection);

/// The name between double quotes.
[[nodiscard]] std::string quoted_name(std::string_view name);

/// A collection's embedding and vectors as the database has them. Any thread.
class LoadedCollection {
 public:
  /// The rows nearest to a text; empty when it has no words. False leaves the words in the store's
  /// `error()`.
  [[nodiscard]] bool nearest(Store& store, const Collection& collection, std::string_view text,
                             std::size_t top, std::vector<Hit>& hits);
  /// The rows nearest to a vector of any length but zero.
  [[nodiscard]] bool nearest(Store& store, const Collection& collection, const Vector& query,
                             std::size_t top, std::vector<Hit>& hits);
  /// Brings what is loaded up to date.
  [[nodiscard]] bool load(Store& store, const Collection& collection);
  /// The vector of a text, by what is loaded.
  [[nodiscard]] Vector embed(const std::vector<Term>& terms);

 private:
  // Called with the mutex held. What fails half-way is taken up again by the next call.
  [[nodiscard]] bool refresh(Store& store, const Collection& collection);
  [[nodiscard]] bool read_changes(Store& store, const Collection& collection);
  [[nodiscard]] bool read_model(Store& store, const Collection& collection, std::int64_t built,
                                std::int64_t documents);
  [[nodiscard]] bool read_vectors(Store& store, const Collection& collection);

  std::mutex mutex_;
  std::int64_t built_ = 0;     ///< the job that has built what is loaded; 0 when nothing is
  std::int64_t revision_ = 0;  ///< the last job whose vectors are loaded
  Embedding embedding_;
  VectorIndex vectors_;
};

/// The collections of one database. Any thread.
class Collections {
 public:
  /// Lives as long as this.
  [[nodiscard]] LoadedCollection& loaded(const std::string& name);

  /// Temporary tables that the sessions on the database have at the moment.
  std::atomic<std::int64_t> temporary_tables = 0;

 private:
  std::mutex mutex_;
  std::map<std::string, LoadedCollection> loaded_;
};

}  // namespace kova::sample
