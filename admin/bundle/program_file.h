// Programs and libraries of the two systems, told by their first bytes.
#pragma once

#include <string_view>

namespace kova::admin {

/// The systems that a bundle can serve; x86-64 both.
enum class System { kWindows, kLinux };

/// What a file of machine code is.
struct ProgramFile {
  System system;
  bool is_library;  ///< loaded by a program and not started itself
};

/// Reads the header of a PE32+ image (Microsoft's PE format) or of an ELF64 file for x86-64. Throws
/// Refusal for anything else. A Linux program is built to be loaded anywhere, as libraries are: it
/// counts as a library unless it names its loader.
[[nodiscard]] ProgramFile read_program_file(std::string_view bytes);

}  // namespace kova::admin
