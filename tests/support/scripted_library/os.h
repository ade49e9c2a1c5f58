// What the scripted client library needs of the operating system.
#pragma once

#include <string>

namespace scripted {

/// The environment variable's value; empty when it is not set.
std::string environment(const char* name);
unsigned long process_id();
/// One write at the end of the file, so that several processes can share it. The file stays open.
void append_to_log(const std::string& path, const std::string& line);
void sleep_ms(unsigned milliseconds);
/// An access violation.
[[noreturn]] void crash();
[[noreturn]] void hang();
/// Ends the process at once: nothing is flushed or released.
[[noreturn]] void exit_now(unsigned code);
/// Starts a process that has this one's standard output and error and waits until it is
/// killed; returns its process id.
unsigned long leave_process();
void write_stdout(const std::string& text);
void write_stderr(const std::string& text);
/// What the process has open beside the log, separated by blanks: numbers, each with its kind.
std::string open_streams();

}  // namespace scripted
