#include "engine/ai/embedding.h"

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

Model learnt() {
  std::vector<std::vector<Term>> texts;
  for (int time = 0; time < kTimes; ++time) {
    for (const char* text : kTexts) texts.push_back(terms_of(text));
  }
  return learn(texts);
}

float similarity(const Vector& a, const Vector& b) {
  return std::inner_product(a.begin(), a.end(), b.begin(), 0.0F);
}

float similarity(const Model& model, std::string_view a, std::string_view b) {
  return similarity(embed(terms_of(a), model), embed(terms_of(b), model));
}

TEST(Embedding, VectorsHaveLengthOne) {
  const Model model = learnt();
  for (const char* text : {"photo", "photo gallery", "unheard of", "a photo photo photo"}) {
    EXPECT_NEAR(similarity(model, text, text), 1, 1e-5) << text;
  }
}

TEST(Embedding, ATextWithoutWordsIsZero) {
  const Vector vector = embed(terms_of("of the"), learnt());
  EXPECT_EQ(vector, Vector{});
  EXPECT_EQ(embed({}, Model()), Vector{});
}

TEST(Embedding, TheSameTextsTeachTheSameVectors) {
  const Model first = learnt();
  const Model second = learnt();
  for (const char* text : {"photo viewer", "compiler", "unheard of"}) {
    EXPECT_EQ(embed(terms_of(text), first), embed(terms_of(text), second));
  }
}

TEST(Embedding, SharedWordsBringTextsTogether) {
  const Model model = learnt();
  EXPECT_GT(similarity(model, "photo gallery", "gallery of photos"), 0.99);
  EXPECT_GT(similarity(model, "photo gallery", "photo archive"),
            similarity(model, "photo gallery", "compiler archive") + 0.1F);
}

TEST(Embedding, RareWordsCountMoreThanFrequentOnes) {
  const Model model = learnt();
  EXPECT_GT(similarity(model, "unheard compiler", "unheard photo"),
            similarity(model, "unheard compiler", "compiler photo"));
}

TEST(Embedding, WordsOfTheSameSurroundingsComeNear) {
  const Model model = learnt();
  EXPECT_GT(similarity(model, "photo", "picture"), similarity(model, "photo", "compiler") + 0.2F);
}

// The mean over many words: a single pair may be near or far by chance.
TEST(Embedding, PiecesBringMisspeltWordsNear) {
  constexpr int kWords = 200;
  const Model model = learnt();
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
    sum += similarity(model, word, misspelt);
  }
  EXPECT_GT(sum / kWords, 0.03F);
}

TEST(Embedding, RareWordsAreNotLearnt) {
  const Model model = learn({terms_of("twice rare"), terms_of("twice"), terms_of("often"),
                             terms_of("often"), terms_of("often")});
  EXPECT_EQ(model.texts, 5U);
  EXPECT_EQ(model.words.size(), 1U);
  EXPECT_EQ(model.words.begin()->second.texts, 3U);
}

}  // namespace
}  // namespace kova::sample
