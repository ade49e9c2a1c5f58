#include "engine/job_rows.h"

namespace kova::sample {

bool execute(Store& store, const char* sql, std::initializer_list<std::string_view> texts) {
  Query query;
  if (!store.prepare(sql, Rights::kEngine, query)) return false;
  int parameter = 0;
  for (const std::string_view text : texts) {
    if (!query.bind(++parameter, text)) return false;
  }
  return query.step() == Query::Step::kEnd;
}

bool prepare_put_vector(Store& store, std::string_view collection, Query& put) {
  return store.prepare(
             "INSERT INTO AI_VECTORS (COLLECTION, SOURCE_KEY, REVISION, VECTOR)"
             " VALUES (?1, ?2, ?3, ?4) ON CONFLICT (COLLECTION, SOURCE_KEY)"
             " DO UPDATE SET REVISION = excluded.REVISION, VECTOR = excluded.VECTOR",
             Rights::kEngine, put) &&
         put.bind(1, collection);
}

bool finish_job(Store& store, std::int64_t job) {
  Query done;
  return store.prepare(
             "UPDATE AI_JOBS SET STATE = 'DONE', FINISHED_AT = CURRENT_TIMESTAMP"
             " WHERE ID = ?1",
             Rights::kEngine, done) &&
         done.bind(1, job) && done.step() == Query::Step::kEnd;
}

}  // namespace kova::sample
