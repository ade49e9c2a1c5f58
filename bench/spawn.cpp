#include "spawn.h"

namespace kova_bench {

bool Spawned::run(const char* path, const char* argument, std::string_view line,
                  std::string& reply) {
  return start(path, argument) && write(line) && read_line(reply) && wait();
}

bool Spawned::read_line(std::string& line) {
  line.clear();
  for (;;) {
    char block[4096];
    const std::size_t got = read_some(block, sizeof block);
    if (got == 0) return false;
    line.append(block, got);
    const std::size_t feed = line.find('\n');
    if (feed != std::string::npos) {
      line.resize(feed);
      return true;
    }
  }
}

void Spawned::wait_for_companions() {
  char rest[256];
  while (read_some(rest, sizeof rest) > 0) {
  }
}

}  // namespace kova_bench
