// kova-sample-client: runs statements through the client library, for people and for tests.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "db/kova_api.h"
#include "failure.h"
#include "platform/console.h"
#include "platform/environment.h"
#include "platform/library.h"

namespace {

using kova::sample::Failure;

constexpr int kFailed = 1;
constexpr std::size_t kInputBlock = 65536;

constexpr const char* kHelp =
    "usage: kova-sample-client [--help | STATEMENT...]\n"
    "\n"
    "Logs in to the engine and runs the statements, or without any the lines of standard input.\n"
    "The client library is the one beside this program. The engine and the login come from\n"
    "KOVA_MCP_SERVER, KOVA_MCP_PORT, KOVA_MCP_DATABASE, KOVA_MCP_USER and KOVA_MCP_PASSWORD.\n"
    "\n"
    "For each statement it prints its status, and when there are columns a line of their names\n"
    "and a line for each row, with TABs between. A cell's TAB, line end or backslash is written\n"
    "\\t, \\n, \\r or \\\\, a null \\N. A failure is a line \"error: \" and its message.\n"
    "Exit codes: 0 everything succeeded, 1 something failed.\n";

struct Operations {
  kova::Library library;
  KOVA_CreateVantreoInstance_t* create = nullptr;
  KOVA_DisableMessage_t* disable_message = nullptr;
  KOVA_StartVantreo_t* start = nullptr;
  KOVA_NewObject_t* new_object = nullptr;
  KOVA_Exec_t* exec = nullptr;
  KOVA_Status_t* status = nullptr;
  KOVA_FieldCount_t* field_count = nullptr;
  KOVA_FieldName_t* field_name = nullptr;
  KOVA_Next_t* next = nullptr;
  KOVA_DataByFno_t* data_by_fno = nullptr;
  KOVA_FreeObject_t* free_object = nullptr;
  KOVA_StopVantreo_t* stop = nullptr;

  void load();

 private:
  template <typename Function>
  void find(Function*& function, const char* name) {
    function = reinterpret_cast<Function*>(library.symbol(name));
    if (function == nullptr) fail();
  }
  [[noreturn]] static void fail() { throw Failure("cannot load " KOVA_CLIENT_LIBRARY); }
};

void Operations::load() {
  if (!library.open(KOVA_CLIENT_LIBRARY)) fail();
  find(create, "KOVA_CreateVantreoInstance");
  find(disable_message, "KOVA_DisableMessage");
  find(start, "KOVA_StartVantreo");
  find(new_object, "KOVA_NewObject");
  find(exec, "KOVA_Exec");
  find(status, "KOVA_Status");
  find(field_count, "KOVA_FieldCount");
  find(field_name, "KOVA_FieldName");
  find(next, "KOVA_Next");
  find(data_by_fno, "KOVA_DataByFno");
  find(free_object, "KOVA_FreeObject");
  find(stop, "KOVA_StopVantreo");
}

// Ends the program when standard output is closed: a result may have no end.
void print(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) std::_Exit(kFailed);
}

std::string escaped(const char* text) {
  if (text == nullptr) return "\\N";
  std::string line;
  for (; *text != '\0'; ++text) {
    switch (*text) {
      case '\t':
        line += "\\t";
        break;
      case '\n':
        line += "\\n";
        break;
      case '\r':
        line += "\\r";
        break;
      case '\\':
        line += "\\\\";
        break;
      default:
        line += *text;
    }
  }
  return line;
}

/// A session that is logged in.
class Client {
 public:
  void open();
  ~Client();
  Client() = default;
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  void run(const std::string& statement);

 private:
  void exec(const std::string& statement);
  void print_line(const char* (*text)(void*, int));

  Operations operations_;
  void* connection_ = nullptr;
  void* object_ = nullptr;
};

Client::~Client() {
  if (object_ != nullptr) operations_.free_object(object_);
  if (connection_ != nullptr) operations_.stop(connection_);
}

void Client::exec(const std::string& statement) {
  if (operations_.exec(object_, statement.c_str()) <= 0) throw Failure(operations_.status(object_));
}

void Client::open() {
  operations_.load();
  const kova::EnvironmentValue server("KOVA_MCP_SERVER");
  const kova::EnvironmentValue port("KOVA_MCP_PORT");
  const kova::EnvironmentValue database("KOVA_MCP_DATABASE");
  const kova::EnvironmentValue user("KOVA_MCP_USER");
  const kova::EnvironmentValue password("KOVA_MCP_PASSWORD");
  void* instance = operations_.create();
  if (instance == nullptr) throw Failure("no instance");
  operations_.disable_message(instance);
  connection_ = operations_.start(instance, 0, server.c_str(), port.c_str());
  if (connection_ == nullptr) throw Failure("no connection");
  object_ = operations_.new_object(connection_);
  if (object_ == nullptr) throw Failure("no statement object");
  exec(std::string("use ") + database.c_str() + ";");
  exec(std::string("login ") + user.c_str() + "," + password.c_str() + ";");
}

void Client::print_line(const char* (*text)(void*, int)) {
  std::string line;
  const int columns = operations_.field_count(object_);
  for (int column = 1; column <= columns; ++column) {
    if (column > 1) line += '\t';
    line += escaped(text(object_, column));
  }
  print(line + "\n");
}

void Client::run(const std::string& statement) {
  exec(statement);
  print("status: " + std::string(operations_.status(object_)) + "\n");
  if (operations_.field_count(object_) == 0) return;
  print_line(operations_.field_name);
  while (operations_.next(object_) != 0) print_line(operations_.data_by_fno);
}

// Every failure ends here: it is printed, and the program goes on with the next statement.
template <typename Work>
bool attempt(const Work& work) {
  try {
    work();
    return true;
  } catch (const std::exception& failure) {
    print("error: " + std::string(failure.what()) + "\n");
    return false;
  }
}

bool run_input(Client& client) {
  std::string pending;
  std::string block(kInputBlock, '\0');
  bool succeeded = true;
  for (;;) {
    const std::size_t got = kova::read_stdin(block.data(), block.size());
    pending.append(block, 0, got);
    if (got == 0 && !pending.empty()) pending += '\n';
    for (std::size_t end = 0; (end = pending.find('\n')) != std::string::npos;) {
      std::string line = pending.substr(0, end);
      pending.erase(0, end + 1);
      if (line.ends_with('\r')) line.pop_back();
      if (!line.empty()) succeeded = attempt([&] { client.run(line); }) && succeeded;
    }
    if (got == 0) return succeeded;
  }
}

}  // namespace

int main(int count, char** arguments) {
  kova::prepare_standard_streams();
  if (count == 2 && std::string_view(arguments[1]) == "--help") {
    print(kHelp);
    return 0;
  }
  Client client;
  if (!attempt([&] { client.open(); })) return kFailed;
  bool succeeded = true;
  if (count == 1) succeeded = run_input(client);
  for (int i = 1; i < count; ++i) {
    succeeded = attempt([&] { client.run(arguments[i]); }) && succeeded;
  }
  return succeeded ? 0 : kFailed;
}
