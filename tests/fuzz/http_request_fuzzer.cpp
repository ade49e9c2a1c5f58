// One HTTP request, received in pieces, and the questions of the gate against their rules; the
// header look-up and the list match against plain ones. The input is a byte that chooses the
// settings, one that chooses the size of the pieces, and what the client sends.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/require.h"
#include "http/gate.h"
#include "http/rate_window.h"
#include "http/request.h"
#include "http/response.h"
#include "platform/socket.h"

extern "C" char** environ;

namespace {

/// What the client sends, and how much of it a call of receive gives.
struct Client {
  std::string_view text;
  std::size_t piece = 1;

  std::string_view next() {
    const std::string_view given = text.substr(0, piece);
    text.remove_prefix(given.size());
    return given;
  }
};

Client client;

}  // namespace

// Stands in for platform/posix/socket.cpp.
namespace kova {

Socket::~Socket() = default;

std::size_t Socket::receive(void* data, std::size_t size) {
  const std::string_view given = client.next();
  if (given.size() > size) std::abort();
  if (!given.empty()) std::memcpy(data, given.data(), given.size());
  return given.size();
}

bool Socket::send_all(const void* /*data*/, std::size_t /*size*/) {
  return true;
}

bool Socket::has_waiting_bytes() {
  return false;
}

}  // namespace kova

namespace {

using kova::fuzz::require;

constexpr std::string_view kToken = "0123456789abcdef0123456789abcdef";
constexpr std::string_view kBlanks = " \t\n\v\f\r";

/// The settings: each bit of the input's first byte adds or changes one.
struct Settings {
  explicit Settings(unsigned bits)
      : short_token((bits & 7u) == 7u),
        plaintext((bits & 8u) != 0),
        hosts((bits & 16u) != 0 ? "example.org, a,localhost" : "127.0.0.1:8080,localhost:8080"),
        origins((bits & 32u) != 0 ? "https://example.org ,null" : "") {
    entries = {"KOVA_MCP_HTTP_RATE_PER_MINUTE=4000000000",
               "KOVA_MCP_HTTP_BEARER_TOKEN=" + std::string(kToken.substr(short_token ? 1 : 0))};
    if (plaintext) entries.push_back("KOVA_MCP_HTTP_ALLOW_PLAINTEXT_LOOPBACK=Yes");
    if ((bits & 16u) != 0) entries.push_back("KOVA_MCP_HTTP_ALLOWED_HOSTS=" + hosts);
    if (!origins.empty()) entries.push_back("KOVA_MCP_HTTP_ALLOWED_ORIGINS=" + origins);
    for (std::string& entry : entries) environment.push_back(entry.data());
    environment.push_back(nullptr);
  }
  Settings(const Settings&) = delete;
  Settings& operator=(const Settings&) = delete;

  bool short_token, plaintext;
  std::string hosts, origins;
  std::vector<std::string> entries;
  std::vector<char*> environment;
};

const Settings& settings_of(unsigned bits) {
  static std::unique_ptr<Settings> made[64];
  std::unique_ptr<Settings>& settings = made[bits % 64];
  if (!settings) settings = std::make_unique<Settings>(bits % 64);
  return *settings;
}

std::string_view trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

bool same(std::string_view one, std::string_view other) {
  return std::equal(one.begin(), one.end(), other.begin(), other.end(), [](char a, char b) {
    const auto fold = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 32) : c; };
    return fold(a) == fold(b);
  });
}

/// The value of the first line of that name, the request line excepted.
std::optional<std::string_view> plain_header(std::string_view received, std::string_view name) {
  bool first = true;
  std::size_t begin = 0;
  for (std::size_t i = 0; i + 1 < received.size(); ++i) {
    if (received[i] != '\r' || received[i + 1] != '\n') continue;
    const std::string_view line = received.substr(begin, i - begin);
    if (!first && line.size() > name.size() && line[name.size()] == ':' &&
        same(line.substr(0, name.size()), name)) {
      return trimmed(line.substr(name.size() + 1));
    }
    first = false;
    begin = i + 2;
  }
  return std::nullopt;
}

std::optional<std::string_view> short_header(std::string_view received, std::string_view name,
                                             std::size_t capacity) {
  const auto value = plain_header(received, name);
  return value && value->size() < capacity ? value : std::nullopt;
}

bool is_plainly_in_list(std::string_view value, std::string_view list) {
  std::size_t begin = 0;
  while (begin <= list.size()) {
    const std::size_t end = std::min(list.find(',', begin), list.size());
    std::string_view item = list.substr(begin, end - begin);
    item.remove_prefix(std::min(item.find_first_not_of(kBlanks), item.size()));
    item = trimmed(item.substr(0, 511));
    if (!item.empty() && same(item, value)) return true;
    begin = end + 1;
  }
  return false;
}

/// The length of the body that the headers promise; none when they promise none that is allowed.
std::optional<std::size_t> plain_length(std::string_view received) {
  std::string_view text = short_header(received, "Content-Length", 32).value_or("0");
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  if (text.empty() || text.find_first_not_of("0123456789") != std::string_view::npos) {
    return std::nullopt;
  }
  text.remove_prefix(std::min(text.find_first_not_of('0'), text.size()));
  if (text.size() > 6) return std::nullopt;
  const std::size_t length = text.empty() ? 0 : std::stoul(std::string(text));
  return length > (negative ? 0u : 262144u) ? std::nullopt : std::optional(length);
}

/// What was received when the request was whole, and where its body begins.
struct Received {
  std::string_view text;
  std::size_t body = 0;
  std::size_t length = 0;
};

std::optional<Received> plainly_receive(std::string_view sent, std::size_t piece) {
  for (std::size_t got = 0; got < sent.size();) {
    got = std::min(got + piece, sent.size());
    const std::string_view text = sent.substr(0, got);
    const std::size_t blank = text.find("\r\n\r\n");
    if (blank == std::string_view::npos) continue;
    const auto length = plain_length(text);
    if (blank + 4 > 16384 || !length) return std::nullopt;
    if (got >= blank + 4 + *length) return Received{text, blank + 4, *length};
  }
  return std::nullopt;
}

/// The status that the gate refuses with; 0 when it lets the request pass.
int plain_status(const std::optional<Received>& received, const Settings& settings) {
  if (!received) return 413;
  const std::string_view text = received->text;
  if (!text.starts_with("POST /mcp HTTP/1.1\r\n") &&
      !text.starts_with("DELETE /mcp HTTP/1.1\r\n")) {
    return 404;
  }
  if (settings.short_token) return 503;
  const auto token = short_header(text, "Authorization", 1024);
  if (!token || !same(token->substr(0, 7), "Bearer ") || token->substr(7) != kToken) return 401;
  const auto host = short_header(text, "Host", 512);
  if (!host || !is_plainly_in_list(*host, settings.hosts)) return 403;
  const auto origin = short_header(text, "Origin", 512);
  if (origin && !is_plainly_in_list(*origin, settings.origins)) return 403;
  const auto scheme = short_header(text, "X-Forwarded-Proto", 32);
  return (scheme && same(*scheme, "https")) || settings.plaintext ? 0 : 426;
}

void check_gate(std::string_view sent, std::size_t piece, const Settings& settings) {
  static char buffer[kova::kRequestCapacity];
  char** const own = environ;
  environ = const_cast<char**>(settings.environment.data());
  client = {.text = sent, .piece = piece};
  kova::HttpRequest request(buffer);
  kova::Socket socket;
  kova::RateWindow rate;
  kova::HttpResponse refusal;
  const bool passed = kova::pass_gate(
      {.socket = socket, .request = request, .port_text = "8080", .rate = rate}, refusal);
  environ = own;
  const auto received = plainly_receive(sent, piece);
  require((passed ? 0 : refusal.status) == plain_status(received, settings),
          "the first question that fails gives the status");
  if (!received) return;
  require(request.received() == received->text, "no more is received than is needed");
  const std::string_view body = received->text.substr(received->body, received->length);
  require(request.body() == body, "the length frames the body");
  const std::string_view line = request.body_as_line();
  require(line.substr(0, body.size()) == body && line.substr(body.size()) == "\n",
          "the body is one line");
}

void check_look_up(std::string_view received) {
  for (const char* const name : {"Host", "Content-Length"}) {
    require(kova::find_header(received, name) == plain_header(received, name),
            "a header has one value");
  }
  const std::size_t end = received.find('\n');
  if (end == std::string_view::npos) return;
  const std::string_view value = received.substr(0, end);
  const std::string_view list = received.substr(end + 1);
  require(kova::is_in_list(value, list) == is_plainly_in_list(value, list),
          "a list has the same items");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const std::string_view sent(reinterpret_cast<const char*>(data) + 2, size - 2);
  check_gate(sent, 1 + std::size_t{data[1]} * data[1], settings_of(data[0]));
  check_look_up(sent);
  return 0;
}
