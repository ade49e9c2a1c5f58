#include "engine/embed_mode.h"

#include <unistd.h>

#include <atomic>
#include <memory>
#include <vector>

#include "engine/databases.h"
#include "engine/jobs.h"
#include "platform/console.h"

namespace kova::sample {

namespace {

constexpr int kStep = 20;

// A line that is rewritten in place on a terminal; elsewhere a line every twenty percent.
class ProgressLine {
 public:
  explicit ProgressLine(std::string database) : database_(std::move(database)) {}

  void show(std::string_view collection, int percent) {
    const int step = terminal_ ? percent : percent / kStep * kStep;
    if (step == shown_) return;
    shown_ = step;
    std::string line = terminal_ ? "\r" : "";
    line += "embedding " + database_ + ".";
    line.append(collection).append(": " + std::to_string(step) + "%");
    write_stderr(line + (terminal_ ? "" : "\n"));
  }

  void finish() {
    if (terminal_ && shown_ >= 0) write_stderr("\r\x1b[K");
  }

 private:
  std::string database_;
  bool terminal_ = ::isatty(STDERR_FILENO) == 1;
  int shown_ = -1;
};

bool print_failure(const std::string& subject, const Store& store) {
  write_stdout(subject + ": " + store.error() + "\n");
  return false;
}

bool print_collection(Store& store, const std::string& database, const std::string& name) {
  const std::string subject = database + "." + name;
  Collection collection;
  std::int64_t vectors = 0;
  if (!find_collection(store, name, collection) || !count_vectors(store, collection, vectors)) {
    return print_failure(subject, store);
  }
  write_stdout(subject + ": " + std::to_string(vectors) +
               (vectors == 1 ? " vector\n" : " vectors\n"));
  return true;
}

bool embed_database(Databases& databases, const std::string& database, ClientWatch& nobody) {
  std::string error;
  const std::shared_ptr<Store> store = Store::open(databases.path_of(database), nobody, error);
  if (store == nullptr) {
    write_stdout(database + ": " + error + "\n");
    return false;
  }
  Collections collections;
  ProgressLine line(database);
  const bool done = retry_failed_builds(*store) &&
                    run_jobs(*store, collections,
                             [&](std::string_view name, int percent) { line.show(name, percent); });
  line.finish();
  std::vector<std::string> names;
  if (!done || !collection_names(*store, names)) return print_failure(database, *store);
  bool all = true;
  for (const std::string& name : names) all = print_collection(*store, database, name) && all;
  return all;
}

}  // namespace

bool embed_collections(const std::string& folder) {
  Databases databases(folder);
  const std::atomic<bool> never = false;
  ClientWatch nobody(-1, never);
  bool all = true;
  for (const std::string& name : databases.names()) {
    all = embed_database(databases, name, nobody) && all;
  }
  return all;
}

}  // namespace kova::sample
