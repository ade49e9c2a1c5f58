#include <string>

#include "engine/jobs.h"

#include "engine/collection_setup.h"
#include "engine/job_rows.h"

namespace kova::sample {

namespace {

constexpr int kBatch = 256;
constexpr int kFinishedKept = 1000;

struct Job {
  std::int64_t id;
  std::string collection;
  bool builds;
};

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
         prepare_put_vector(store_, collection_.name, put_) &&
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
