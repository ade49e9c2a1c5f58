#include "support/fake_library.h"

#include <cstdlib>
#include <string_view>
#include <utility>

namespace kova::testing {
namespace {

FakeLibrary* active = nullptr;

// Distinct addresses that stand for the library's handles.
char instance_handle;
char connection_handle;
char object_handle;

const char* pointer_to(const LibraryText& text) {
  return text ? text->c_str() : nullptr;
}

// A handle that is not the library's own ends the program: the code under test has lost it.
void expect_handle(const void* given, const char& handle) {
  if (given != &handle) std::abort();
}

void* create_instance() {
  active->record("create");
  return active->create_fails ? nullptr : &instance_handle;
}

int disable_message(void* instance) {
  expect_handle(instance, instance_handle);
  active->record("disable_message");
  return 0;
}

void* start(void* instance, int options, const char* server, const char* port) {
  expect_handle(instance, instance_handle);
  active->record("start " + std::to_string(options) + " " + server + " " + port);
  return active->start_fails ? nullptr : &connection_handle;
}

void* new_object(void* connection) {
  expect_handle(connection, connection_handle);
  active->record("new_object");
  return active->new_object_fails ? nullptr : &object_handle;
}

std::int64_t exec(void* object, const char* statement) {
  expect_handle(object, object_handle);
  active->record(std::string("exec ") + statement);
  if (active->on_exec) active->on_exec(statement);
  return active->run(statement).code;
}

const char* status(void* object) {
  expect_handle(object, object_handle);
  active->record("status");
  return pointer_to(active->current().status);
}

int field_count(void* object) {
  expect_handle(object, object_handle);
  active->record("field_count");
  const FakeResult& result = active->current();
  return result.field_count.value_or(static_cast<int>(result.columns.size()));
}

const char* field_name(void* object, int column) {
  expect_handle(object, object_handle);
  active->record("field_name " + std::to_string(column));
  return pointer_to(active->current().columns.at(static_cast<std::size_t>(column - 1)));
}

int next(void* object) {
  expect_handle(object, object_handle);
  active->record("next");
  // Any value but 0 says that there is a row.
  return active->next_row() ? -1 : 0;
}

const char* data_by_fno(void* object, int column) {
  expect_handle(object, object_handle);
  active->record("data " + std::to_string(column));
  return active->cell(column);
}

int free_object(void* object) {
  expect_handle(object, object_handle);
  active->record("free_object");
  return 0;
}

int stop(void* connection) {
  expect_handle(connection, connection_handle);
  active->record("stop");
  return 0;
}

const ClientLibrary library = {
    .create_instance = create_instance,
    .disable_message = disable_message,
    .start = start,
    .new_object = new_object,
    .exec = exec,
    .status = status,
    .field_count = field_count,
    .field_name = field_name,
    .next = next,
    .data_by_fno = data_by_fno,
    .free_object = free_object,
    .stop = stop,
};

}  // namespace

FakeLibrary::FakeLibrary() {
  if (active != nullptr) std::abort();
  active = this;
  constexpr std::size_t kCalls = 1 << 16;
  calls_.reserve(kCalls);
}

FakeLibrary::~FakeLibrary() {
  active = nullptr;
}

const ClientLibrary* FakeLibrary::load() {
  active->record("load");
  if (active->on_load) active->on_load();
  return active->missing ? nullptr : &library;
}

const ClientLibrary& FakeLibrary::operations() {
  return library;
}

void FakeLibrary::answer(const std::string& statement, FakeResult result) {
  answer_in_turn(statement, {std::move(result)});
}

void FakeLibrary::answer_in_turn(const std::string& statement, std::vector<FakeResult> results) {
  answers_[statement] = {.results = std::move(results), .next = 0};
}

std::vector<std::string> FakeLibrary::statements() const {
  constexpr std::string_view kExec = "exec ";
  std::vector<std::string> found;
  for (const std::string& call : calls_) {
    if (!call.starts_with(kExec)) continue;
    const std::string statement = call.substr(kExec.size());
    if (!statement.starts_with("use ") && !statement.starts_with("login "))
      found.push_back(statement);
  }
  return found;
}

int FakeLibrary::count(const std::string& prefix) const {
  int found = 0;
  for (const std::string& call : calls_) {
    if (call.starts_with(prefix)) ++found;
  }
  return found;
}

const FakeResult& FakeLibrary::run(const char* statement) {
  row_ = 0;
  const auto found = answers_.find(std::string_view(statement));
  if (found == answers_.end()) {
    current_ = &other;
    return other;
  }
  Answers& answers = found->second;
  current_ = &answers.results.at(answers.next);
  if (answers.next + 1 < answers.results.size()) ++answers.next;
  return *current_;
}

bool FakeLibrary::next_row() {
  if (row_ >= current_->rows.size()) return false;
  ++row_;
  return true;
}

const char* FakeLibrary::cell(int column) const {
  return pointer_to(current_->rows.at(row_ - 1).at(static_cast<std::size_t>(column - 1)));
}

}  // namespace kova::testing
