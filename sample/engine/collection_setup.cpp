#include "engine/collection_setup.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "engine/collections.h"
#include "engine/job_rows.h"

namespace kova::sample {

namespace {

constexpr const char* kTables =
    "CREATE TABLE IF NOT EXISTS AI_JOBS (ID INTEGER PRIMARY KEY, COLLECTION TEXT NOT NULL,"
    " KIND TEXT NOT NULL, SOURCE_KEY, STATE TEXT NOT NULL DEFAULT 'QUEUED',"
    " QUEUED_AT TEXT NOT NULL DEFAULT CURRENT_TIMESTAMP, FINISHED_AT TEXT, ERROR TEXT);"
    "CREATE INDEX IF NOT EXISTS AI_JOBS_OPEN ON AI_JOBS (ID) WHERE STATE = 'QUEUED';"
    "CREATE INDEX IF NOT EXISTS AI_JOBS_BY_COLLECTION ON AI_JOBS (COLLECTION, STATE);"
    // What a build has learnt: the texts it has seen, the words in them.
    "CREATE TABLE IF NOT EXISTS AI_MODELS (COLLECTION TEXT PRIMARY KEY NOT NULL,"
    " BUILT INTEGER NOT NULL, DOCUMENTS INTEGER NOT NULL);"
    "CREATE TABLE IF NOT EXISTS AI_WORDS (COLLECTION TEXT NOT NULL, WORD INTEGER NOT NULL,"
    " DOCUMENTS INTEGER NOT NULL, VECTOR BLOB NOT NULL);"
    "CREATE INDEX IF NOT EXISTS AI_WORDS_BY_COLLECTION ON AI_WORDS (COLLECTION);"
    // REVISION is the job that has written the row; of a deleted row a null VECTOR stays.
    "CREATE TABLE IF NOT EXISTS AI_VECTORS (ID INTEGER PRIMARY KEY, COLLECTION TEXT NOT NULL,"
    " SOURCE_KEY NOT NULL, REVISION INTEGER NOT NULL, VECTOR BLOB,"
    " UNIQUE (COLLECTION, SOURCE_KEY));"
    "CREATE INDEX IF NOT EXISTS AI_VECTORS_BY_REVISION ON AI_VECTORS (COLLECTION, REVISION);"
    "CREATE INDEX IF NOT EXISTS AI_VECTORS_PRESENT ON AI_VECTORS (COLLECTION)"
    " WHERE VECTOR IS NOT NULL;";

std::string replaced(std::string text, std::string_view mark, std::string_view with) {
  for (std::size_t at = 0; (at = text.find(mark, at)) != std::string::npos; at += with.size()) {
    text.replace(at, mark.size(), with);
  }
  return text;
}

// The collection's names are its own; a name that is no plain word is never found by a statement.
std::string set_up_script(const Collection& collection) {
  constexpr const char* kScript =
      "CREATE TRIGGER IF NOT EXISTS @INSERTED AFTER INSERT ON @TABLE BEGIN"
      " INSERT INTO AI_JOBS (COLLECTION, KIND, SOURCE_KEY) VALUES (@NAME, 'INSERT', NEW.@KEY); END;"
      "CREATE TRIGGER IF NOT EXISTS @UPDATED AFTER UPDATE ON @TABLE BEGIN"
      " INSERT INTO AI_JOBS (COLLECTION, KIND, SOURCE_KEY)"
      "  SELECT @NAME, 'DELETE', OLD.@KEY WHERE OLD.@KEY IS NOT NEW.@KEY;"
      " INSERT INTO AI_JOBS (COLLECTION, KIND, SOURCE_KEY) VALUES (@NAME, 'UPDATE', NEW.@KEY); END;"
      "CREATE TRIGGER IF NOT EXISTS @DELETED AFTER DELETE ON @TABLE BEGIN"
      " INSERT INTO AI_JOBS (COLLECTION, KIND, SOURCE_KEY) VALUES (@NAME, 'DELETE', OLD.@KEY); END;"
      "CREATE VIEW IF NOT EXISTS @VECTORS AS SELECT SOURCE_KEY, vector_text(VECTOR) AS VECTOR"
      " FROM AI_VECTORS WHERE COLLECTION = @NAME AND VECTOR IS NOT NULL;"
      "INSERT INTO AI_JOBS (COLLECTION, KIND) SELECT @NAME, 'BUILD' WHERE NOT EXISTS"
      " (SELECT 1 FROM AI_JOBS WHERE COLLECTION = @NAME AND KIND = 'BUILD');";
  std::string script = kScript;
  const std::string own = "AI_" + collection.name;
  script = replaced(script, "@INSERTED", quoted_name(own + "_INSERTED"));
  script = replaced(script, "@UPDATED", quoted_name(own + "_UPDATED"));
  script = replaced(script, "@DELETED", quoted_name(own + "_DELETED"));
  script = replaced(script, "@VECTORS", quoted_name(collection.name + "_VECTORS"));
  script = replaced(script, "@TABLE", quoted_name(collection.source_table));
  script = replaced(script, "@KEY", quoted_name(collection.key_column));
  return replaced(script, "@NAME", "'" + replaced(collection.name, "'", "''") + "'");
}

bool record_failed_build(Store& store, const std::string& collection) {
  const std::string words = store.error();
  return store.transact(Transaction::kChange, [&] {
    return execute(store,
                   "INSERT INTO AI_JOBS (COLLECTION, KIND, STATE, FINISHED_AT, ERROR)"
                   " VALUES (?1, 'BUILD', 'FAILED', CURRENT_TIMESTAMP, ?2)",
                   {collection, words});
  });
}

bool check_definition(Store& store, const std::string& name, Collection& collection) {
  Query source;
  return find_collection(store, name, collection) && check_provider(store, collection.provider) &&
         store.prepare(select_source(collection), Rights::kRead, source);
}

bool set_up(Store& store, const std::string& name) {
  Collection collection;
  const bool done = check_definition(store, name, collection) &&
                    store.transact(Transaction::kChange,
                                   [&] { return store.run(set_up_script(collection).c_str()); });
  if (done) return true;
  return store.failure_lasts() && record_failed_build(store, name);
}

bool names_to_set_up(Store& store, std::vector<std::string>& names) {
  Query rows;
  if (!store.prepare("SELECT NAME FROM AI_COLLECTIONS WHERE NAME NOT IN"
                     " (SELECT COLLECTION FROM AI_JOBS WHERE KIND = 'BUILD') ORDER BY NAME",
                     Rights::kEngine, rows)) {
    return false;
  }
  for (;;) {
    const Query::Step step = rows.step();
    if (step != Query::Step::kRow) return step == Query::Step::kEnd;
    names.emplace_back(rows.cell(0));
  }
}

}  // namespace

bool set_up_collections(Store& store) {
  if (!has_table(store, "AI_COLLECTIONS")) return true;
  if (!has_table(store, "AI_VECTORS") &&
      !store.transact(Transaction::kChange, [&] { return store.run(kTables); })) {
    return false;
  }
  std::vector<std::string> names;
  if (!names_to_set_up(store, names)) return false;
  return std::all_of(names.begin(), names.end(),
                     [&](const std::string& name) { return set_up(store, name); });
}

}  // namespace kova::sample
