// kova-sample-engine: start-up.

#include <sqlite3.h>

#include <string>

#include "engine/embed_mode.h"
#include "engine/options.h"
#include "engine/server.h"
#include "engine/users.h"
#include "platform/console.h"

namespace {

constexpr int kCannotServe = 1;
constexpr int kBadArguments = 2;
constexpr sqlite3_int64 kHeapLimit = sqlite3_int64{512} << 20;

int complain(int exit_code, const std::string& words) {
  kova::write_stderr("kova-sample-engine: " + words + "\n");
  return exit_code;
}

}  // namespace

int main(int count, char** arguments) {
  using namespace kova::sample;
  kova::prepare_standard_streams();
  Options options;
  std::string error;
  if (!parse_options(count, arguments, options, error)) {
    return complain(kBadArguments, error + "; try --help");
  }
  if (options.help) {
    kova::write_stdout(help_text());
    return 0;
  }
  sqlite3_hard_heap_limit64(kHeapLimit);
  if (options.embed) return embed_collections(options.data) ? 0 : kCannotServe;
  Users users;
  if (!users.load(options.users, error)) return complain(kBadArguments, error);
  Server server(options, users);
  if (!server.listen(error)) return complain(kCannotServe, error);
  kova::write_stdout("kova-sample-engine ready on 127.0.0.1:" + std::to_string(server.port()) +
                     "\n");
  server.run();
  return 0;
}
