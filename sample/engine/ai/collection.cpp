#include "engine/ai/collection.h"

#include <algorithm>
#include <charconv>

#include "base/ascii.h"
#include "engine/statement_text.h"

namespace kova::sample {

namespace {

[[noreturn]] void fail(const std::string& collection, const std::string& what) {
  throw Failure("collection " + collection + what);
}

// One column of "TITLE 2, BODY".
Collection::TextColumn text_column(std::string_view entry, const std::string& collection) {
  const std::string_view name = take_word(entry);
  const std::string_view number = trimmed(entry);
  float weight = 1;
  const char* end = number.data() + number.size();
  const bool parsed = number.empty() || std::from_chars(number.data(), end, weight).ptr == end;
  if (!parsed || name.empty() || !(weight > 0 && weight <= 100)) {
    fail(collection, ": TEXT_COLUMNS must be columns, each with a weight from 0 to 100 or without");
  }
  return {std::string(name), weight};
}

std::vector<Collection::TextColumn> text_columns(std::string_view list,
                                                 const std::string& collection) {
  std::vector<Collection::TextColumn> columns;
  for (;;) {
    const std::size_t comma = std::min(list.find(','), list.size());
    columns.push_back(text_column(list.substr(0, comma), collection));
    if (comma == list.size()) return columns;
    list.remove_prefix(comma + 1);
  }
}

[[noreturn]] void fail_as_unbuilt(Store& store, const std::string& collection) {
  Query build = store.prepare(
      "SELECT ERROR FROM AI_JOBS WHERE COLLECTION = ?1 AND KIND = 'BUILD' AND STATE = 'FAILED'"
      " ORDER BY ID DESC LIMIT 1");
  if (!build.bind(1, collection).step()) fail(collection, " is still being built");
  fail(collection, " cannot be built: " + std::string(build.cell(0)));
}

// The number of texts that the collection has learnt from.
std::uint32_t learnt_texts(Store& store, const std::string& collection) {
  if (!store.has_table("AI_MODELS")) fail(collection, " is still being built");
  Query model = store.prepare("SELECT TEXTS FROM AI_MODELS WHERE COLLECTION = ?1");
  if (!model.bind(1, collection).step()) fail_as_unbuilt(store, collection);
  return static_cast<std::uint32_t>(model.integer(0));
}

}  // namespace

std::vector<std::string> collection_names(Store& store) {
  std::vector<std::string> names;
  if (!store.has_table("AI_COLLECTIONS")) return names;
  Query rows = store.prepare("SELECT NAME FROM AI_COLLECTIONS ORDER BY NAME");
  while (rows.step()) names.emplace_back(rows.cell(0));
  return names;
}

Collection find_collection(Store& store, std::string_view name) {
  Query row;
  if (store.has_table("AI_COLLECTIONS")) {
    row = store.prepare(
        "SELECT NAME, SOURCE_TABLE, KEY_COLUMN, TEXT_COLUMNS, PROVIDER"
        " FROM AI_COLLECTIONS WHERE NAME = ?1 COLLATE NOCASE");
  }
  if (!row.is_open() || !row.bind(1, name).step()) {
    throw Failure("no such collection: " + std::string(name));
  }
  Collection collection{.name = std::string(row.cell(0)),
                        .source_table = std::string(row.cell(1)),
                        .key_column = std::string(row.cell(2)),
                        .texts = {},
                        .provider = std::string(row.cell(4))};
  collection.texts = text_columns(row.cell(3), collection.name);
  return collection;
}

void check_provider(std::string_view provider) {
  if (equal_ignoring_case(provider, kProvider)) return;
  throw Failure("no such provider: " + std::string(provider));
}

std::int64_t count_vectors(Store& store, const Collection& collection) {
  static_cast<void>(learnt_texts(store, collection.name));
  Query count = store.prepare("SELECT COUNT(*) FROM AI_VECTORS WHERE COLLECTION = ?1");
  count.bind(1, collection.name).step();
  return count.integer(0);
}

void check_not_empty(Store& store, const Collection& collection) {
  static_cast<void>(learnt_texts(store, collection.name));
  Query first = store.prepare("SELECT 1 FROM AI_VECTORS WHERE COLLECTION = ?1 LIMIT 1");
  if (!first.bind(1, collection.name).step()) fail(collection.name, " is empty");
}

std::string quoted_name(std::string_view name) {
  std::string quoted = "\"";
  for (const char c : name) quoted.append(c == '"' ? 2 : 1, c);
  return quoted + '"';
}

// The columns are qualified: a quoted name alone would be a text where there is no such column.
std::string select_source(const Collection& collection) {
  std::string sql = "SELECT S." + quoted_name(collection.key_column);
  for (const Collection::TextColumn& column : collection.texts) {
    sql += ", S." + quoted_name(column.name);
  }
  return sql + " FROM main." + quoted_name(collection.source_table) + " AS S";
}

std::vector<Term> terms_of(const Query& row, const Collection& collection) {
  std::vector<Term> terms;
  int column = 1;
  for (const Collection::TextColumn& text : collection.texts) {
    add_terms(row.cell(column++), text.weight, terms);
  }
  return terms;
}

StoredModel::StoredModel(Store& store, const Collection& collection)
    : texts_(learnt_texts(store, collection.name)) {
  find_ = store.prepare("SELECT TEXTS, VECTOR FROM AI_WORDS WHERE COLLECTION = ?1 AND WORD = ?2");
  find_.bind(1, collection.name);
}

const LearntWord* StoredModel::find(const std::string& word) {
  find_.rewind();
  if (!find_.bind(2, word).step()) return nullptr;
  word_.texts = static_cast<std::uint32_t>(find_.integer(0));
  if (!read_vector(find_.blob(1), word_.vector)) throw Failure("AI_WORDS is damaged");
  return &word_;
}

Vector StoredModel::embed(const std::vector<Term>& terms) {
  return kova::sample::embed(terms, texts_, [this](const std::string& word) { return find(word); });
}

}  // namespace kova::sample
