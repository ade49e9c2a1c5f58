// The client library's operations without an engine.

#include <gtest/gtest.h>

#include "kovadll/kovadll.h"

namespace {

TEST(Handles, ThereIsOneInstance) {
  void* instance = KOVA_CreateVantreoInstance();
  ASSERT_NE(instance, nullptr);
  EXPECT_EQ(KOVA_CreateVantreoInstance(), instance);
  EXPECT_EQ(KOVA_DisableMessage(instance), 1);
}

TEST(Handles, NullHandlesAreFailures) {
  EXPECT_EQ(KOVA_DisableMessage(nullptr), 0);
  EXPECT_EQ(KOVA_StartVantreo(nullptr, 0, "127.0.0.1", "1"), nullptr);
  EXPECT_EQ(KOVA_NewObject(nullptr), nullptr);
  EXPECT_EQ(KOVA_Exec(nullptr, "list table;"), 0);
  EXPECT_EQ(KOVA_Status(nullptr), nullptr);
  EXPECT_EQ(KOVA_FieldCount(nullptr), 0);
  EXPECT_EQ(KOVA_FieldName(nullptr, 1), nullptr);
  EXPECT_EQ(KOVA_Next(nullptr), 0);
  EXPECT_EQ(KOVA_DataByFno(nullptr, 1), nullptr);
  KOVA_FreeObject(nullptr);
  KOVA_StopVantreo(nullptr);
}

TEST(Handles, NoEngineNoConnection) {
  void* instance = KOVA_CreateVantreoInstance();
  EXPECT_EQ(KOVA_StartVantreo(instance, 0, "127.0.0.1", "1"), nullptr) << "nobody listens";
  EXPECT_EQ(KOVA_StartVantreo(instance, 0, "127.0.0.1", "no port"), nullptr);
  EXPECT_EQ(KOVA_StartVantreo(instance, 0, nullptr, "1"), nullptr);
  EXPECT_EQ(KOVA_StartVantreo(instance, 0, "127.0.0.1", nullptr), nullptr);
}

}  // namespace
