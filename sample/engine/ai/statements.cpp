#include "engine/ai/statements.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string>
#include <vector>

#include "base/ascii.h"
#include "engine/ai/collection.h"
#include "engine/ai/jobs.h"
#include "engine/statement_text.h"

namespace kova::sample {

namespace {

constexpr std::int64_t kTopLimit = 1000;

constexpr const char* kHits =
    "SELECT row_number() OVER (ORDER BY EXACT DESC, ID) AS RANK, round(EXACT, 6) AS SCORE,"
    " ID AS VECTOR_ID, SOURCE_KEY"
    " FROM (SELECT ID, SOURCE_KEY, vector_score(VECTOR, ?2) AS EXACT FROM AI_VECTORS"
    "  WHERE COLLECTION = ?1 ORDER BY EXACT DESC, ID LIMIT ?3) ORDER BY RANK";

struct Search {
  std::string_view collection;
  bool by_text = false;
  std::string text;
  std::string_view vector;  ///< what stands between the brackets
  std::int64_t top = 0;
  std::string_view temporary;  ///< the table for the hits; empty: they are the result
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

template <typename Number>
bool parse_number(std::string_view text, Number& number) {
  text = trimmed(text);
  const char* end = text.data() + text.size();
  const auto [stop, failure] = std::from_chars(text.data(), end, number);
  return failure == std::errc() && stop == end;
}

Search parse_search(std::string_view rest) {
  Search search;
  std::string_view top;
  rest = unterminated(rest);
  bool parsed = take_keyword(rest, "ai");
  if (parsed) search.collection = take_word(rest);
  parsed =
      parsed && !search.collection.empty() && take_query(rest, search) && take_keyword(rest, "top");
  if (parsed) top = take_word(rest);
  if (!parsed || top.empty() || !take_temporary(rest, search)) {
    throw Failure(
        "expected: search ai NAME text '...' top N; or search ai NAME query [...] top N;"
        " and into temp NAME at its end, or not");
  }
  if (!parse_number(top, search.top) || search.top < 1 || search.top > kTopLimit) {
    throw Failure("top must be 1 to " + std::to_string(kTopLimit));
  }
  return search;
}

std::vector<float> parse_elements(std::string_view list) {
  std::vector<float> elements;
  bool more = !trimmed(list).empty();
  while (more) {
    const std::size_t comma = std::min(list.find(','), list.size());
    float element = 0;
    if (!parse_number(list.substr(0, comma), element) || !std::isfinite(element)) {
      throw Failure("element " + std::to_string(elements.size() + 1) +
                    " of the query is no number");
    }
    elements.push_back(element);
    more = comma < list.size();
    if (more) list.remove_prefix(comma + 1);
  }
  return elements;
}

Vector parse_vector(std::string_view list, const Collection& collection) {
  const std::vector<float> elements = parse_elements(list);
  Vector vector;
  if (elements.size() != vector.size()) {
    throw Failure("the query has " + std::to_string(elements.size()) + " elements, collection " +
                  collection.name + " has " + std::to_string(vector.size()));
  }
  std::copy(elements.begin(), elements.end(), vector.begin());
  if (!normalise(vector)) throw Failure("the query is zero and has no direction");
  return vector;
}

// The SQL of the hits with its parameters bound. A text without words has no hits.
Query prepare_hits(Store& store, Search& search, const std::string& sql) {
  const Collection collection = find_collection(store, search.collection);
  check_provider(collection.provider);
  Vector vector;
  if (search.by_text) {
    std::vector<Term> terms;
    add_terms(search.text, 1, terms);
    if (terms.empty()) search.top = 0;
    vector = StoredModel(store, collection).embed(terms);
  } else {
    vector = parse_vector(search.vector, collection);
  }
  check_not_empty(store, collection);
  Query hits = store.prepare(sql);
  hits.bind(1, collection.name).bind_blob(2, vector_bytes(vector)).bind(3, search.top);
  return hits;
}

Outcome query_for(Store& store, const std::string& sql, std::string_view name) {
  Query query = store.prepare(sql);
  query.bind(1, name);
  return {.query = std::move(query)};
}

Outcome show_status(Session& session, Store& store, const Collection& collection) {
  const std::string sql =
      "WITH C AS (SELECT * FROM AI_COLLECTIONS WHERE NAME = ?1),"
      " V AS (SELECT COUNT(*) AS N FROM AI_VECTORS WHERE COLLECTION = ?1),"
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
      std::to_string(session.all_temporary_tables()) + " AS TEMPORARY_TABLES FROM C, V, J";
  return query_for(store, sql, collection.name);
}

Outcome show_jobs(Store& store, const Collection& collection) {
  return query_for(store,
                   "SELECT ID AS JOB, KIND, SOURCE_KEY, STATE, QUEUED_AT, FINISHED_AT, ERROR"
                   " FROM AI_JOBS WHERE COLLECTION = ?1 ORDER BY ID DESC",
                   collection.name);
}

Outcome show_provider(Store& store, std::string_view name) {
  check_provider(name);
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

bool take_shown(std::string_view rest, Shown& shown) {
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
  Search search = parse_search(rest);
  Store& store = session.store();
  static_cast<void>(try_to_bring_up_to_date(store));
  if (search.temporary.empty()) {
    Query hits = prepare_hits(store, search, kHits);
    // The first row takes all of the work; a block of rows would end after so slow a row.
    hits.step_ahead();
    return {.query = std::move(hits)};
  }
  const std::string create = "CREATE TEMP TABLE " + quoted_name(search.temporary) + " AS " + kHits;
  store.transact(Transaction::kTemporary, [&] { prepare_hits(store, search, create).run(); });
  session.count_temporary_tables(1);
  return {};
}

Outcome run_show(Session& session, std::string_view rest) {
  Shown shown{};
  if (!take_shown(rest, shown)) {
    throw Failure(
        "expected: show ai status NAME; show ai jobs for NAME; or show ai provider NAME;");
  }
  Store& store = session.store();
  if (shown.kind == Shown::Kind::kProvider) return show_provider(store, shown.name);
  static_cast<void>(try_to_bring_up_to_date(store));
  const Collection collection = find_collection(store, shown.name);
  if (!store.has_table("AI_VECTORS")) {
    throw Failure("collection " + collection.name + " is still being built");
  }
  return shown.kind == Shown::Kind::kStatus ? show_status(session, store, collection)
                                            : show_jobs(store, collection);
}

}  // namespace kova::sample
