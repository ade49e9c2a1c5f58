#include "engine/ai/jobs.h"

#include <string>
#include <vector>

#include "engine/ai/collection.h"

namespace kova::sample {

namespace {

constexpr const char* kTables =
    "CREATE TABLE IF NOT EXISTS AI_JOBS (ID INTEGER PRIMARY KEY, COLLECTION TEXT NOT NULL,"
    " KIND TEXT NOT NULL, SOURCE_KEY, STATE TEXT NOT NULL DEFAULT 'QUEUED',"
    " QUEUED_AT TEXT NOT NULL DEFAULT CURRENT_TIMESTAMP, FINISHED_AT TEXT, ERROR TEXT);"
    "CREATE INDEX IF NOT EXISTS AI_JOBS_OPEN ON AI_JOBS (COLLECTION) WHERE STATE = 'QUEUED';"
    "CREATE INDEX IF NOT EXISTS AI_JOBS_BY_COLLECTION ON AI_JOBS (COLLECTION, STATE);"
    // What a build has learnt: from how many texts, and about which words.
    "CREATE TABLE IF NOT EXISTS AI_MODELS (COLLECTION TEXT PRIMARY KEY NOT NULL,"
    " TEXTS INTEGER NOT NULL);"
    "CREATE TABLE IF NOT EXISTS AI_WORDS (COLLECTION TEXT NOT NULL, WORD TEXT NOT NULL,"
    " TEXTS INTEGER NOT NULL, VECTOR BLOB NOT NULL, PRIMARY KEY (COLLECTION, WORD));"
    "CREATE TABLE IF NOT EXISTS AI_VECTORS (ID INTEGER PRIMARY KEY, COLLECTION TEXT NOT NULL,"
    " SOURCE_KEY NOT NULL, VECTOR BLOB NOT NULL, UNIQUE (COLLECTION, SOURCE_KEY));";

constexpr const char* kNewDefinitions =
    "SELECT NAME, 'BUILD' FROM AI_COLLECTIONS WHERE NAME NOT IN"
    " (SELECT COLLECTION FROM AI_JOBS WHERE KIND = 'BUILD')";

// So many finished jobs are kept, beside the builds.
constexpr const char* kPrune =
    "DELETE FROM AI_JOBS WHERE COLLECTION = ?1 AND STATE = 'DONE' AND KIND <> 'BUILD'"
    " AND ID <= (SELECT MAX(ID) FROM AI_JOBS) - 1000";

constexpr const char* kPutVector =
    "INSERT INTO AI_VECTORS (COLLECTION, SOURCE_KEY, VECTOR) VALUES (?1, ?2, ?3)"
    " ON CONFLICT (COLLECTION, SOURCE_KEY) DO UPDATE SET VECTOR = excluded.VECTOR";

// In it @NAME stands for the collection's name as a literal, the other marks for quoted names.
constexpr const char* kTriggersAndView =
    "CREATE TRIGGER IF NOT EXISTS @INSERTED AFTER INSERT ON @TABLE BEGIN"
    " INSERT INTO AI_JOBS (COLLECTION, KIND, SOURCE_KEY) VALUES (@NAME, 'INSERT', NEW.@KEY); END;"
    "CREATE TRIGGER IF NOT EXISTS @UPDATED AFTER UPDATE ON @TABLE BEGIN"
    " INSERT INTO AI_JOBS (COLLECTION, KIND, SOURCE_KEY)"
    "  SELECT @NAME, 'DELETE', OLD.@KEY WHERE OLD.@KEY IS NOT NEW.@KEY;"
    " INSERT INTO AI_JOBS (COLLECTION, KIND, SOURCE_KEY) VALUES (@NAME, 'UPDATE', NEW.@KEY); END;"
    "CREATE TRIGGER IF NOT EXISTS @DELETED AFTER DELETE ON @TABLE BEGIN"
    " INSERT INTO AI_JOBS (COLLECTION, KIND, SOURCE_KEY) VALUES (@NAME, 'DELETE', OLD.@KEY); END;"
    "CREATE VIEW IF NOT EXISTS @VECTORS AS SELECT SOURCE_KEY, vector_text(VECTOR) AS VECTOR"
    " FROM AI_VECTORS WHERE COLLECTION = @NAME;";

std::string replaced(std::string text, std::string_view mark, std::string_view with) {
  for (std::size_t at = 0; (at = text.find(mark, at)) != std::string::npos; at += with.size()) {
    text.replace(at, mark.size(), with);
  }
  return text;
}

std::string triggers_and_view(const Collection& collection) {
  const std::string own = "AI_" + collection.name;
  std::string script = kTriggersAndView;
  script = replaced(script, "@INSERTED", quoted_name(own + "_INSERTED"));
  script = replaced(script, "@UPDATED", quoted_name(own + "_UPDATED"));
  script = replaced(script, "@DELETED", quoted_name(own + "_DELETED"));
  script = replaced(script, "@VECTORS", quoted_name(collection.name + "_VECTORS"));
  script = replaced(script, "@TABLE", quoted_name(collection.source_table));
  script = replaced(script, "@KEY", quoted_name(collection.key_column));
  return replaced(script, "@NAME", "'" + replaced(collection.name, "'", "''") + "'");
}

void execute(Store& store, const char* sql, std::string_view collection) {
  store.prepare(sql).bind(1, collection).run();
}

/// Runs the queued jobs of one collection, within a transaction.
class Jobs {
 public:
  Jobs(Store& store, const std::string& name)
      : store_(store), collection_(find_collection(store, name)) {}

  void run(const BuildProgress& progress);

 private:
  [[nodiscard]] bool build_is_queued();
  void build(const BuildProgress& progress);
  [[nodiscard]] std::vector<std::vector<Term>> read_texts(const std::string& source);
  void write_model(const Model& model);
  void update_rows();

  Store& store_;
  Collection collection_;
};

void Jobs::run(const BuildProgress& progress) {
  check_provider(collection_.provider);
  // A build reads all rows and with them those that have changed.
  if (build_is_queued()) {
    build(progress);
  } else {
    update_rows();
  }
  execute(store_,
          "UPDATE AI_JOBS SET STATE = 'DONE', FINISHED_AT = CURRENT_TIMESTAMP"
          " WHERE COLLECTION = ?1 AND STATE = 'QUEUED'",
          collection_.name);
  execute(store_, kPrune, collection_.name);
}

bool Jobs::build_is_queued() {
  Query build = store_.prepare(
      "SELECT 1 FROM AI_JOBS WHERE COLLECTION = ?1 AND STATE = 'QUEUED' AND KIND = 'BUILD'");
  return build.bind(1, collection_.name).step();
}

void Jobs::build(const BuildProgress& progress) {
  const std::string key = "S." + quoted_name(collection_.key_column);
  const std::string source =
      select_source(collection_) + " WHERE " + key + " IS NOT NULL ORDER BY " + key;
  const std::vector<std::vector<Term>> texts = read_texts(source);
  store_.run(triggers_and_view(collection_).c_str());
  const Model model = learn(texts);
  write_model(model);
  execute(store_, "DELETE FROM AI_VECTORS WHERE COLLECTION = ?1", collection_.name);
  Query put = store_.prepare(kPutVector);
  put.bind(1, collection_.name);
  Query rows = store_.prepare(source);
  for (std::size_t row = 0; row < texts.size() && rows.step(); ++row) {
    const Vector vector = embed(texts[row], model);
    put.bind_cell(2, rows, 0).bind_blob(3, vector_bytes(vector)).run();
    if (progress) progress(collection_.name, static_cast<int>(100 * (row + 1) / texts.size()));
  }
}

std::vector<std::vector<Term>> Jobs::read_texts(const std::string& source) {
  std::vector<std::vector<Term>> texts;
  Query rows = store_.prepare(source, Rights::kRead);
  while (rows.step()) texts.push_back(terms_of(rows, collection_));
  return texts;
}

void Jobs::write_model(const Model& model) {
  execute(store_, "DELETE FROM AI_WORDS WHERE COLLECTION = ?1", collection_.name);
  Query put = store_.prepare("INSERT INTO AI_WORDS VALUES (?1, ?2, ?3, ?4)");
  put.bind(1, collection_.name);
  for (const auto& [name, word] : model.words) {
    put.bind(2, name).bind(3, std::int64_t{word.texts}).bind_blob(4, vector_bytes(word.vector));
    put.run();
  }
  Query put_texts = store_.prepare("INSERT OR REPLACE INTO AI_MODELS VALUES (?1, ?2)");
  put_texts.bind(1, collection_.name).bind(2, std::int64_t{model.texts}).run();
}

// Embeds the rows that have changed as they are now, whatever kind of change it was.
void Jobs::update_rows() {
  StoredModel model(store_, collection_);
  Query source = store_.prepare(select_source(collection_) + " WHERE S." +
                                quoted_name(collection_.key_column) + " = ?1 LIMIT 1");
  Query put = store_.prepare(kPutVector);
  Query remove = store_.prepare("DELETE FROM AI_VECTORS WHERE COLLECTION = ?1 AND SOURCE_KEY = ?2");
  Query jobs = store_.prepare(
      "SELECT DISTINCT SOURCE_KEY FROM AI_JOBS WHERE COLLECTION = ?1 AND STATE = 'QUEUED'");
  put.bind(1, collection_.name);
  remove.bind(1, collection_.name);
  jobs.bind(1, collection_.name);
  while (jobs.step()) {
    source.rewind();
    if (source.bind_cell(1, jobs, 0).step()) {
      const Vector vector = model.embed(terms_of(source, collection_));
      put.bind_cell(2, source, 0).bind_blob(3, vector_bytes(vector)).run();
    } else {
      remove.bind_cell(2, jobs, 0).run();
    }
  }
}

void queue_builds(Store& store) {
  const bool has_tables = store.has_table("AI_VECTORS");
  if (has_tables && !store.has_row(kNewDefinitions)) return;
  store.transact(Transaction::kChange, [&] {
    if (!has_tables) store.run(kTables);
    store.prepare(std::string("INSERT INTO AI_JOBS (COLLECTION, KIND) ") + kNewDefinitions).run();
  });
}

std::vector<std::string> collections_with_jobs(Store& store) {
  std::vector<std::string> names;
  Query rows = store.prepare(
      "SELECT DISTINCT COLLECTION FROM AI_JOBS WHERE STATE = 'QUEUED' ORDER BY COLLECTION");
  while (rows.step()) names.emplace_back(rows.cell(0));
  return names;
}

void record_failure(Store& store, std::string_view collection, const char* message) {
  store.transact(Transaction::kChange, [&] {
    store
        .prepare(
            "UPDATE AI_JOBS SET STATE = 'FAILED', FINISHED_AT = CURRENT_TIMESTAMP, ERROR = ?2"
            " WHERE COLLECTION = ?1 AND STATE = 'QUEUED'")
        .bind(1, collection)
        .bind(2, message)
        .run();
  });
}

void forget_failed_builds(Store& store) {
  constexpr const char* kFailed = " FROM AI_JOBS WHERE KIND = 'BUILD' AND STATE = 'FAILED'";
  if (!store.has_table("AI_JOBS") || !store.has_row(std::string("SELECT 1") + kFailed)) return;
  store.transact(Transaction::kChange,
                 [&] { store.prepare(std::string("DELETE") + kFailed).run(); });
}

}  // namespace

void bring_up_to_date(Store& store, Retry retry, const BuildProgress& progress) {
  if (!store.has_table("AI_COLLECTIONS")) return;
  if (retry == Retry::kFailedBuilds) forget_failed_builds(store);
  queue_builds(store);
  for (const std::string& name : collections_with_jobs(store)) {
    try {
      store.transact(Transaction::kChange, [&] { Jobs(store, name).run(progress); });
    } catch (const PassingFailure&) {
      throw;
    } catch (const Failure& failure) {
      record_failure(store, name, failure.what());
    }
  }
}

bool try_to_bring_up_to_date(Store& store, Retry retry) {
  try {
    bring_up_to_date(store, retry);
    return true;
  } catch (const Failure&) {
    return false;
  }
}

}  // namespace kova::sample
