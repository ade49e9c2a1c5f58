#include "engine/databases.h"

#include <dirent.h>

#include <algorithm>

#include "base/ascii.h"
#include "engine/ai/jobs.h"

namespace kova::sample {

namespace {

constexpr std::string_view kSuffix = ".db";
constexpr std::size_t kDatabaseNameLimit = 63;

struct FolderCloser {
  void operator()(DIR* folder) const { ::closedir(folder); }
};

bool is_name(std::string_view name) {
  return !name.empty() && name.size() <= kDatabaseNameLimit &&
         std::all_of(name.begin(), name.end(), is_word_byte);
}

}  // namespace

std::shared_ptr<Store> Database::take(ClientWatch& client) {
  std::shared_ptr<Store> store = take_free();
  if (store == nullptr) store = Store::open(path_);
  store->watch(&client);
  prepare(*store);
  return store;
}

std::shared_ptr<Store> Database::take_free() {
  const std::lock_guard guard(mutex_);
  if (free_.empty()) return nullptr;
  std::shared_ptr<Store> store = std::move(free_.back());
  free_.pop_back();
  return store;
}

void Database::prepare(Store& store) {
  const std::lock_guard guard(preparing_);
  // After a failure the next session tries again; this one can do whatever needs no collection.
  if (!prepared_) prepared_ = try_to_bring_up_to_date(store, Retry::kFailedBuilds);
}

void Database::give_back(std::shared_ptr<Store> store, std::int64_t temporary_tables_left) {
  temporary_tables -= temporary_tables_left;
  if (temporary_tables_left > 0 || store.use_count() > 1) return;
  store->watch(nullptr);
  const std::lock_guard guard(mutex_);
  free_.push_back(std::move(store));
}

bool Databases::readable() const {
  return std::unique_ptr<DIR, FolderCloser>(::opendir(folder_.c_str())) != nullptr;
}

std::vector<std::string> Databases::names() const {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, FolderCloser> folder(::opendir(folder_.c_str()));
  if (folder == nullptr) return names;
  while (const dirent* entry = ::readdir(folder.get())) {
    std::string_view name = entry->d_name;
    if (!name.ends_with(kSuffix)) continue;
    name.remove_suffix(kSuffix.size());
    if (is_name(name)) names.emplace_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string Databases::path_of(const std::string& name) const {
  return folder_ + "/" + name + std::string(kSuffix);
}

Database& Databases::find(std::string_view name) {
  std::string spelled;
  for (const std::string& known : names()) {
    if (!equal_ignoring_case(known, name)) continue;
    spelled = known;
    if (known == name) break;
  }
  if (spelled.empty()) throw Failure("no such database: " + std::string(name));
  const std::lock_guard guard(mutex_);
  return databases_.try_emplace(spelled, path_of(spelled)).first->second;
}

}  // namespace kova::sample
