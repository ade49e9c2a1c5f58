// Files that several processes append whole records to.
#pragma once

#include <cstdint>
#include <string_view>

namespace kova {

/// How long a writer waits for the others, in milliseconds.
inline constexpr std::uint32_t kRecordWaitMs = 2000;

/// Appends one record to the file with one write and sends it to the disk; creates the file when
/// it is absent (readable by its owner alone where the platform has such modes). Records of several
/// processes never interleave: their writers wait for one another, at most `wait_ms`. After that
/// the record is written nevertheless on POSIX systems, where one write at the end of a file is
/// whole; on Windows it is lost while another program holds the file. On Windows writers that name
/// the file by different names (a link, a short name) do not wait for one another; names of its
/// folder do not matter. A record that the disk takes
/// only in part is taken back. The process's own standard output is no such file. Every failure is
/// silent.
void append_record(const char* path, std::string_view record,
                   std::uint32_t wait_ms = kRecordWaitMs);

/// Whether the path names the file, device or pipe that this process's standard output is.
[[nodiscard]] bool is_standard_output(const char* path);

}  // namespace kova
