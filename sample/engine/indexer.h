// The thread that runs the jobs of the databases in use.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "engine/client_watch.h"
#include "engine/collections.h"

namespace kova::sample {

/// Runs jobs soon after they are queued here, and within a second when another program has queued
/// them; loads the collections of a database that is taken on. Any thread.
class Indexer {
 public:
  Indexer() = default;
  /// Interrupts what runs; it is taken up at the next start.
  ~Indexer();
  Indexer(const Indexer&) = delete;
  Indexer& operator=(const Indexer&) = delete;

  /// Takes a database on. Starts the thread at the first.
  void add(const std::string& path, std::shared_ptr<Collections> collections);
  /// Says that jobs may be queued.
  void wake();

 private:
  struct Database {
    std::shared_ptr<Store> store;
    std::shared_ptr<Collections> collections;
  };

  void run();

  std::atomic<bool> stopping_ = false;
  ClientWatch watch_{-1, stopping_};
  std::mutex mutex_;
  std::condition_variable wanted_;
  bool woken_ = false;
  std::vector<Database> added_;
  std::thread thread_;
};

}  // namespace kova::sample
