#include "support/decimal_comma.h"

#include <clocale>
#include <cstdlib>
#include <string>

namespace kova::testing {

// Few systems have the locale, so it is made: the sources come with Debian's package `locales`.
DecimalComma::DecimalComma() {
  const std::string command = "localedef -i de_DE -f UTF-8 '" + folder_.file("de_DE.UTF-8") + "'";
  set_ = std::system(command.c_str()) == 0 && ::setenv("LOCPATH", folder_.path().c_str(), 1) == 0 &&
         std::setlocale(LC_NUMERIC, "de_DE.UTF-8") != nullptr;
}

DecimalComma::~DecimalComma() {
  std::setlocale(LC_NUMERIC, "C");
  ::unsetenv("LOCPATH");
}

}  // namespace kova::testing
