// Benchmarks of parsing: "parse" judges a whole message, "take" also reads what the dispatcher and
// a tool read from it, "numbers" also converts the elements of a vector.
#pragma once

namespace kova_bench {

void register_parse_benchmarks();

}  // namespace kova_bench
