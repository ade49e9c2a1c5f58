#include "engine/indexer.h"

#include <pthread.h>

#include <chrono>
#include <iterator>

#include "engine/jobs.h"

namespace kova::sample {

namespace {

constexpr std::chrono::seconds kBetweenLooks{1};

// So that the first search finds the vectors in memory. What cannot be read has words for it.
void load_all(Store& store, Collections& collections) {
  std::vector<std::string> names;
  if (!collection_names(store, names)) return;
  for (const std::string& name : names) {
    Collection collection;
    if (!find_collection(store, name, collection)) continue;
    static_cast<void>(collections.loaded(collection.name).load(store, collection));
  }
}

}  // namespace

Indexer::~Indexer() {
  stopping_ = true;
  wake();
  if (thread_.joinable()) thread_.join();
}

// A database that cannot be opened here has told its sessions why.
void Indexer::add(const std::string& path, std::shared_ptr<Collections> collections) {
  std::string error;
  std::shared_ptr<Store> store = Store::open(path, watch_, error);
  if (store == nullptr) return;
  {
    const std::lock_guard guard(mutex_);
    added_.push_back({std::move(store), std::move(collections)});
    if (!thread_.joinable()) thread_ = std::thread(&Indexer::run, this);
  }
  wake();
}

void Indexer::wake() {
  const std::lock_guard guard(mutex_);
  woken_ = true;
  wanted_.notify_one();
}

void Indexer::run() {
  ::pthread_setname_np(::pthread_self(), "indexer");
  std::vector<Database> databases;
  std::size_t tried = 0;
  std::size_t loaded = 0;
  while (!stopping_) {
    {
      std::unique_lock lock(mutex_);
      wanted_.wait_for(lock, kBetweenLooks, [&] { return woken_; });
      woken_ = false;
      databases.insert(databases.end(), std::make_move_iterator(added_.begin()),
                       std::make_move_iterator(added_.end()));
      added_.clear();
    }
    for (; tried < databases.size(); ++tried) {
      static_cast<void>(retry_failed_builds(*databases[tried].store));
    }
    // What fails here is tried again at the next look.
    for (const Database& database : databases) {
      static_cast<void>(run_jobs(*database.store, *database.collections, [](auto, int) {}));
    }
    for (; loaded < databases.size(); ++loaded) {
      load_all(*databases[loaded].store, *databases[loaded].collections);
    }
  }
}

}  // namespace kova::sample
