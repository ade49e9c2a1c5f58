#include "engine/ai_statements.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <string>
#include <vector>

#include "base/ascii.h"
#include "engine/collections.h"
#include "engine/statement_text.h"

namespace kova::sample {

namespace {

constexpr std::size_t kMostHits = 1000;

constexpr const char* kHits =
    "SELECT H.key + 1 AS RANK, json_extract(H.value, '$[1]') AS SCORE, V.ID AS VECTOR_ID,"
    " V.SOURCE_KEY AS SOURCE_KEY FROM json_each(?1) AS H JOIN AI_VECTORS AS V"
    " ON V.ID = json_extract(H.value, '$[0]') ORDER BY H.key";

struct Search {
  std::string_view collection;
  bool by_text;
  std::string text;
  std::string_view vector;  ///< what stands between the brackets
  std::size_t top;
  std::string_view temporary;  ///< empty: the hits are the answer
};

// Takes "[...]".
bool take_list(std::string_view& rest, std::string_view& list) {
  rest = trimmed(rest);
  const std::size_t end = rest.find(']');
  if (!rest.starts_with('[') || end == std::string_view::npos) return false;
  list = rest.substr(1, end - 1);
  rest.remove_prefix(end + 1);
  return true;
}

bool take_query(std::string_view& rest, Search& search) {
  const std::string_view kind = take_word(rest);
  search.by_text = equal_ignoring_case(kind, "text");
  if (search.by_text) return take_literal(rest, search.text);
  return equal_ignoring_case(kind, "query") && take_list(rest, search.vector);
}

bool take_temporary(std::string_view rest, Search& search) {
  if (trimmed(rest).empty()) return true;
  return take_keyword(rest, "into") && take_keyword(rest, "temp") &&
         take_last_word(rest, search.temporary);
}

bool parse_search(std::string_view rest, Search& search, std::string_view& top) {
  rest = unterminated(rest);
  if (!take_keyword(rest, "ai")) return false;
  search.collection = take_word(rest);
  if (search.collection.empty() || !take_query(rest, search) || !take_keyword(rest, "top")) {
    return false;
  }
  top = take_word(rest);
  return !top.empty() && take_temporary(rest, search);
}

template <typename Number>
bool parse_number(std::string_view text, Number& number) {
  text = trimmed(text);
  const char* end = text.data() + text.size();
  const auto [stop, failure] = std::from_chars(text.data(), end, number);
  return failure == std::errc() && stop == end;
}

bool read_elements(Store& store, std::string_view list, std::vector<float>& elements) {
  if (trimmed(list).empty()) return true;
  for (;;) {
    const std::size_t comma = std::min(list.find(','), list.size());
    float element = 0;
    if (!parse_number(list.substr(0, comma), element) || !std::isfinite(element)) {
      return store.fail("element " + std::to_string(elements.size() + 1) +
                        " of the query is no number");
    }
    elements.push_back(element);
    if (comma == list.size()) return true;
    list.remove_prefix(comma + 1);
  }
}

bool read_query(Store& store, const Collection& collection, std::string_view list, Vector& query) {
  std::vector<float> elements;
  if (!read_elements(store, list, elements)) return false;
  if (elements.size() != query.size()) {
    return store.fail("the query has " + std::to_string(elements.size()) +
                      " elements, collection " + collection.name + " has " +
                      std::to_string(query.size()));
  }
  std::copy(elements.begin(), elements.end(), query.begin());
  return true;
}

bool find_hits(Session& session, Store& store, const Search& search, std::vector<Hit>& hits) {
  Collection collection;
  if (!find_collection(store, search.collection, collection) ||
      !check_provider(store, collection.provider)) {
    return false;
  }
  LoadedCollection& loaded = session.collections().loaded(collection.name);
  if (search.by_text) return loaded.nearest(store, collection, search.text, search.top, hits);
  Vector query;
  return read_query(store, collection, search.vector, query) &&
         loaded.nearest(store, collection, query, search.top, hits);
}

// "[[id,score],...]", the scores with six decimals.
std::string json_of(const std::vector<Hit>& hits) {
  std::string json = "[";
  for (const Hit& hit : hits) {
    char score[32];
    const auto end = std::to_chars(std::begin(score), std::end(score),
                                   static_cast<double>(hit.score), std::chars_format::fixed, 6)
                         .ptr;
    if (json.size() > 1) json += ',';
    json += '[' + std::to_string(hit.id) + ',';
    json.append(score, end) += ']';
  }
  return json + ']';
}

Outcome answer_hits(Store& store, std::string_view hits) {
  Outcome outcome = succeeded("OK");
  if (!store.prepare(kHits, Rights::kEngine, outcome.query) || !outcome.query.bind(1, hits)) {
    return failed(store.error());
  }
  return outcome;
}

Outcome keep_hits(Session& session, Store& store, std::string_view table, std::string_view hits) {
  const std::string sql = "CREATE TEMP TABLE " + quoted_name(table) + " AS " + kHits;
  const bool kept = store.transact(Transaction::kTemporary, [&] {
    Query create;
    return store.prepare(sql, Rights::kEngine, create) && create.bind(1, hits) &&
           create.step() == Query::Step::kEnd;
  });
  session.count_temporary_tables();
  return kept ? succeeded("OK") : failed(store.error());
}

Outcome query_for(Store& store, const std::string& sql, std::string_view name) {
  Outcome outcome = succeeded("OK");
  if (!store.prepare(sql, Rights::kEngine, outcome.query) || !outcome.query.bind(1, name)) {
    return failed(store.error());
  }
  return outcome;
}

Outcome show_status(Session& session, Store& store, const Collection& collection) {
  const std::string sql =
      "WITH C AS (SELECT * FROM AI_COLLECTIONS WHERE NAME = ?1),"
      " V AS (SELECT COUNT(*) AS N FROM AI_VECTORS WHERE COLLECTION = ?1 AND VECTOR IS NOT NULL),"
      " J AS (SELECT COALESCE(SUM(STATE = 'QUEUED'), 0) AS QUEUED,"
      "  COALESCE(SUM(STATE = 'FAILED'), 0) AS FAILED,"
      "  COALESCE(SUM(KIND = 'BUILD' AND STATE = 'FAILED'), 0) AS UNBUILT"
      "  FROM AI_JOBS WHERE COLLECTION = ?1)"
      "SELECT C.NAME AS COLLECTION, CASE WHEN UNBUILT THEN 'FAILED'"
      "  WHEN ?1 NOT IN (SELECT COLLECTION FROM AI_MODELS) THEN 'BUILDING'"
      "  WHEN QUEUED THEN 'UPDATING' WHEN V.N = 0 THEN 'EMPTY' ELSE 'READY' END AS STATE,"
      " V.N AS VECTORS, " +
      std::to_string(kDimension) +
      " AS DIMENSION, 'COSINE' AS METRIC, PROVIDER, SOURCE_TABLE, KEY_COLUMN, TEXT_COLUMNS,"
      " QUEUED AS QUEUED_JOBS, FAILED AS FAILED_JOBS, " +
      std::to_string(session.collections().temporary_tables) + " AS TEMPORARY_TABLES FROM C, V, J";
  return query_for(store, sql, collection.name);
}

Outcome show_jobs(Store& store, const Collection& collection) {
  return query_for(store,
                   "SELECT ID AS JOB, KIND, SOURCE_KEY, STATE, QUEUED_AT, FINISHED_AT, ERROR"
                   " FROM AI_JOBS WHERE COLLECTION = ?1 ORDER BY ID DESC",
                   collection.name);
}

Outcome show_provider(Store& store, std::string_view name) {
  if (!check_provider(store, name)) return failed(store.error());
  return query_for(store,
                   "SELECT upper(?1) AS PROVIDER, 'READY' AS STATE,"
                   " 'hashed words and pieces, TF-IDF, random indexing' AS METHOD, " +
                       std::to_string(kDimension) + " AS DIMENSION, 'NO' AS REMOTE",
                   name);
}

// What SHOW AI shows.
struct Shown {
  enum class Kind : std::uint8_t { kStatus, kJobs, kProvider } kind;
  std::string_view name;
};

bool parse_show(std::string_view rest, Shown& shown) {
  rest = unterminated(rest);
  if (!take_keyword(rest, "ai")) return false;
  const std::string_view kind = take_word(rest);
  if (equal_ignoring_case(kind, "status")) {
    shown.kind = Shown::Kind::kStatus;
  } else if (equal_ignoring_case(kind, "jobs") && take_keyword(rest, "for")) {
    shown.kind = Shown::Kind::kJobs;
  } else if (equal_ignoring_case(kind, "provider")) {
    shown.kind = Shown::Kind::kProvider;
  } else {
    return false;
  }
  return take_last_word(rest, shown.name);
}

}  // namespace

Outcome run_search(Session& session, std::string_view rest) {
  Search search{};
  std::string_view top;
  if (!parse_search(rest, search, top)) {
    return failed(
        "expected: search ai NAME text '...' top N; or search ai NAME query [...] top N;"
        " and into temp NAME at its end, or not");
  }
  if (!parse_number(top, search.top) || search.top < 1 || search.top > kMostHits) {
    return failed("top must be 1 to " + std::to_string(kMostHits));
  }
  std::string error;
  Store* store = session.store(error);
  if (store == nullptr) return failed(error);
  std::vector<Hit> hits;
  if (!find_hits(session, *store, search, hits)) return failed(store->error());
  const std::string json = json_of(hits);
  return search.temporary.empty() ? answer_hits(*store, json)
                                  : keep_hits(session, *store, search.temporary, json);
}

Outcome run_show(Session& session, std::string_view rest) {
  Shown shown{};
  if (!parse_show(rest, shown)) {
    return failed(
        "expected: show ai status NAME; show ai jobs for NAME;"
        " or show ai provider NAME;");
  }
  std::string error;
  Store* store = session.store(error);
  if (store == nullptr) return failed(error);
  if (shown.kind == Shown::Kind::kProvider) return show_provider(*store, shown.name);
  Collection collection;
  if (!find_collection(*store, shown.name, collection)) return failed(store->error());
  if (!has_table(*store, "AI_VECTORS")) {
    return failed("collection " + collection.name + " is still being built");
  }
  return shown.kind == Shown::Kind::kStatus ? show_status(session, *store, collection)
                                            : show_jobs(*store, collection);
}

}  // namespace kova::sample
