#include "engine/options.h"

#include <getopt.h>

#include <charconv>
#include <string_view>

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

template <typename Number>
bool parse_number(std::string_view text, unsigned least, unsigned most, Number& value) {
  unsigned number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, failure] = std::from_chars(text.data(), end, number);
  if (failure != std::errc() || stop != end || number < least || number > most) return false;
  value = static_cast<Number>(number);
  return true;
}

bool apply(int which, const char* value, Options& options, std::string& error) {
  switch (which) {
    case kPort:
      if (parse_number(value, 0, 65535, options.port)) return true;
      error = "--port takes a number from 0 to 65535";
      return false;
    case kConnections:
      if (parse_number(value, 1, 1000, options.connections)) return true;
      error = "--connections takes a number from 1 to 1000";
      return false;
    case kTimeout:
      if (parse_number(value, 1, 3600, options.timeout_seconds)) return true;
      error = "--timeout takes a number of seconds from 1 to 3600";
      return false;
    case kData:
      options.data = value;
      return true;
    case kUsers:
      options.users = value;
      return true;
    case kLog:
      options.log = true;
      return true;
    case kEmbed:
      options.embed = true;
      return true;
    case kHelp:
      options.help = true;
      return true;
    default:
      return false;
  }
}

}  // namespace

bool parse_options(int count, char** arguments, Options& options, std::string& error) {
  opterr = 0;
  optind = 1;
  for (;;) {
    const int at = optind;
    const int which = ::getopt_long(count, arguments, ":", kOptions, nullptr);
    if (which == -1) break;
    if (which == '?' || which == ':') {
      error = which == ':' ? "missing value after " : "unknown option ";
      error += arguments[at];
      return false;
    }
    if (!apply(which, optarg, options, error)) return false;
    if (options.help) return true;
  }
  if (optind < count) {
    error = "unexpected argument ";
    error += arguments[optind];
    return false;
  }
  if (!options.data.empty() && (options.embed || !options.users.empty())) return true;
  error = "--data and --users are needed";
  return false;
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
         "temporary table. Nothing but use and login is answered before the login.\n";
}

}  // namespace kova::sample
