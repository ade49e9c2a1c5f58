// kova-sample-engine: start-up.

#include <sqlite3.h>

#include <string>

#include "engine/embed_mode.h"
#include "engine/options.h"
#include "engine/server.h"
#include "engine/users.h"
#include "platform/console.h"

namespace {

using namespace kova::sample;

constexpr int kCannotServe = 1;
constexpr int kBadInput = 2;
constexpr sqlite3_int64 kHeapLimit = sqlite3_int64{512} << 20;

void serve(const Options& options) {
  const Users users(options.users);
  Server server(options, users);
  server.listen();
  kova::write_stdout("kova-sample-engine ready on 127.0.0.1:" + std::to_string(server.port()) +
                     "\n");
  server.run();
}

int run(const Options& options) {
  if (options.help) {
    kova::write_stdout(help_text());
    return 0;
  }
  sqlite3_hard_heap_limit64(kHeapLimit);
  if (options.embed) return embed_all(options.data) ? 0 : kCannotServe;
  serve(options);
  return 0;
}

int complain(int exit_code, const char* message) {
  kova::write_stderr("kova-sample-engine: " + std::string(message) + "\n");
  return exit_code;
}

}  // namespace

int main(int count, char** arguments) {
  kova::prepare_standard_streams();
  try {
    return run(parse_options(count, arguments));
  } catch (const BadInput& failure) {
    return complain(kBadInput, failure.what());
  } catch (const std::exception& failure) {
    return complain(kCannotServe, failure.what());
  }
}
