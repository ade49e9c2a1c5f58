// Read before every source of a build for mutation testing: chooses the one change that is made.
#pragma once

/// The change that is made; 0 for none. Set from KOVA_MUTANT before any other initialiser runs.
extern int kova_mutant_chosen;
/// Where the numbers of the changes that are come by are marked; null unless that is asked for.
extern unsigned char* kova_mutant_reached;

inline bool kova_mutant(int number) {
  if (kova_mutant_reached != nullptr) kova_mutant_reached[number] = 1;
  return kova_mutant_chosen == number;
}

/// The same in functions that the compiler may evaluate; there no change is made.
constexpr bool kova_mutant_if_run(int number) {
  return __builtin_is_constant_evaluated() ? false : kova_mutant(number);
}

template <class Number>
constexpr Number kova_mutant_next(Number value) {
  return static_cast<Number>(value + 1);
}
