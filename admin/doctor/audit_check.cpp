#include "admin/doctor/audit_check.h"

#include <filesystem>
#include <string>

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "admin/doctor/probe_name.h"
#include "admin/doctor/rights.h"
#include "platform/environment.h"
#include "platform/file.h"
#include "platform/file_probe.h"
#include "platform/file_rights.h"
#include "platform/private_files.h"
#include "policy/policy.h"

namespace kova::admin {

namespace {

using nlohmann::json;

/// Holds several of the longest records.
constexpr std::size_t kEndCapacity = 8192;
constexpr std::uint64_t kLowSpace = 256ULL * 1024 * 1024;
constexpr std::uint64_t kNoSpace = 1024ULL * 1024;
constexpr UnixMs kClockSlackMs = 60000;

std::string age_text(UnixMs age) {
  const UnixMs seconds = age / 1000;
  constexpr UnixMs kMinute = 60;
  constexpr UnixMs kHour = 60 * kMinute;
  constexpr UnixMs kDay = 24 * kHour;
  if (seconds < 2 * kMinute) return fmt::format("{} seconds", seconds);
  if (seconds < 2 * kHour) return fmt::format("{} minutes", seconds / kMinute);
  if (seconds < 2 * kDay) return fmt::format("{} hours", seconds / kHour);
  return fmt::format("{} days", seconds / kDay);
}

void judge_last_record(Findings& findings, const std::string& path, UnixMs now) {
  std::string end(kEndCapacity, '\0');
  std::size_t length = 0;
  if (!read_file_end(path.c_str(), end.data(), end.size(), length)) {
    findings.note("this account cannot read it");
    return;
  }
  end.resize(length);
  if (end.empty()) {
    findings.note("no record yet");
    return;
  }
  const std::optional<UnixMs> time = last_record_time(end);
  if (!time) {
    findings.warn("its last line is no audit record",
                  "see whether another program writes to it, or a disk was full");
  } else if (*time > now + kClockSlackMs) {
    findings.warn("its last record lies in the future", "set the clock");
  } else {
    findings.note(fmt::format("last record {} ago", age_text(now < *time ? 0 : now - *time)));
  }
}

void judge_audit_readers(Findings& findings, const std::string& path) {
  FileRights rights;
  if (!read_file_rights(path.c_str(), rights) || !rights.others_read) return;
  findings.warn("every account may read it", "take that right away: it tells who asked for what");
}

bool judge_writable(Findings& findings, const std::string& path, const std::string& folder) {
  const bool is_there = path_exists(path.c_str());
  const bool works = is_there ? can_append(path.c_str())
                              : probe_exclusive_create(folder.c_str(), probe_name().c_str()) !=
                                    CreateProbe::kRefused;
  if (works) return true;
  findings.fail(is_there ? fmt::format("this account cannot append to {}", path)
                         : fmt::format("this account cannot create {}", path),
                "let the account that runs the server write there; records are lost until then");
  return false;
}

void judge_path(Findings& findings, const std::string& path, UnixMs now) {
  const std::string folder = folder_of(path);
  if (!is_directory(folder.c_str())) {
    findings.fail(fmt::format("the folder {} does not exist", folder),
                  "make it, and let the account that runs the server write there");
    return;
  }
  if (!judge_writable(findings, path, folder)) return;
  findings.note(path);
  FileSystemFacts facts;
  if (read_file_system(folder.c_str(), facts)) judge_file_system(findings, facts);
  judge_folder(findings, "the folder", folder, FolderUse::kNobodyReplaces);
  if (path_exists(path.c_str())) {
    judge_audit_readers(findings, path);
    judge_last_record(findings, path, now);
  } else {
    findings.note("no record yet");
  }
}

}  // namespace

std::optional<UnixMs> last_record_time(std::string_view end_of_file) {
  const std::size_t end = end_of_file.rfind('\n');
  if (end == std::string_view::npos) return std::nullopt;
  const std::string_view whole = end_of_file.substr(0, end);
  const std::size_t begin = whole.rfind('\n');
  const std::string_view line = begin == std::string_view::npos ? whole : whole.substr(begin + 1);
  const json record = json::parse(line, nullptr, false);
  if (!record.is_object() || !record.contains("timestamp") || !record.at("timestamp").is_string()) {
    return std::nullopt;
  }
  return parse_time(record.at("timestamp").get<std::string>());
}

void judge_file_system(Findings& findings, const FileSystemFacts& facts) {
  findings.note(fmt::format("on {}, {} MB free", facts.name, facts.free_bytes >> 20));
  if (facts.free_bytes < kNoSpace) {
    findings.fail("the disk is full", "make room; records are lost until then");
  } else if (facts.free_bytes < kLowSpace) {
    findings.warn("the disk is nearly full", "make room, and rotate the file");
  }
  if (facts.is_remote) {
    findings.warn("the file system is on another machine",
                  "use a local disk: records are lost while the network is down");
  }
  if (facts.is_in_memory) {
    findings.warn("the file system does not outlive a restart", "use a disk");
  }
}

Check check_audit(UnixMs now) {
  Findings findings("audit");
  const EnvironmentValue value("KOVA_MCP_AUDIT");
  const std::string path(value.view());
  if (path.empty()) {
    findings.warn("KOVA_MCP_AUDIT is not set: no call is recorded",
                  "name a file by KOVA_MCP_AUDIT");
  } else if (path.size() >= kPathCapacity) {
    findings.fail(
        fmt::format("the path of KOVA_MCP_AUDIT has {} bytes, {} or more switch the audit "
                    "off",
                    path.size(), kPathCapacity),
        "choose a shorter path");
  } else if (!std::filesystem::path(path).is_absolute()) {
    findings.warn(fmt::format("{} is no absolute path: it depends on the current folder", path),
                  "give the absolute path");
  } else {
    judge_path(findings, path, now);
  }
  return findings.finish();
}

}  // namespace kova::admin
