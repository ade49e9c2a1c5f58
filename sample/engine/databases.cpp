#include "engine/databases.h"

#include <dirent.h>

#include <algorithm>

#include "base/ascii.h"
#include "engine/collection_setup.h"

namespace kova::sample {

namespace {

constexpr std::string_view kSuffix = ".db";
constexpr std::size_t kNameLimit = 63;

struct FolderCloser {
  void operator()(DIR* folder) const { ::closedir(folder); }
};

bool is_name(std::string_view name) {
  return !name.empty() && name.size() <= kNameLimit &&
         std::all_of(name.begin(), name.end(), is_word_byte);
}

}  // namespace

Databases::Databases(std::string folder) : folder_(std::move(folder)) {}

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

bool Databases::find(std::string_view name, std::string& spelled) const {
  if (!is_name(name)) return false;
  bool found = false;
  for (const std::string& known : names()) {
    if (!equal_ignoring_case(known, name)) continue;
    found = true;
    spelled = known;
    if (known == name) break;
  }
  return found;
}

std::string Databases::path_of(const std::string& spelled) const {
  return folder_ + "/" + spelled + std::string(kSuffix);
}

std::shared_ptr<Store> Databases::open(const std::string& spelled, ClientWatch& watch,
                                       std::string& error) {
  hold(spelled);
  return Store::open(path_of(spelled), watch, error);
}

std::shared_ptr<Collections> Databases::collections(const std::string& spelled) {
  const std::lock_guard guard(mutex_);
  return held_[spelled].collections;
}

// The last connection of a database takes its write-ahead log away and the next one makes it anew;
// a connection that stays spares every session both.
void Databases::hold(const std::string& spelled) {
  const std::lock_guard guard(mutex_);
  Held& held = held_[spelled];
  if (held.collections == nullptr) held.collections = std::make_shared<Collections>();
  if (held.store != nullptr) return;
  std::string error;
  held.store = Store::open(path_of(spelled), nobody_, error);
  if (held.store == nullptr) return;
  // What cannot be set up now is tried again by the indexer.
  static_cast<void>(set_up_collections(*held.store));
  indexer_.add(path_of(spelled), held.collections);
}

}  // namespace kova::sample
