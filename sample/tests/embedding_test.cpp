#include "engine/embedding.h"

#include <gtest/gtest.h>

#include <numeric>
#include <string>
#include <vector>

namespace kova::sample {
namespace {

std::vector<Term> terms_of(std::string_view text, float weight = 1) {
  std::vector<Term> terms;
  add_terms(text, weight, terms);
  return terms;
}

std::vector<std::string> words_of(std::string_view text) {
  std::vector<std::string> words;
  for (const Term& term : terms_of(text)) words.push_back(term.word);
  return words;
}

using Words = std::vector<std::string>;

TEST(TextTerms, HashesAreThoseOfFnv1a) {
  EXPECT_EQ(term_hash(""), 0xCBF29CE484222325U);
  EXPECT_EQ(term_hash("a"), 0xAF63DC4C8601EC8CU);
  EXPECT_EQ(term_hash("foobar"), 0x85944171F73967E8U);
}

TEST(TextTerms, WordsAreLettersDigitsAndBytesBeyondAscii) {
  EXPECT_EQ(words_of("libpng16-16, (X11) na\xC3\xAFve\tSQL"),
            (Words{"libpng16", "16", "x11", "na\xC3\xAFv", "sql"}));
  EXPECT_EQ(words_of(" ...; \n"), Words());
}

TEST(TextTerms, FrequentWordsAreLeftOut) {
  EXPECT_EQ(words_of("The use of an editor with your files"), (Words{"edit", "fil"}));
}

TEST(TextTerms, FormsOfAWordAreOne) {
  for (const char* form : {"edit", "edits", "Editor", "editors", "editing", "edited"}) {
    EXPECT_EQ(words_of(form), Words{"edit"}) << form;
  }
  for (const char* form : {"compress", "compressed", "compression", "compressor", "compressing"}) {
    EXPECT_EQ(words_of(form), Words{"compress"}) << form;
  }
  for (const char* form : {"library", "libraries"}) EXPECT_EQ(words_of(form), Words{"library"});
  for (const char* form : {"run", "runs", "running"}) EXPECT_EQ(words_of(form), Words{"run"});
  for (const char* form : {"image", "images", "imaging"}) EXPECT_EQ(words_of(form), Words{"imag"});
}

TEST(TextTerms, ShortWordsKeepTheirEndings) {
  for (const char* word : {"ring", "ion", "red", "gas", "bus", "css", "er", "s"}) {
    EXPECT_EQ(words_of(word), Words{word});
  }
}

TEST(TextTerms, OccurrencesAddUpWithTheirWeights) {
  std::vector<Term> terms = terms_of("photo and photos");
  add_terms("Photo", 3, terms);
  ASSERT_EQ(terms.size(), 1U);
  EXPECT_FLOAT_EQ(terms[0].weight, 5);
}

TEST(TextTerms, PiecesAreThreeToFiveBytesOfTheMarkedWord) {
  std::vector<std::uint64_t> expected;
  for (const char* piece : {"<ab", "ab>", "<ab>"}) expected.push_back(term_hash(piece));
  EXPECT_EQ(pieces_of("ab"), expected);
  EXPECT_EQ(pieces_of("a").size(), 1U);
  EXPECT_EQ(pieces_of("photo").size(), 5U + 4U + 3U);
}

// "photo" and "picture" never stand together, but among the same words.
constexpr const char* kTexts[] = {
    "photo viewer for cameras",
    "picture viewer for cameras",
    "photo gallery with cameras",
    "picture gallery with cameras",
    "photo archive",
    "picture archive",
    "compiler for a language",
    "language interpreter",
    "compiler and interpreter",
    "assembler and compiler",
    "assembler of a language",
    "interpreter library",
};

constexpr int kTimes = 40;

Embedding learnt() {
  Embedding embedding;
  for (int time = 0; time < kTimes; ++time) {
    for (const char* text : kTexts) embedding.count(terms_of(text));
  }
  embedding.begin_relating();
  for (int time = 0; time < kTimes; ++time) {
    for (const char* text : kTexts) embedding.relate(terms_of(text));
  }
  embedding.end_relating();
  return embedding;
}

float similarity(const Vector& a, const Vector& b) {
  return std::inner_product(a.begin(), a.end(), b.begin(), 0.0F);
}

float similarity(const Embedding& embedding, std::string_view a, std::string_view b) {
  return similarity(embedding.embed(terms_of(a)), embedding.embed(terms_of(b)));
}

TEST(Embedding, VectorsHaveLengthOne) {
  const Embedding embedding = learnt();
  for (const char* text : {"photo", "photo gallery", "unheard of", "a photo photo photo"}) {
    EXPECT_NEAR(similarity(embedding, text, text), 1, 1e-5) << text;
  }
}

TEST(Embedding, ATextWithoutWordsIsZero) {
  const Vector vector = learnt().embed(terms_of("of the"));
  EXPECT_EQ(vector, Vector{});
  EXPECT_EQ(Embedding().embed({}), Vector{});
}

TEST(Embedding, TheSameTextsTeachTheSameVectors) {
  const Embedding first = learnt();
  const Embedding second = learnt();
  for (const char* text : {"photo viewer", "compiler", "unheard of"}) {
    EXPECT_EQ(first.embed(terms_of(text)), second.embed(terms_of(text)));
  }
}

TEST(Embedding, SharedWordsBringTextsTogether) {
  const Embedding embedding = learnt();
  EXPECT_GT(similarity(embedding, "photo gallery", "gallery of photos"), 0.99);
  EXPECT_GT(similarity(embedding, "photo gallery", "photo archive"),
            similarity(embedding, "photo gallery", "compiler archive") + 0.1F);
}

TEST(Embedding, RareWordsCountMoreThanFrequentOnes) {
  const Embedding embedding = learnt();
  EXPECT_GT(similarity(embedding, "unheard compiler", "unheard photo"),
            similarity(embedding, "unheard compiler", "compiler photo"));
}

TEST(Embedding, WordsOfTheSameSurroundingsComeNear) {
  const Embedding embedding = learnt();
  EXPECT_GT(similarity(embedding, "photo", "picture"),
            similarity(embedding, "photo", "compiler") + 0.2F);
}

// The mean over many words: a single pair may be near or far by chance.
TEST(Embedding, PiecesBringMisspeltWordsNear) {
  constexpr int kWords = 200;
  const Embedding embedding = learnt();
  std::uint32_t state = 1;
  float sum = 0;
  for (int i = 0; i < kWords; ++i) {
    std::string word;
    while (word.size() < 12) {
      state = state * 1664525 + 1013904223;
      word += static_cast<char>('a' + (state >> 24) % 26);
    }
    std::string misspelt = word;
    misspelt.erase(5, 1);
    sum += similarity(embedding, word, misspelt);
  }
  EXPECT_GT(sum / kWords, 0.03F);
}

TEST(Embedding, RestoredWhatWasLearntEmbedsTheSame) {
  const Embedding original = learnt();
  Embedding restored;
  restored.restore(original.documents());
  for (const auto& [hash, word] : original.words()) restored.restore(hash, word);
  for (const char* text : {"photo viewer", "compiler", "unheard of"}) {
    EXPECT_EQ(original.embed(terms_of(text)), restored.embed(terms_of(text)));
  }
}

}  // namespace
}  // namespace kova::sample
