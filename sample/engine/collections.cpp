#include "engine/collections.h"

#include <algorithm>
#include <charconv>

#include "base/ascii.h"
#include "engine/statement_text.h"

namespace kova::sample {

namespace {

// "TITLE 2, BODY"; false when a column has no name or no good weight.
bool parse_text_columns(std::string_view list, std::vector<Collection::TextColumn>& columns) {
  while (!list.empty()) {
    const std::size_t comma = std::min(list.find(','), list.size());
    std::string_view entry = list.substr(0, comma);
    list.remove_prefix(std::min(comma + 1, list.size()));
    const std::string_view name = take_word(entry);
    const std::string_view number = trimmed(entry);
    float weight = 1;
    const char* end = number.data() + number.size();
    if (!number.empty() && std::from_chars(number.data(), end, weight).ptr != end) return false;
    if (name.empty() || !(weight > 0 && weight <= 100)) return false;
    columns.push_back({std::string(name), weight});
  }
  return !columns.empty();
}

bool fail_as_unknown(Store& store, std::string_view name) {
  return store.fail("no such collection: " + std::string(name));
}

// Why a collection without a model has none.
bool fail_as_unbuilt(Store& store, const Collection& collection) {
  const std::string subject = "collection " + collection.name;
  Query build;
  if (has_table(store, "AI_JOBS") &&
      store.prepare("SELECT ERROR FROM AI_JOBS WHERE COLLECTION = ?1 AND KIND = 'BUILD'"
                    " AND STATE = 'FAILED' ORDER BY ID DESC LIMIT 1",
                    Rights::kEngine, build) &&
      build.bind(1, collection.name) && build.step() == Query::Step::kRow) {
    return store.fail(subject + " cannot be built: " + std::string(build.cell(0)));
  }
  return store.fail(subject + " is still being built");
}

bool fail_as_empty(Store& store, const Collection& collection) {
  return store.fail("collection " + collection.name + " is empty");
}

}  // namespace

bool has_table(Store& store, std::string_view name) {
  Query known;
  return store.prepare("SELECT 1 FROM sqlite_schema WHERE type = 'table' AND name = ?1",
                       Rights::kEngine, known) &&
         known.bind(1, name) && known.step() == Query::Step::kRow;
}

bool find_collection(Store& store, std::string_view name, Collection& collection) {
  if (!has_table(store, "AI_COLLECTIONS")) return fail_as_unknown(store, name);
  Query row;
  if (!store.prepare("SELECT NAME, SOURCE_TABLE, KEY_COLUMN, TEXT_COLUMNS, PROVIDER"
                     " FROM AI_COLLECTIONS WHERE NAME = ?1 COLLATE NOCASE",
                     Rights::kEngine, row) ||
      !row.bind(1, name)) {
    return false;
  }
  switch (row.step()) {
    case Query::Step::kFailed:
      return false;
    case Query::Step::kEnd:
      return fail_as_unknown(store, name);
    case Query::Step::kRow:
      break;
  }
  collection = {.name = std::string(row.cell(0)),
                .source_table = std::string(row.cell(1)),
                .key_column = std::string(row.cell(2)),
                .text_columns = std::string(row.cell(3)),
                .provider = std::string(row.cell(4)),
                .texts = {}};
  if (parse_text_columns(collection.text_columns, collection.texts)) return true;
  return store.fail("collection " + collection.name +
                    ": TEXT_COLUMNS must be columns, each with a weight from 0 to 100 or without");
}

bool collection_names(Store& store, std::vector<std::string>& names) {
  if (!has_table(store, "AI_COLLECTIONS")) return true;
  Query rows;
  if (!store.prepare("SELECT NAME FROM AI_COLLECTIONS ORDER BY NAME", Rights::kEngine, rows)) {
    return false;
  }
  for (;;) {
    const Query::Step step = rows.step();
    if (step != Query::Step::kRow) return step == Query::Step::kEnd;
    names.emplace_back(rows.cell(0));
  }
}

bool count_vectors(Store& store, const Collection& collection, std::int64_t& vectors) {
  Query count;
  if (!store.prepare("SELECT (SELECT COUNT(*) FROM AI_VECTORS"
                     "  WHERE COLLECTION = ?1 AND VECTOR IS NOT NULL)"
                     " FROM AI_MODELS WHERE COLLECTION = ?1",
                     Rights::kEngine, count) ||
      !count.bind(1, collection.name)) {
    return false;
  }
  const Query::Step step = count.step();
  if (step == Query::Step::kEnd) return fail_as_unbuilt(store, collection);
  vectors = count.integer(0);
  return step == Query::Step::kRow;
}

bool check_provider(Store& store, std::string_view provider) {
  return equal_ignoring_case(provider, kProvider) ||
         store.fail("no such provider: " + std::string(provider));
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

bool LoadedCollection::nearest(Store& store, const Collection& collection, std::string_view text,
                               std::size_t top, std::vector<Hit>& hits) {
  std::vector<Term> terms;
  add_terms(text, 1, terms);
  const std::lock_guard guard(mutex_);
  if (!refresh(store, collection)) return false;
  if (vectors_.size() == 0) return fail_as_empty(store, collection);
  if (!terms.empty()) hits = vectors_.nearest(embedding_.embed(terms), top);
  return true;
}

bool LoadedCollection::nearest(Store& store, const Collection& collection, const Vector& query,
                               std::size_t top, std::vector<Hit>& hits) {
  Vector direction = query;
  if (!normalise(direction)) return store.fail("the query is zero and has no direction");
  const std::lock_guard guard(mutex_);
  if (!refresh(store, collection)) return false;
  if (vectors_.size() == 0) return fail_as_empty(store, collection);
  hits = vectors_.nearest(direction, top);
  return true;
}

bool LoadedCollection::load(Store& store, const Collection& collection) {
  const std::lock_guard guard(mutex_);
  return refresh(store, collection);
}

Vector LoadedCollection::embed(const std::vector<Term>& terms) {
  const std::lock_guard guard(mutex_);
  return embedding_.embed(terms);
}

bool LoadedCollection::refresh(Store& store, const Collection& collection) {
  return store.transact(Transaction::kRead, [&] { return read_changes(store, collection); });
}

bool LoadedCollection::read_changes(Store& store, const Collection& collection) {
  Query model;
  if (!has_table(store, "AI_MODELS")) return fail_as_unbuilt(store, collection);
  if (!store.prepare("SELECT BUILT, DOCUMENTS FROM AI_MODELS WHERE COLLECTION = ?1",
                     Rights::kEngine, model) ||
      !model.bind(1, collection.name)) {
    return false;
  }
  const Query::Step found = model.step();
  if (found == Query::Step::kEnd) return fail_as_unbuilt(store, collection);
  if (found == Query::Step::kFailed) return false;
  const std::int64_t built = model.integer(0);
  if (built != built_ && !read_model(store, collection, built, model.integer(1))) return false;
  return read_vectors(store, collection);
}

bool LoadedCollection::read_model(Store& store, const Collection& collection, std::int64_t built,
                                  std::int64_t documents) {
  built_ = 0;
  revision_ = 0;
  embedding_ = {};
  vectors_ = {};
  Query words;
  if (!store.prepare("SELECT WORD, DOCUMENTS, VECTOR FROM AI_WORDS WHERE COLLECTION = ?1",
                     Rights::kEngine, words) ||
      !words.bind(1, collection.name)) {
    return false;
  }
  embedding_.restore(static_cast<std::uint32_t>(documents));
  for (;;) {
    const Query::Step step = words.step();
    if (step == Query::Step::kFailed) return false;
    if (step == Query::Step::kEnd) break;
    Embedding::Word word{.documents = static_cast<std::uint32_t>(words.integer(1)), .vector = {}};
    if (!read_vector(words.blob(2), word.vector)) return store.fail("AI_WORDS is damaged");
    embedding_.restore(static_cast<std::uint64_t>(words.integer(0)), word);
  }
  built_ = built;
  return true;
}

bool LoadedCollection::read_vectors(Store& store, const Collection& collection) {
  Query rows;
  if (!store.prepare("SELECT ID, REVISION, VECTOR FROM AI_VECTORS"
                     " WHERE COLLECTION = ?1 AND REVISION > ?2",
                     Rights::kEngine, rows) ||
      !rows.bind(1, collection.name) || !rows.bind(2, revision_)) {
    return false;
  }
  std::int64_t revision = revision_;
  for (;;) {
    const Query::Step step = rows.step();
    if (step == Query::Step::kFailed) return false;
    if (step == Query::Step::kEnd) break;
    revision = std::max(revision, rows.integer(1));
    const std::string_view bytes = rows.blob(2);
    Vector vector;
    if (bytes.empty()) {
      vectors_.remove(rows.integer(0));
    } else if (read_vector(bytes, vector)) {
      vectors_.put(rows.integer(0), vector);
    } else {
      return store.fail("AI_VECTORS is damaged");
    }
  }
  revision_ = revision;
  return true;
}

LoadedCollection& Collections::loaded(const std::string& name) {
  const std::lock_guard guard(mutex_);
  return loaded_[name];
}

}  // namespace kova::sample
