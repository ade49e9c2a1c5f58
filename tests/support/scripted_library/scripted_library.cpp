// A client library that returns results and fails by a script (see script.h) and logs every call,
// so that the end-to-end tests see the exact statements and the calls' order.
//
// SCRIPTED_LIBRARY_SCRIPT names the script, read when the process makes its first call;
// SCRIPTED_LIBRARY_LOG names the log: one line per call, the process id, the operation's name
// behind "KOVA_" and its arguments separated by tabs, each escaped.
#include <clocale>
#include <cstdint>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "db/kova_api.h"
#include "os.h"
#include "script.h"

extern "C" {
KOVA_CreateVantreoInstance_t KOVA_CreateVantreoInstance;
KOVA_DisableMessage_t KOVA_DisableMessage;
KOVA_StartVantreo_t KOVA_StartVantreo;
KOVA_NewObject_t KOVA_NewObject;
KOVA_Exec_t KOVA_Exec;
KOVA_Status_t KOVA_Status;
KOVA_FieldCount_t KOVA_FieldCount;
KOVA_FieldName_t KOVA_FieldName;
KOVA_Next_t KOVA_Next;
KOVA_DataByFno_t KOVA_DataByFno;
KOVA_FreeObject_t KOVA_FreeObject;
#ifndef SCRIPTED_LIBRARY_INCOMPLETE
KOVA_StopVantreo_t KOVA_StopVantreo;
#endif
}

namespace scripted {

namespace {

/// A thing that the library hands out; its address is the handle.
struct Handle {
  const char* name;
};

Handle instance_handle{"instance"};
Handle connection_handle{"connection"};
Handle object_handle{"object"};

const Rule kDefaultRule{};

struct State {
  std::vector<Rule> rules;
  std::map<std::string, std::uint64_t> calls;
  std::string log;
  const Rule* result = &kDefaultRule;
  std::vector<Rows>::const_iterator group;
  std::uint64_t row_of_group = 0;
  const std::vector<Text>* current_row = nullptr;
};

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

State make_state() {
  State made;
  const std::string script = environment("SCRIPTED_LIBRARY_SCRIPT");
  if (!script.empty()) made.rules = parse_script(read_file(script));
  made.log = environment("SCRIPTED_LIBRARY_LOG");
  made.group = kDefaultRule.rows.end();
  return made;
}

State& state() {
  static State the_state = make_state();
  return the_state;
}

std::string name_of(const void* handle) {
  if (handle == nullptr) return "null";
  for (const Handle* known : {&instance_handle, &connection_handle, &object_handle}) {
    if (handle == known) return known->name;
  }
  return "stranger";
}

void log(const std::string& operation, const std::vector<std::string>& arguments) {
  if (state().log.empty()) return;
  std::string line = std::to_string(process_id()) + "\t" + operation;
  for (const std::string& argument : arguments) line += "\t" + escaped(argument);
  append_to_log(state().log, line + "\n");
}

bool matches(Rule& rule, const std::string& operation, const std::string& text) {
  if (rule.operation != operation) return false;
  if (rule.match == Match::kExact && rule.text != text) return false;
  if (rule.match == Match::kPrefix && text.compare(0, rule.text.size(), rule.text) != 0) {
    return false;
  }
  if (!rule.times) return true;
  if (*rule.times == 0) return false;
  --*rule.times;
  return true;
}

/// Sets the locale; a name that the system does not know changes nothing.
std::string decimal_point_in(const std::string& locale) {
  std::setlocale(LC_ALL, locale.c_str());
  return std::localeconv()->decimal_point;
}

void perform(const Action& action) {
  switch (action.act) {
    case Act::kSleep:
      return sleep_ms(action.number);
    case Act::kCrash:
      crash();
    case Act::kHang:
      hang();
    case Act::kExit:
      exit_now(action.number);
    case Act::kStdout:
      return write_stdout(action.text);
    case Act::kStderr:
      return write_stderr(action.text);
    case Act::kStreams:
      return log("streams", {open_streams()});
    case Act::kLeave:
      return log("left", {std::to_string(leave_process())});
    case Act::kLocale:
      return log("locale", {decimal_point_in(action.text)});
  }
}

/// Logs the call, finds its rule and does what that says.
const Rule& serve(const std::string& operation, const std::vector<std::string>& arguments,
                  const std::string& text) {
  log(operation, arguments);
  for (Rule& rule : state().rules) {
    if (!matches(rule, operation, text)) continue;
    for (const Action& action : rule.actions) perform(action);
    return rule;
  }
  return kDefaultRule;
}

const Rule& serve(const std::string& operation, const std::vector<std::string>& arguments) {
  return serve(operation, arguments, std::to_string(++state().calls[operation]));
}

const char* pointer(const Text& text) {
  return text ? text->c_str() : nullptr;
}

/// The element of a column counted from 1; null for a number out of range.
const char* at(const std::vector<Text>& texts, int column) {
  const auto index = static_cast<std::size_t>(column) - 1;
  return column >= 1 && index < texts.size() ? pointer(texts[index]) : nullptr;
}

bool advance() {
  State& s = state();
  while (s.group != s.result->rows.end() && s.row_of_group == s.group->count) {
    ++s.group;
    s.row_of_group = 0;
  }
  if (s.group == s.result->rows.end()) return false;
  ++s.row_of_group;
  s.current_row = &s.group->cells;
  return true;
}

}  // namespace

}  // namespace scripted

using namespace scripted;

void* KOVA_CreateVantreoInstance() {
  return serve("CreateVantreoInstance", {}).null ? nullptr : &instance_handle;
}

int KOVA_DisableMessage(void* instance) {
  serve("DisableMessage", {name_of(instance)});
  return 1;
}

void* KOVA_StartVantreo(void* instance, int options, const char* server, const char* port) {
  const std::string host(server);
  const Rule& rule = serve("StartVantreo", {name_of(instance), std::to_string(options), host, port},
                           host + ":" + port);
  return rule.null ? nullptr : &connection_handle;
}

void* KOVA_NewObject(void* connection) {
  return serve("NewObject", {name_of(connection)}).null ? nullptr : &object_handle;
}

std::int64_t KOVA_Exec(void* object, const char* statement) {
  State& s = state();
  s.result = &serve("Exec", {name_of(object), statement}, statement);
  s.group = s.result->rows.begin();
  s.row_of_group = 0;
  s.current_row = nullptr;
  return s.result->result;
}

const char* KOVA_Status(void* object) {
  serve("Status", {name_of(object)});
  return pointer(state().result->status);
}

int KOVA_FieldCount(void* object) {
  serve("FieldCount", {name_of(object)});
  const Rule& result = *state().result;
  return result.fields.value_or(static_cast<int>(result.columns.size()));
}

const char* KOVA_FieldName(void* object, int column) {
  serve("FieldName", {name_of(object), std::to_string(column)});
  return at(state().result->columns, column);
}

int KOVA_Next(void* object) {
  serve("Next", {name_of(object)});
  return advance() ? 1 : 0;
}

const char* KOVA_DataByFno(void* object, int column) {
  serve("DataByFno", {name_of(object), std::to_string(column)});
  return state().current_row == nullptr ? nullptr : at(*state().current_row, column);
}

int KOVA_FreeObject(void* object) {
  serve("FreeObject", {name_of(object)});
  return 1;
}

#ifndef SCRIPTED_LIBRARY_INCOMPLETE
int KOVA_StopVantreo(void* connection) {
  serve("StopVantreo", {name_of(connection)});
  return 1;
}
#endif
