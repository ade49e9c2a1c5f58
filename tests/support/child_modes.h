// What the unit test program does as a child process of itself.
#pragma once

#include <string_view>

namespace kova::testing {

/// Writes back all of standard input, then exits with 0.
inline constexpr char kChildEcho[] = "--child-echo";
/// Exits with 7 at once.
inline constexpr char kChildExit7[] = "--child-exit-7";
/// Writes "ready", then waits until it is killed.
inline constexpr char kChildHang[] = "--child-hang";
/// Writes 3,000,000 bytes, then exits with 0.
inline constexpr char kChildLong[] = "--child-long";
/// Writes a line and crashes.
inline constexpr char kChildCrash[] = "--child-crash";
/// Writes a line for each handle that it has beside its standard streams, or "none".
inline constexpr char kChildHandles[] = "--child-handles";
/// Calls prepare_process and writes what that changed in this process, in the platform's terms.
inline constexpr char kChildPrepared[] = "--child-prepared";
/// Writes each line of standard input back, until the input ends, but for these lines: "silent"
/// and "go" write nothing, "exit" ends the process, "hold" writes "held" once a line "go" has come,
/// "count" writes how many such lines have come, "raw TEXT" writes TEXT with "%n" as a line feed
/// and "%r" as a carriage return, and "long N" writes N times "x".
inline constexpr char kChildLines[] = "--child-lines";

/// The variable that says how a child started with "--tool-worker" behaves: one of the modes
/// above, or one of those below.
inline constexpr char kWorkerMode[] = "KOVA_TEST_WORKER";
/// Writes back its line without the line feed.
inline constexpr char kWorkerNoLineFeed[] = "no-line-feed";
/// Writes nothing and exits with 0.
inline constexpr char kWorkerSilent[] = "silent";
/// Writes back its line, then exits with 7.
inline constexpr char kWorkerReplyThenFail[] = "reply-then-fail";
/// Writes its line and waits until it is killed.
inline constexpr char kWorkerReplyThenHang[] = "reply-then-hang";

/// The variable that says how a child without arguments behaves.
inline constexpr char kProgramMode[] = "KOVA_TEST_PROGRAM";

using ChildMode = int (*)();

/// The behaviour of an argument that names one, or null.
[[nodiscard]] ChildMode find_child_mode(std::string_view argument);

/// The same for the arguments of this platform alone (child_modes.h in its folder).
[[nodiscard]] ChildMode find_platform_child_mode(std::string_view argument);

/// Keeps a crash from starting a debugger or a dialogue.
void end_quietly_after_a_crash();

/// Crashes this process, as a programming error does.
[[noreturn]] void crash_now();

/// Opens a file that every child inherits that is not kept from it; open until the process ends.
[[nodiscard]] bool open_inheritable_file(const char* path);

/// Writes what kChildHandles writes.
void report_handles();

/// Does what kChildPrepared does.
void report_preparation();

}  // namespace kova::testing
