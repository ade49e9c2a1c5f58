// The terminal of the person in front of this process, whatever the standard streams are.
#pragma once

#include <cstdint>
#include <string_view>

#include "base/text.h"

namespace kova {

/// The controlling terminal, open for reading and writing until destruction. From `open` on, the
/// interrupt key, a terminal that goes and a request to end this process make `read_line` fail
/// instead of ending the process; from destruction on they end it again, and the terminal behaves
/// as before. One object at a time.
class Terminal {
 public:
  Terminal() = default;
  ~Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  /// False without a terminal.
  [[nodiscard]] bool open();
  /// Writes UTF-8 text; "\n" ends a line. False when the terminal has gone.
  [[nodiscard]] bool write(std::string_view text);
  /// Drops what was typed and not read yet.
  void drop_typed();
  /// Keeps what is typed from now on from being shown. False when the terminal cannot do that.
  [[nodiscard]] bool hide_typed();
  /// Waits for one line and writes it without its end. False when the terminal has gone or the
  /// person interrupts, and when the line does not fit.
  [[nodiscard]] bool read_line(TextOut line);
  /// The width in columns, 0 when the terminal does not tell.
  [[nodiscard]] unsigned columns() const;

 private:
  std::intptr_t input_ = -1;
  std::intptr_t output_ = -1;
  /// What the system calls the behaviour of both before they were opened or changed.
  std::uint32_t former_input_mode_ = 0;
  std::uint32_t former_output_mode_ = 0;
  bool is_changed_ = false;
};

/// Whether standard output is a terminal that takes colours.
[[nodiscard]] bool stdout_takes_colours();

/// Writes UTF-8 text to standard output, unbuffered. False when not all of it was taken.
[[nodiscard]] bool write_all_to_stdout(std::string_view bytes);

}  // namespace kova
