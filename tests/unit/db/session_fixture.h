// A session on the scripted client library, and an engine that can be reached.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "db/session.h"
#include "support/environment.h"
#include "support/fake_library.h"
#include "support/loopback_listener.h"

namespace kova::testing {

using Calls = std::vector<std::string>;

class EngineSession : public ::testing::Test {
 protected:
  EngineSession() { session.load_library = FakeLibrary::load; }

  LoopbackListener listener;
  ScopedEnvironment server_variable{"KOVA_MCP_SERVER", "127.0.0.1"};
  ScopedEnvironment port_variable{"KOVA_MCP_PORT", listener.port()};
  ScopedEnvironment database_variable{"KOVA_MCP_DATABASE", "SHOP"};
  ScopedEnvironment user_variable{"KOVA_MCP_USER", "reader"};
  ScopedEnvironment password_variable{"KOVA_MCP_PASSWORD", "pa,ss word"};
  FakeLibrary library;
  DbSession session;
};

}  // namespace kova::testing
