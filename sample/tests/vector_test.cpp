#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "engine/vector_index.h"

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

std::vector<std::int64_t> ids_of(const std::vector<Hit>& hits) {
  std::vector<std::int64_t> ids;
  for (const Hit& hit : hits) ids.push_back(hit.id);
  return ids;
}

using Ids = std::vector<std::int64_t>;

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

TEST(VectorIndex, RanksByCosineSimilarity) {
  VectorIndex index;
  Vector between = axis(1);
  between[2] = 1;
  ASSERT_TRUE(normalise(between));
  index.put(10, axis(1));
  index.put(20, axis(2));
  index.put(30, between);
  index.put(40, axis(1, -1));
  const std::vector<Hit> hits = index.nearest(axis(1), 10);
  EXPECT_EQ(ids_of(hits), (Ids{10, 30, 20, 40}));
  EXPECT_FLOAT_EQ(hits[0].score, 1);
  EXPECT_NEAR(hits[1].score, 0.70710678F, 1e-6);
  EXPECT_FLOAT_EQ(hits[2].score, 0);
  EXPECT_FLOAT_EQ(hits[3].score, -1);
}

TEST(VectorIndex, EqualsComeByTheirIds) {
  VectorIndex index;
  for (const std::int64_t id : {7, 3, 9, 1}) index.put(id, axis(0));
  EXPECT_EQ(ids_of(index.nearest(axis(0), 2)), (Ids{1, 3}));
}

TEST(VectorIndex, AnswersAtMostWhatItHas) {
  VectorIndex index;
  EXPECT_TRUE(index.nearest(axis(0), 5).empty());
  index.put(1, axis(0));
  EXPECT_EQ(index.nearest(axis(0), 5).size(), 1U);
  EXPECT_TRUE(index.nearest(axis(0), 0).empty());
}

TEST(VectorIndex, ReplacesAndRemoves) {
  VectorIndex index;
  for (const std::int64_t id : {1, 2, 3}) index.put(id, axis(static_cast<std::size_t>(id)));
  index.put(2, axis(9));
  index.remove(1);
  index.remove(1);
  index.remove(77);
  EXPECT_EQ(index.size(), 2U);
  EXPECT_EQ(ids_of(index.nearest(axis(9), 1)), Ids{2});
  EXPECT_EQ(ids_of(index.nearest(axis(3), 1)), Ids{3});
  index.put(3, axis(8));  // which has moved into the gap of 1
  EXPECT_EQ(ids_of(index.nearest(axis(8), 1)), Ids{3});
  EXPECT_EQ(ids_of(index.nearest(axis(9), 1)), Ids{2});
  index.remove(3);
  index.remove(2);
  EXPECT_EQ(index.size(), 0U);
  index.put(2, axis(2));
  EXPECT_EQ(ids_of(index.nearest(axis(2), 1)), Ids{2});
}

// Against sorting all scores, summed in double precision.
TEST(VectorIndex, FindsWhatSortingFinds) {
  VectorIndex index;
  std::vector<Vector> vectors;
  for (std::uint32_t i = 0; i < 500; ++i) {
    vectors.push_back(pseudo_random(i + 1));
    index.put(i, vectors.back());
  }
  const Vector query = pseudo_random(1000);
  std::vector<std::pair<double, std::int64_t>> expected;
  for (std::size_t i = 0; i < vectors.size(); ++i) {
    double sum = 0;
    for (std::size_t k = 0; k < kDimension; ++k) {
      sum += static_cast<double>(query[k]) * static_cast<double>(vectors[i][k]);
    }
    expected.emplace_back(-sum, static_cast<std::int64_t>(i));
  }
  std::sort(expected.begin(), expected.end());
  const std::vector<Hit> hits = index.nearest(query, 50);
  ASSERT_EQ(hits.size(), 50U);
  for (std::size_t rank = 0; rank < hits.size(); ++rank) {
    EXPECT_NEAR(hits[rank].score, -expected[rank].first, 1e-5) << rank;
  }
  EXPECT_EQ(hits[0].id, expected[0].second);
}

}  // namespace
}  // namespace kova::sample
