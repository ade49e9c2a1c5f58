#include "engine/ai/vector.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace kova::sample {
namespace {

Vector axis(std::size_t element, float value = 1) {
  Vector vector{};
  vector[element] = value;
  return vector;
}

Vector pseudo_random(std::uint32_t seed) {
  Vector vector;
  for (float& element : vector) {
    seed = seed * 1664525 + 1013904223;
    element = static_cast<float>(seed >> 8) / 16777216.0F - 0.5F;
  }
  EXPECT_TRUE(normalise(vector));
  return vector;
}

TEST(Vector, IsNormalisedAtEveryScale) {
  for (const float scale : {1e-30F, 1.0F, 3e38F}) {
    Vector vector = axis(3, scale);
    vector[4] = scale;
    ASSERT_TRUE(normalise(vector)) << scale;
    EXPECT_NEAR(vector[3], 0.70710678F, 1e-6) << scale;
  }
  Vector zero{};
  EXPECT_FALSE(normalise(zero));
}

TEST(Vector, TextNamesEachElementShortly) {
  Vector vector{};
  vector[0] = 0.1F;
  vector[1] = -1.5F;
  vector[2] = 1e-10F;
  const std::string text = vector_text(vector);
  EXPECT_TRUE(text.starts_with("[0.1,-1.5,1e-10,0,0,")) << text;
  EXPECT_TRUE(text.ends_with(",0]"));
  EXPECT_EQ(std::count(text.begin(), text.end(), ','), static_cast<std::ptrdiff_t>(kDimension) - 1);
}

TEST(Vector, TheLongestTextFitsACell) {
  Vector vector;
  vector.fill(-std::numeric_limits<float>::min());
  EXPECT_LT(vector_text(vector).size(), 16384U);
}

TEST(Vector, BytesAreReadBack) {
  const Vector vector = pseudo_random(1);
  Vector read{};
  ASSERT_TRUE(read_vector(vector_bytes(vector), read));
  EXPECT_EQ(read, vector);
  EXPECT_FALSE(read_vector(vector_bytes(vector).substr(1), read));
  EXPECT_FALSE(read_vector({}, read));
}

// Against the sum in double precision.
TEST(Vector, TheDotProductIsTheCosine) {
  for (std::uint32_t seed = 1; seed < 100; ++seed) {
    const Vector a = pseudo_random(seed);
    const Vector b = pseudo_random(seed + 1000);
    double sum = 0;
    for (std::size_t i = 0; i < kDimension; ++i) {
      sum += static_cast<double>(a[i]) * static_cast<double>(b[i]);
    }
    EXPECT_NEAR(dot_product(a, b), sum, 1e-6);
    EXPECT_NEAR(dot_product(a, a), 1, 1e-6);
  }
  EXPECT_FLOAT_EQ(dot_product(axis(1), axis(1, -1)), -1);
}

class VectorFunctions : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(sqlite3_open(":memory:", &database_), SQLITE_OK);
    ASSERT_TRUE(add_vector_functions(database_));
  }
  void TearDown() override { sqlite3_close(database_); }

  // The text of an expression of two blobs; "null" for a null.
  std::string value(const std::string& expression, std::string_view first,
                    std::string_view second) {
    sqlite3_stmt* statement = nullptr;
    const std::string sql = "SELECT " + expression;
    EXPECT_EQ(sqlite3_prepare_v2(database_, sql.c_str(), -1, &statement, nullptr), SQLITE_OK);
    sqlite3_bind_blob64(statement, 1, first.data(), first.size(), SQLITE_STATIC);
    sqlite3_bind_blob64(statement, 2, second.data(), second.size(), SQLITE_STATIC);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
    const std::string result = text != nullptr ? text : "null";
    sqlite3_finalize(statement);
    return result;
  }

  sqlite3* database_ = nullptr;
};

TEST_F(VectorFunctions, ScoreAndTextOfVectors) {
  const Vector up = axis(2);
  const Vector down = axis(2, -1);
  EXPECT_EQ(value("vector_score(?1, ?2)", vector_bytes(up), vector_bytes(down)), "-1.0");
  EXPECT_EQ(value("vector_text(?1)", vector_bytes(up), {}), vector_text(up));
}

TEST_F(VectorFunctions, WhatIsNoVectorGivesNull) {
  const Vector vector = axis(2);
  const std::string_view bytes = vector_bytes(vector);
  const std::string_view cut = bytes.substr(1);
  EXPECT_EQ(value("vector_score(?1, ?2)", bytes, cut), "null");
  EXPECT_EQ(value("vector_score(?1, ?2)", cut, bytes), "null");
  EXPECT_EQ(value("vector_score(?1, NULL)", bytes, {}), "null");
  EXPECT_EQ(value("vector_text(?1)", cut, {}), "null");
  EXPECT_EQ(value("vector_text(NULL)", {}, {}), "null");
}

}  // namespace
}  // namespace kova::sample
