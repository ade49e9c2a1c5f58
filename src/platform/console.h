// The three standard streams.
#pragma once

#include <cstddef>
#include <string_view>

namespace kova {

/// Puts standard input and output into binary mode, lets writes that the system refuses fail
/// instead of ending the process (the reader has gone, the file has its largest size), and keeps
/// ended children until they are collected. Called once, before any other function of this header.
void prepare_standard_streams();

/// Reads the next bytes, at most `size`, and waits until there is at least one. Returns the number
/// of bytes, 0 at the end of input and after an error.
[[nodiscard]] std::size_t read_stdin(char* data, std::size_t size);

/// Writes everything to standard output, unbuffered. After an error the rest is dropped.
void write_stdout(std::string_view bytes);

/// Writes text to standard error in one piece, unbuffered; standard error is in text mode, so that
/// a line feed becomes CR LF on Windows.
void write_stderr(std::string_view text);

}  // namespace kova
