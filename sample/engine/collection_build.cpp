#include "engine/collection_build.h"

#include <algorithm>
#include <string>

#include "engine/job_rows.h"

namespace kova::sample {

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
  if (!prepare_put_vector(store_, collection_.name, put) || !put.bind(3, job)) return false;
  return for_each_row([&](const Query& row) {
    put.rewind();
    const Vector vector = embedding_.embed(terms_of(row, collection_));
    return put.bind_cell(2, row, 0) && put.bind_blob(4, vector_bytes(vector)) &&
           put.step() == Query::Step::kEnd;
  });
}

}  // namespace kova::sample
