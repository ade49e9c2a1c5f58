#include "admin/bundle/bundle.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "admin/audit/output_target.h"
#include "admin/bundle/bundle_texts.h"
#include "admin/bundle/manifest.h"
#include "admin/bundle/program_file.h"
#include "admin/bundle/site.h"
#include "admin/bundle/zip_archive.h"
#include "admin/common/deployment.h"
#include "admin/common/file_text.h"
#include "admin/common/output.h"
#include "admin/common/printable.h"
#include "admin/common/refusal.h"
#include "admin/common/server_path.h"
#include "admin/common/utf8.h"
#include "policy/policy.h"

namespace kova::admin {

namespace {

constexpr std::size_t kProgramFileLimit = 256 * std::size_t{1048576};
constexpr std::string_view kEnding = ".mcpb";
/// A client puts the user's own folder in its place.
constexpr std::string_view kHome = "${HOME}/";

struct BundleOptions {
  std::shared_ptr<std::string> environment_file;
  std::string output;
  std::string audit;
  std::vector<std::string> servers;
  std::vector<std::string> libraries;
};

/// One file of the options, and the system that it is for.
struct GivenFile {
  std::string path;
  System system;
  SecretText bytes;
};

/// Reads the files of one option, at most one for each system. Windows comes first.
std::vector<GivenFile> read_files(const std::vector<std::string>& paths, std::string_view option,
                                  bool libraries) {
  std::vector<GivenFile> files;
  for (const std::string& path : paths) {
    SecretText bytes = read_file(path, kProgramFileLimit);
    ProgramFile kind{};
    try {
      kind = read_program_file(bytes.view());
    } catch (const Refusal& refusal) {
      throw Refusal(fmt::format("{} {}: {}", option, path, refusal.what()));
    }
    if (kind.is_library != libraries) {
      throw Refusal(
          fmt::format("{} {}: it is a {}", option, path, kind.is_library ? "library" : "program"));
    }
    if (std::ranges::any_of(files, [&](const auto& file) { return file.system == kind.system; })) {
      throw Refusal(fmt::format("{} {}: there is one for that system already", option, path));
    }
    files.push_back({.path = path, .system = kind.system, .bytes = std::move(bytes)});
  }
  std::ranges::sort(files, {}, &GivenFile::system);
  return files;
}

bool is_drive_path(std::string_view path) {
  return path.size() > 2 && path[1] == ':' && (path[2] == '\\' || path[2] == '/');
}

void check_audit(const std::string& audit, const std::vector<System>& systems) {
  if (audit.empty()) return;
  const bool is_home = audit.starts_with(kHome);
  const std::string_view rest = std::string_view(audit).substr(is_home ? kHome.size() : 0);
  if (audit.size() >= kPathCapacity || find_malformed(audit) != audit.npos ||
      rest.find("${") != rest.npos) {
    throw Refusal("--audit: the path is too long, not UTF-8 or holds \"${\" after its beginning");
  }
  for (const System system : systems) {
    const bool fits = system == System::kWindows ? is_drive_path(audit) : audit.starts_with('/');
    if (!is_home && !fits) {
      throw Refusal(fmt::format("--audit {}: it is no absolute path on {}; begin it with {}", audit,
                                names_of(system).platform, kHome));
    }
  }
}

/// What the bundle is made of.
struct Contents {
  Site site;
  std::vector<GivenFile> servers;
  std::vector<GivenFile> libraries;

  [[nodiscard]] std::vector<System> systems() const {
    std::vector<System> found;
    for (const GivenFile& server : servers) found.push_back(server.system);
    return found;
  }
  [[nodiscard]] bool has_library(System system) const {
    return std::ranges::find(libraries, system, &GivenFile::system) != libraries.end();
  }
};

Contents read_contents(const BundleOptions& options, const std::vector<std::string>& servers) {
  Contents contents{.site = read_site(),
                    .servers = read_files(servers, "--server", false),
                    .libraries = read_files(options.libraries, "--library", true)};
  const std::vector<System> systems = contents.systems();
  for (const GivenFile& library : contents.libraries) {
    if (std::ranges::find(systems, library.system) == systems.end()) {
      throw Refusal(fmt::format("--library {}: the bundle has no server for it", library.path));
    }
  }
  check_audit(options.audit, systems);
  return contents;
}

std::string archive(const Contents& contents, const std::string& manifest) {
  std::vector<ZipEntry> entries = {
      {.name = kBundleManifest, .bytes = manifest},
      {.name = kBundlePolicy, .bytes = contents.site.policy_file.view()},
      {.name = kBundleNotices, .bytes = kNotices}};
  for (const GivenFile& file : contents.servers) {
    entries.push_back(
        {.name = names_of(file.system).server, .bytes = file.bytes.view(), .executable = true});
  }
  for (const GivenFile& file : contents.libraries) {
    entries.push_back({.name = names_of(file.system).library, .bytes = file.bytes.view()});
  }
  std::ranges::sort(entries, {}, &ZipEntry::name);
  return zip_archive(entries);
}

std::string summary(const BundleOptions& options, const Contents& contents) {
  const Site& site = contents.site;
  std::string text =
      fmt::format("Wrote {}: {} reads {} at {}:{} under the policy {}.\n", options.output,
                  site.user, site.database, site.server, site.port, site.policy);
  for (const System system : contents.systems()) {
    text += fmt::format("{}: {}\n", names_of(system).platform,
                        contents.has_library(system)
                            ? "with the client library"
                            : "the client library has to be on each machine's search path");
  }
  if (options.audit.empty()) text += "Calls are recorded nowhere: --audit names no file.\n";
  return text;
}

/// The lines, each made safe to print.
std::string printable_lines(std::string_view text) {
  std::string safe;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    safe += printable(text.substr(0, end)) + '\n';
    text.remove_prefix(end + 1);
  }
  return safe;
}

int run(const BundleOptions& options) {
  if (!options.output.ends_with(kEnding)) {
    throw Refusal(fmt::format("--output {}: the name has to end in {}", options.output, kEnding));
  }
  use_deployment(*options.environment_file);
  const std::vector<std::string> servers =
      options.servers.empty() ? std::vector{server_beside()} : options.servers;
  const Contents contents = read_contents(options, servers);
  std::vector<std::string> inputs = servers;
  inputs.insert(inputs.end(), options.libraries.begin(), options.libraries.end());
  inputs.push_back(deployment_value("KOVA_MCP_POLICY"));
  inputs.push_back(*options.environment_file);
  OutputTarget target(options.output, inputs);
  target.write(
      archive(contents, bundle_manifest(contents.site, contents.systems(), options.audit)));
  target.finish();
  print(printable_lines(summary(options, contents)));
  return kExitFine;
}

}  // namespace

RunCommand add_bundle(CommandParser& parser) {
  const auto options = std::make_shared<BundleOptions>();
  parser.footer(
      "Writes a client bundle (.mcpb) for the users of a deployment that only reads. It holds the\n"
      "policy, the engine's address and the server; the client asks its user for the password\n"
      "alone, and keeps it. No secret goes into it. The same inputs give the same bytes.\n"
      "Exit codes: 0 written, 2 nothing written.");
  options->environment_file = add_env_option(parser);
  parser.add_option("--output", options->output, "The bundle; replaces a file that is there")
      .type_name("FILE")
      .required()
      .not_empty();
  parser
      .add_option("--server", options->servers,
                  "A kova-mcp of Windows or Linux, instead of the one beside kova-admin; may be "
                  "repeated")
      .type_name("FILE")
      .one_value_each()
      .not_empty();
  parser
      .add_option("--library", options->libraries,
                  "The engine's client library, if the site may pass it on; may be repeated")
      .type_name("FILE")
      .one_value_each()
      .not_empty();
  parser
      .add_option("--audit", options->audit,
                  "The audit file on the user's machine; may begin with ${HOME}/")
      .type_name("PATH")
      .not_empty();
  return [options] { return run(*options); };
}

}  // namespace kova::admin
