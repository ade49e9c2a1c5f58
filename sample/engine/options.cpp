#include "engine/options.h"

#include <getopt.h>

#include <charconv>
#include <cstring>

namespace kova::sample {

namespace {

enum Option { kPort = 256, kData, kUsers, kConnections, kTimeout, kLog, kEmbed, kHelp };

constexpr option kOptions[] = {
    {"port", required_argument, nullptr, kPort},
    {"data", required_argument, nullptr, kData},
    {"users", required_argument, nullptr, kUsers},
    {"connections", required_argument, nullptr, kConnections},
    {"timeout", required_argument, nullptr, kTimeout},
    {"log", no_argument, nullptr, kLog},
    {"embed", no_argument, nullptr, kEmbed},
    {"help", no_argument, nullptr, kHelp},
    {nullptr, 0, nullptr, 0},
};

[[noreturn]] void fail(const std::string& message) {
  throw BadInput(message + "; try --help");
}

unsigned number(const char* text, unsigned minimum, unsigned limit, const char* otherwise) {
  unsigned value = 0;
  const char* end = text + std::strlen(text);
  const auto [stop, failure] = std::from_chars(text, end, value);
  if (failure != std::errc() || stop != end || value < minimum || value > limit) fail(otherwise);
  return value;
}

void apply(int which, const char* value, Options& options) {
  switch (which) {
    case kPort:
      options.port = static_cast<std::uint16_t>(
          number(value, 0, 65535, "--port takes a number from 0 to 65535"));
      break;
    case kConnections:
      options.connections = number(value, 1, 1000, "--connections takes a number from 1 to 1000");
      break;
    case kTimeout:
      options.timeout_seconds =
          number(value, 1, 3600, "--timeout takes a number of seconds from 1 to 3600");
      break;
    case kData:
      options.data = value;
      break;
    case kUsers:
      options.users = value;
      break;
    case kLog:
      options.log = true;
      break;
    case kEmbed:
      options.embed = true;
      break;
    default:
      options.help = true;
  }
}

}  // namespace

Options parse_options(int count, char** arguments) {
  Options options;
  opterr = 0;
  optind = 1;
  for (;;) {
    const int at = optind;
    const int which = ::getopt_long(count, arguments, ":", kOptions, nullptr);
    if (which == -1) break;
    if (which == ':') fail(std::string("missing value after ") + arguments[at]);
    if (which == '?') fail(std::string("unknown option ") + arguments[at]);
    apply(which, optarg, options);
    if (options.help) return options;
  }
  if (optind < count) fail(std::string("unexpected argument ") + arguments[optind]);
  const bool complete = !options.data.empty() && (options.embed || !options.users.empty());
  if (!complete) fail("--data and --users are needed");
  return options;
}

const char* help_text() {
  return "usage: kova-sample-engine --data DIR --users FILE [options]\n"
         "\n"
         "A small database server over SQLite for trying the MCP server and for its tests. It\n"
         "listens on 127.0.0.1 and serves the sample client library (kovadll).\n"
         "\n"
         "  --data DIR         the databases: DIR/NAME.db is the database NAME\n"
         "  --users FILE       one user a line, USER:PASSWORD\n"
         "  --port N           port to listen on; 0, the default, takes any free one\n"
         "  --connections N    connections served at a time, 1 to 1000 (default 64)\n"
         "  --timeout SECONDS  time to log in, and for one message to arrive or to be taken\n"
         "                     (default 30)\n"
         "  --log              a line on standard error for every statement and its outcome\n"
         "  --embed            builds the AI collections, shows how far it is, and ends\n"
         "  --help             this text\n"
         "\n"
         "When it is ready it prints \"kova-sample-engine ready on 127.0.0.1:PORT\". SIGTERM and\n"
         "SIGINT stop it. Exit codes: 0 stopped, 1 cannot serve or embed, 2 bad arguments.\n"
         "\n"
         "Statements: use NAME; login USER,PASSWORD; list ...; describe TABLE; SELECT ...;\n"
         "INSERT ...; UPDATE ...; DELETE ...; search ai ...; show ai ...; DROP TABLE of a\n"
         "temporary table. Before the login only use and login.\n";
}

}  // namespace kova::sample
