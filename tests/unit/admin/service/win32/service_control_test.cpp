#include "platform/service_control.h"

#include <gtest/gtest.h>

#include <string>

#include "base/text.h"

namespace kova {
namespace {

// The account that installs the system's own updates has an identifier that everybody knows.
TEST(ServiceIdentifier, IsWhatTheSystemCallsTheAccount) {
  for (const char* name : {"TrustedInstaller", "TRUSTEDINSTALLER"}) {
    char identifier[128];
    ASSERT_TRUE(service_identifier(name, identifier)) << name;
    EXPECT_EQ(std::string(identifier),
              "S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464");
  }
}

TEST(ServiceIdentifier, MustFit) {
  char small[16];
  EXPECT_FALSE(service_identifier("kova-mcp", small));
}

}  // namespace
}  // namespace kova
