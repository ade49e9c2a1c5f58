#include "engine/jobs.h"

#include <algorithm>
#include <vector>

namespace kova::sample {

namespace {

constexpr int kBatch = 256;
constexpr int kFinishedKept = 1000;

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

constexpr const char* kPutVector =
    "INSERT INTO AI_VECTORS (COLLECTION, SOURCE_KEY, REVISION, VECTOR) VALUES (?1, ?2, ?3, ?4)"
    " ON CONFLICT (COLLECTION, SOURCE_KEY)"
    " DO UPDATE SET REVISION = excluded.REVISION, VECTOR = excluded.VECTOR";

struct Job {
  std::int64_t id;
  std::string collection;
  bool builds;
};

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

// Executes a changing statement whose parameters are texts.
bool execute(Store& store, const char* sql, std::initializer_list<std::string_view> texts) {
  Query query;
  if (!store.prepare(sql, Rights::kEngine, query)) return false;
  int parameter = 0;
  for (const std::string_view text : texts) {
    if (!query.bind(++parameter, text)) return false;
  }
  return query.step() == Query::Step::kEnd;
}

bool finish_job(Store& store, std::int64_t id) {
  Query done;
  return store.prepare(
             "UPDATE AI_JOBS SET STATE = 'DONE', FINISHED_AT = CURRENT_TIMESTAMP"
             " WHERE ID = ?1",
             Rights::kEngine, done) &&
         done.bind(1, id) && done.step() == Query::Step::kEnd;
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

// The build of a collection, in three passes over its source rows.
class Build {
 public:
  Build(Store& store, const Collection& collection, const BuildProgress& progress)
      : store_(store), collection_(collection), progress_(progress) {}

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

bool Build::run(std::int64_t job) {
  return learn() && store_.transact(Transaction::kChange, [&] { return write(job); });
}

bool Build::count_rows() {
  Query count;
  if (!store_.prepare("SELECT COUNT(*) FROM main." + quoted_name(collection_.source_table),
                      Rights::kEngine, count) ||
      count.step() != Query::Step::kRow) {
    return false;
  }
  rows_ = count.integer(0);
  return true;
}

bool Build::for_each_row(const std::function<bool(const Query& row)>& visit) {
  const std::string key = "S." + quoted_name(collection_.key_column);
  Query rows;
  if (!store_.prepare(select_source(collection_) + " WHERE " + key + " IS NOT NULL ORDER BY " + key,
                      Rights::kEngine, rows)) {
    return false;
  }
  for (;;) {
    const Query::Step step = rows.step();
    if (step != Query::Step::kRow) return step == Query::Step::kEnd;
    if (!visit(rows)) return false;
    // Rows may be added between the passes.
    const std::int64_t all = std::max<std::int64_t>(rows_ * kPasses, 1);
    progress_(collection_.name, static_cast<int>(std::min(100 * ++visited_ / all, 100L)));
  }
}

bool Build::learn() {
  if (!count_rows()) return false;
  const bool counted = for_each_row([&](const Query& row) {
    embedding_.count(terms_of(row, collection_));
    return true;
  });
  if (!counted) return false;
  embedding_.begin_relating();
  const bool related = for_each_row([&](const Query& row) {
    embedding_.relate(terms_of(row, collection_));
    return true;
  });
  embedding_.end_relating();
  return related;
}

bool Build::write(std::int64_t job) {
  const std::string_view name = collection_.name;
  if (!execute(store_, "DELETE FROM AI_WORDS WHERE COLLECTION = ?1", {name}) ||
      !execute(store_, "DELETE FROM AI_VECTORS WHERE COLLECTION = ?1", {name})) {
    return false;
  }
  Query model;
  if (!store_.prepare("INSERT OR REPLACE INTO AI_MODELS VALUES (?1, ?2, ?3)", Rights::kEngine,
                      model) ||
      !model.bind(1, name) || !model.bind(2, job) ||
      !model.bind(3, std::int64_t{embedding_.documents()}) || model.step() != Query::Step::kEnd) {
    return false;
  }
  return write_words() && write_vectors(job) && finish_job(store_, job);
}

bool Build::write_words() {
  Query put;
  if (!store_.prepare("INSERT INTO AI_WORDS VALUES (?1, ?2, ?3, ?4)", Rights::kEngine, put) ||
      !put.bind(1, collection_.name)) {
    return false;
  }
  for (const auto& [hash, word] : embedding_.words()) {
    put.rewind();
    if (!put.bind(2, static_cast<std::int64_t>(hash)) ||
        !put.bind(3, std::int64_t{word.documents}) ||
        !put.bind_blob(4, vector_bytes(word.vector)) || put.step() != Query::Step::kEnd) {
      return false;
    }
  }
  return true;
}

bool Build::write_vectors(std::int64_t job) {
  Query put;
  if (!store_.prepare(kPutVector, Rights::kEngine, put) || !put.bind(1, collection_.name) ||
      !put.bind(3, job)) {
    return false;
  }
  return for_each_row([&](const Query& row) {
    put.rewind();
    const Vector vector = embedding_.embed(terms_of(row, collection_));
    return put.bind_cell(2, row, 0) && put.bind_blob(4, vector_bytes(vector)) &&
           put.step() == Query::Step::kEnd;
  });
}

// Brings the vectors of changed rows in step. Runs within a transaction.
class RowJobs {
 public:
  RowJobs(Store& store, const Collection& collection, LoadedCollection& loaded)
      : store_(store), collection_(collection), loaded_(loaded) {}

  /// Runs the next jobs of the collection, those before its next build.
  [[nodiscard]] bool run();

 private:
  [[nodiscard]] bool prepare();
  [[nodiscard]] bool run_job(const Query& job);
  [[nodiscard]] bool put_vector(const Query& job);
  [[nodiscard]] bool remove_vector(const Query& job);

  Store& store_;
  const Collection& collection_;
  LoadedCollection& loaded_;
  Query source_;
  Query put_;
  Query remove_;
};

bool RowJobs::prepare() {
  const std::string source = select_source(collection_) + " WHERE S." +
                             quoted_name(collection_.key_column) + " = ?1 LIMIT 1";
  return loaded_.load(store_, collection_) && store_.prepare(source, Rights::kEngine, source_) &&
         store_.prepare(kPutVector, Rights::kEngine, put_) && put_.bind(1, collection_.name) &&
         store_.prepare(
             "UPDATE AI_VECTORS SET VECTOR = NULL, REVISION = ?3"
             " WHERE COLLECTION = ?1 AND SOURCE_KEY = ?2",
             Rights::kEngine, remove_) &&
         remove_.bind(1, collection_.name);
}

bool RowJobs::run() {
  Query jobs;
  if (!prepare() ||
      !store_.prepare("SELECT ID, SOURCE_KEY FROM AI_JOBS WHERE STATE = 'QUEUED'"
                      " AND COLLECTION = ?1 AND KIND <> 'BUILD' AND ID < COALESCE((SELECT MIN(ID)"
                      "  FROM AI_JOBS WHERE STATE = 'QUEUED' AND COLLECTION = ?1 AND"
                      "  KIND = 'BUILD'), 9223372036854775807) ORDER BY ID LIMIT ?2",
                      Rights::kEngine, jobs) ||
      !jobs.bind(1, collection_.name) || !jobs.bind(2, std::int64_t{kBatch})) {
    return false;
  }
  for (;;) {
    const Query::Step step = jobs.step();
    if (step != Query::Step::kRow) return step == Query::Step::kEnd;
    if (!run_job(jobs)) return false;
  }
}

// What has to be done is what the source says now, whatever the job's kind was.
bool RowJobs::run_job(const Query& job) {
  source_.rewind();
  if (!source_.bind_cell(1, job, 1)) return false;
  switch (source_.step()) {
    case Query::Step::kFailed:
      return false;
    case Query::Step::kEnd:
      return remove_vector(job) && finish_job(store_, job.integer(0));
    case Query::Step::kRow:
      break;
  }
  return put_vector(job) && finish_job(store_, job.integer(0));
}

bool RowJobs::put_vector(const Query& job) {
  const Vector vector = loaded_.embed(terms_of(source_, collection_));
  put_.rewind();
  return put_.bind_cell(2, source_, 0) && put_.bind(3, job.integer(0)) &&
         put_.bind_blob(4, vector_bytes(vector)) && put_.step() == Query::Step::kEnd;
}

bool RowJobs::remove_vector(const Query& job) {
  remove_.rewind();
  return remove_.bind_cell(2, job, 1) && remove_.bind(3, job.integer(0)) &&
         remove_.step() == Query::Step::kEnd;
}

// A collection that has more than doubled knows too little about its words; the oldest finished
// jobs are not kept for ever.
bool tidy_up(Store& store, const Collection& collection) {
  Query prune;
  return execute(store,
                 "INSERT INTO AI_JOBS (COLLECTION, KIND) SELECT ?1, 'BUILD' WHERE"
                 " (SELECT COUNT(*) FROM AI_VECTORS WHERE COLLECTION = ?1 AND VECTOR IS NOT NULL) >"
                 " 16 + 2 * (SELECT DOCUMENTS FROM AI_MODELS WHERE COLLECTION = ?1)"
                 " AND NOT EXISTS (SELECT 1 FROM AI_JOBS WHERE COLLECTION = ?1 AND KIND = 'BUILD'"
                 "  AND STATE = 'QUEUED')",
                 {collection.name}) &&
         store.prepare(
             "DELETE FROM AI_JOBS WHERE COLLECTION = ?1 AND STATE = 'DONE'"
             " AND KIND <> 'BUILD' AND ID < (SELECT ID FROM AI_JOBS WHERE COLLECTION = ?1"
             "  AND STATE = 'DONE' ORDER BY ID DESC LIMIT 1 OFFSET ?2)",
             Rights::kEngine, prune) &&
         prune.bind(1, collection.name) && prune.bind(2, std::int64_t{kFinishedKept}) &&
         prune.step() == Query::Step::kEnd;
}

enum class Next : std::uint8_t { kJob, kNone, kFailed };

Next next_job(Store& store, Job& job) {
  if (!has_table(store, "AI_JOBS")) return Next::kNone;
  Query next;
  if (!store.prepare("SELECT ID, COLLECTION, KIND = 'BUILD' FROM AI_JOBS WHERE STATE = 'QUEUED'"
                     " ORDER BY ID LIMIT 1",
                     Rights::kEngine, next)) {
    return Next::kFailed;
  }
  switch (next.step()) {
    case Query::Step::kFailed:
      return Next::kFailed;
    case Query::Step::kEnd:
      return Next::kNone;
    case Query::Step::kRow:
      break;
  }
  job = {.id = next.integer(0),
         .collection = std::string(next.cell(1)),
         .builds = next.integer(2) != 0};
  return Next::kJob;
}

bool run_job(Store& store, Collections& collections, const BuildProgress& progress,
             const Job& job) {
  Collection collection;
  if (!find_collection(store, job.collection, collection)) return false;
  if (job.builds) return Build(store, collection, progress).run(job.id);
  LoadedCollection& loaded = collections.loaded(collection.name);
  return store.transact(Transaction::kChange, [&] {
    return RowJobs(store, collection, loaded).run() && tidy_up(store, collection);
  });
}

// The jobs that would have run with the failed one fail with it.
bool record_failure(Store& store, const Job& job) {
  const std::string words = store.error();
  return store.transact(Transaction::kChange, [&] {
    return execute(store,
                   job.builds
                       ? "UPDATE AI_JOBS SET STATE = 'FAILED', FINISHED_AT = CURRENT_TIMESTAMP,"
                         " ERROR = ?2 WHERE COLLECTION = ?1 AND STATE = 'QUEUED'"
                         " AND KIND = 'BUILD'"
                       : "UPDATE AI_JOBS SET STATE = 'FAILED', FINISHED_AT = CURRENT_TIMESTAMP,"
                         " ERROR = ?2 WHERE COLLECTION = ?1 AND STATE = 'QUEUED'"
                         " AND KIND <> 'BUILD'",
                   {job.collection, words});
  });
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

bool run_jobs(Store& store, Collections& collections, const BuildProgress& progress) {
  if (!set_up_collections(store)) return false;
  for (;;) {
    Job job;
    const Next next = next_job(store, job);
    if (next != Next::kJob) return next == Next::kNone;
    if (run_job(store, collections, progress, job)) continue;
    if (!store.failure_lasts() || !record_failure(store, job)) return false;
  }
}

bool retry_failed_builds(Store& store) {
  return !has_table(store, "AI_JOBS") || store.transact(Transaction::kChange, [&] {
    return execute(store, "DELETE FROM AI_JOBS WHERE KIND = 'BUILD' AND STATE = 'FAILED'", {});
  });
}

}  // namespace kova::sample
