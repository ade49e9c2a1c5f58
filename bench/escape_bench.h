// Benchmarks of writing a text as a JSON string literal, into a reply line and into a result.
#pragma once

namespace kova_bench {

void register_escape_benchmarks();

}  // namespace kova_bench
