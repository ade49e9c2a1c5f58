// Changes SQL text by its pieces: words, literals, blanks and marks are replaced, added, removed,
// repeated and swapped, words change their case and length, and whole statements are made by a
// small grammar. One change in five is libFuzzer's own, of bytes.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/mutator.h"
#include "fuzz/plain_sql.h"
#include "fuzz/random.h"

namespace {

using kova::fuzz::Random;
using kova::fuzz::SqlPiece;
using Texts = std::vector<std::string>;

constexpr std::string_view kWords[] = {
    "SELECT",   "FROM",       "JOIN",     "WHERE",      "GROUP",  "ORDER",  "HAVING", "UNION",
    "BY",       "AS",         "ON",       "INNER",      "LEFT",   "AND",    "OR",     "IN",
    "INSERT",   "INTO",       "VALUES",   "UPDATE",     "SET",    "DELETE", "MERGE",  "WITH",
    "CREATE",   "DROP",       "ALTER",    "EXEC",       "CALL",   "LOAD",   "USE",    "LOCK",
    "ATTACH",   "PROVIDER",   "COUNT",    "T",          "notes",  "a",      "b1",     "_x",
    "packages", "maintainer", "ssn",      "NULL",       "xfrom",  "fromx",  "COMMIT", "EXECUTE",
    "GRANT",    "REVOKE",     "ROLLBACK", "RUN",        "IMPORT", "EXPORT", "LOGIN",  "LOGOUT",
    "SYNC",     "DETACH",     "UNLOCK",   "TRANSACTION"};
constexpr std::string_view kMarks[] = {
    "(", ")",  ",", ";", "*", ".", "=",   "'", "''", "'''", "--",       "/*",   "*/", "#", "-",
    "/", "\"", "[", "]", "0", "9", "1.5", "<", ">",  "\\",  "\xC3\xA4", "\x80", "+",  "%"};
constexpr std::string_view kBlanks[] = {" ", " ", " ", "\t", "\n", "\r\n", "\v", "\f", "   ", ""};
constexpr std::string_view kLiterals[] = {"''",      "'a'",        "'it''s'", "'; --'",  "'DROP'",
                                          "'/* */'", "'FROM ssn'", "''''",    "' a  B '"};

std::string any_word(Random& random) {
  std::string word(random.of(kWords));
  if (random.one_in(3)) {
    for (char& c : word) {
      if (((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z')) && random.one_in(2)) {
        c = static_cast<char>(c ^ 0x20);
      }
    }
  }
  // Words are compared by their first 63 bytes.
  if (random.one_in(40))
    word.append(random.below(4) + 62 - std::min<std::size_t>(word.size(), 62), 'x');
  return word;
}

std::string any_piece(Random& random) {
  switch (random.below(8)) {
    case 0:
      return std::string(random.of(kBlanks));
    case 1:
      return std::string(random.of(kLiterals));
    case 2:
    case 3:
      return std::string(random.of(kMarks));
    default:
      return any_word(random);
  }
}

std::string blank(Random& random) {
  return random.one_in(8) ? std::string(random.of(kBlanks)) : " ";
}

std::string list(Random& random, std::string_view separator) {
  std::string text = any_word(random);
  while (random.one_in(2)) {
    text += std::string(separator) + blank(random);
    text += random.one_in(4) ? std::string(random.of(kLiterals)) : any_word(random);
  }
  return text;
}

std::string any_select(Random& random) {
  std::string sql = "SELECT" + blank(random) + (random.one_in(6) ? "*" : list(random, ","));
  sql += blank(random) + "FROM" + blank(random) + (random.one_in(4) ? list(random, " x,") : "T");
  if (random.one_in(4)) sql += " JOIN packages ON T.a = packages.b";
  if (random.one_in(2)) sql += " WHERE " + list(random, " =");
  if (random.one_in(4)) sql += " GROUP BY " + list(random, ",");
  return sql + (random.one_in(3) ? ";" : "");
}

std::string any_write(Random& random) {
  const std::string table = random.one_in(6) ? any_word(random) : "notes";
  const std::string rest = random.one_in(2) ? " WHERE " + list(random, " =") : "";
  switch (random.below(3)) {
    case 0:
      return "INSERT" + blank(random) + "INTO " + table + " VALUES (" + list(random, ",") + ")";
    case 1:
      return "UPDATE " + table + " SET a =" + list(random, ", b =") + rest;
    default:
      return "delete from" + blank(random) + table + rest + ";";
  }
}

Texts texts_of(std::string_view sql) {
  Texts texts;
  for (const SqlPiece& piece : kova::fuzz::pieces_of(sql)) texts.emplace_back(piece.text);
  return texts;
}

void change(Texts& texts, Random& random) {
  if (texts.empty()) texts.push_back(any_piece(random));
  const auto at = static_cast<std::ptrdiff_t>(random.below(texts.size()));
  const auto other = static_cast<std::ptrdiff_t>(random.below(texts.size()));
  const auto here = texts.begin() + at;
  switch (random.below(8)) {
    case 0:
    case 1:
      *here = any_piece(random);
      break;
    case 2:
    case 3:
      texts.insert(here, random.one_in(2) ? any_piece(random) : " " + any_word(random) + " ");
      break;
    case 4:
      texts.erase(here);
      break;
    case 5:
      texts.insert(here, std::string(texts[static_cast<std::size_t>(other)]));
      break;
    case 6:
      std::swap(*here, texts[static_cast<std::size_t>(other)]);
      break;
    default: {
      constexpr std::string_view kPairs[] = {"()", "''", "\"\"", "[]"};
      const std::string_view pair = random.of(kPairs);
      *here = std::string(pair.substr(0, 1)) + *here + std::string(pair.substr(1));
    }
  }
}

std::string joined(const Texts& texts) {
  std::string sql;
  for (const std::string& text : texts) sql += text;
  return sql;
}

}  // namespace

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t max_size,
                                    unsigned seed) {
  Random random(seed);
  if (random.one_in(5)) return LLVMFuzzerMutate(data, size, max_size);
  if (random.one_in(50)) {
    return kova::fuzz::give(random.one_in(2) ? any_select(random) : any_write(random), data,
                            max_size);
  }
  Texts texts = texts_of(kova::fuzz::text_of(data, size));
  do change(texts, random);
  while (random.one_in(3));
  return kova::fuzz::give(joined(texts), data, max_size);
}

/// The beginning of one statement and the end of another one, cut between pieces.
std::size_t LLVMFuzzerCustomCrossOver(const std::uint8_t* first, std::size_t first_size,
                                      const std::uint8_t* second, std::size_t second_size,
                                      std::uint8_t* out, std::size_t max_size, unsigned seed) {
  Random random(seed);
  Texts texts = texts_of(kova::fuzz::text_of(first, first_size));
  const Texts others = texts_of(kova::fuzz::text_of(second, second_size));
  texts.resize(random.below(texts.size() + 1));
  const auto from = static_cast<std::ptrdiff_t>(random.below(others.size() + 1));
  texts.insert(texts.end(), others.begin() + from, others.end());
  return kova::fuzz::give(joined(texts), out, max_size);
}
