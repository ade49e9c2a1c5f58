// Files that several processes append whole records to.
#pragma once

#include <cstdint>
#include <string_view>

namespace kova {

/// How long a writer waits for the others, in milliseconds.
inline constexpr std::uint32_t kRecordWaitMs = 2000;

/// Appends one record to the file with one write and sends it to the disk; creates the file when
/// it is absent (readable by its owner alone where the platform has such modes). Every failure is
/// silent, and the process's own standard output is refused.
///
/// Records of several processes never interleave: the writers take turns and wait at most `wait_ms`
/// for theirs. After that, POSIX systems write the record without a turn, since one write at the
/// end of a file is whole; on Windows it is lost while another program holds the file. On Windows
/// two names of one file (a link, a short name) have separate turns; two names of its folder
/// share one. A record that the disk takes only in part is removed.
void append_record(const char* path, std::string_view record,
                   std::uint32_t wait_ms = kRecordWaitMs);

/// Whether the path names the file, device or pipe that this process's standard output is.
[[nodiscard]] bool is_standard_output(const char* path);

}  // namespace kova
