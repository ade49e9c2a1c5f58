#include "engine/embed_mode.h"

#include <memory>

#include "engine/ai/collection.h"
#include "engine/ai/jobs.h"
#include "engine/databases.h"
#include "platform/console.h"

namespace kova::sample {

namespace {

constexpr int kStepPercent = 20;

// Prints what a piece of work reports, or why it failed.
template <typename Work>
bool print_result(const std::string& subject, const Work& work) {
  try {
    write_stdout(subject + ": " + work() + "\n");
    return true;
  } catch (const Failure& failure) {
    write_stdout(subject + ": " + failure.what() + "\n");
    return false;
  }
}

BuildProgress progress_of(const std::string& database) {
  return [database, shown = 0](std::string_view collection, int percent) mutable {
    const int step = percent / kStepPercent * kStepPercent;
    if (step == shown) return;
    shown = step;
    write_stderr("embedding " + database + "." + std::string(collection) + ": " +
                 std::to_string(step) + "%\n");
  };
}

std::string count_of_vectors(Store& store, const std::string& name) {
  const std::int64_t count = count_vectors(store, find_collection(store, name));
  return std::to_string(count) + (count == 1 ? " vector" : " vectors");
}

bool embed_database(const std::string& path, const std::string& database) {
  const std::shared_ptr<Store> store = Store::open(path);
  bring_up_to_date(*store, Retry::kFailedBuilds, progress_of(database));
  bool all = true;
  for (const std::string& name : collection_names(*store)) {
    std::string subject = database;
    subject.append(".").append(name);
    all = print_result(subject, [&] { return count_of_vectors(*store, name); }) && all;
  }
  return all;
}

}  // namespace

bool embed_all(const std::string& folder) {
  const Databases databases(folder);
  bool all = true;
  for (const std::string& name : databases.names()) {
    try {
      all = embed_database(databases.path_of(name), name) && all;
    } catch (const Failure& failure) {
      write_stdout(name + ": " + failure.what() + "\n");
      all = false;
    }
  }
  return all;
}

}  // namespace kova::sample
