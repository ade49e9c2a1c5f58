#include "support/decimal_comma.h"

#include <clocale>

namespace kova::testing {

DecimalComma::DecimalComma() : set_(std::setlocale(LC_NUMERIC, "German_Germany.1252") != nullptr) {}

DecimalComma::~DecimalComma() {
  std::setlocale(LC_NUMERIC, "C");
}

}  // namespace kova::testing
