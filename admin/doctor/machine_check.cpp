#include "admin/doctor/machine_check.h"

#include <string_view>

#include <fmt/format.h>

#include "http/session_table.h"

namespace kova::admin {

namespace {

/// Of each session the listener holds two pipes, the process and, while a request runs, its
/// connection.
constexpr std::uint64_t kDescriptorsOfSession = 4;
/// Its own streams, sockets and libraries, and clients that wait for a place.
constexpr std::uint64_t kDescriptorsBeside = 64;
/// A session is a process with two threads; a running call is one more process with threads of the
/// client library. The listener has a thread for each connection.
constexpr std::uint64_t kTasksOfSession = 8;
constexpr std::uint64_t kTasksBeside = 32;

constexpr std::uint64_t kDescriptorsNeeded =
    kSessionLimit * kDescriptorsOfSession + kDescriptorsBeside;
constexpr std::uint64_t kTasksNeeded = kSessionLimit * kTasksOfSession + kTasksBeside;

void judge_limit(Findings& findings, std::string_view what, std::uint64_t limit,
                 std::uint64_t needed, std::string_view advice) {
  if (limit == kNoLimit) {
    findings.note(fmt::format("{}: no limit", what));
  } else if (limit < needed) {
    findings.warn(
        fmt::format("{}: {}, {} are needed for {} sessions", what, limit, needed, kSessionLimit),
        advice);
  } else {
    findings.note(fmt::format("{}: {}", what, limit));
  }
}

}  // namespace

Check check_clock(ClockState state) {
  Findings findings("clock");
  switch (state) {
    case ClockState::kSynchronised:
      findings.note("synchronised");
      break;
    case ClockState::kNotSynchronised:
      findings.warn("not synchronised: tokens may end early or late",
                    "switch the system's time synchronisation on");
      break;
    case ClockState::kUnknown:
      findings.warn("the system does not say whether it is synchronised",
                    "compare it with another clock");
      break;
  }
  return findings.finish();
}

Check check_limits(const ProcessLimits& limits) {
  Findings findings("limits");
  judge_limit(findings, "open files", limits.descriptors, kDescriptorsNeeded,
              "raise the limit of open files (ulimit -n, LimitNOFILE)");
  judge_limit(findings, "processes", limits.processes, kTasksNeeded,
              "raise the limit of processes (ulimit -u, LimitNPROC)");
  return findings.finish();
}

}  // namespace kova::admin
