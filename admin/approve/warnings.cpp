#include "admin/approve/warnings.h"

#include <algorithm>
#include <iterator>

#include "admin/approve/sql_tokens.h"
#include "admin/approve/statement_rows.h"

namespace kova::admin {

namespace {

constexpr std::size_t kNameLimit = 63;

/// Words before "(" that call nothing.
constexpr std::string_view kNoFunctions[] = {
    "ALL",    "AND",    "ANY",   "AS",     "BETWEEN", "BY",        "CASE",   "DISTINCT", "ELSE",
    "EXCEPT", "EXISTS", "FROM",  "HAVING", "IN",      "INTERSECT", "INTO",   "IS",       "JOIN",
    "LIKE",   "LIMIT",  "NOT",   "ON",     "OR",      "RETURNING", "SELECT", "SET",      "SOME",
    "THEN",   "UNION",  "USING", "VALUES", "WHEN",    "WHERE",     "WITH"};

/// Words after which a table's name stands.
constexpr std::string_view kTableWords[] = {"FROM", "INTO", "JOIN", "TABLE", "USING"};

/// Words that begin a query in parentheses: tables are named later in it.
constexpr std::string_view kQueryWords[] = {"SELECT", "TABLE", "VALUES", "WITH"};

/// Words that end a list of tables or a condition.
constexpr std::string_view kClauseWords[] = {"CONNECT", "FETCH",  "GROUP",     "HAVING", "LIMIT",
                                             "ON",      "ORDER",  "RETURNING", "SELECT", "SET",
                                             "UNION",   "VALUES", "WHERE"};

template <std::size_t N>
bool is_one_of(const std::string_view (&words)[N], const SqlToken& token) {
  return token.kind == TokenKind::kWord &&
         std::find(std::begin(words), std::end(words), token.text) != std::end(words);
}

/// Places of one kind: the first one and how many.
struct Places {
  std::size_t first = 0;
  std::size_t count = 0;

  void add(std::size_t index) {
    if (count == 0 || index < first) first = index;
    ++count;
  }
};

/// Looks at one accepted write.
class Reader {
 public:
  explicit Reader(const ClassifiedWrite& write)
      : canonical_(write.canonical),
        type_(write.type),
        table_(write.table),
        tokens_(sql_tokens(canonical_)),
        target_(type_ == "UPDATE" ? 1 : 2) {}

  [[nodiscard]] Places no_where() const {
    Places places;
    if (type_ != "INSERT" && where() == tokens_.size()) places.add(0);
    return places;
  }

  [[nodiscard]] Places where_without_literal() const {
    Places places;
    const std::size_t begin = where();
    if (type_ == "INSERT" || begin == tokens_.size()) return places;
    for (std::size_t i = begin + 1; i < tokens_.size(); ++i) {
      const SqlToken& token = tokens_[i];
      if (token.kind == TokenKind::kLiteral || token.kind == TokenKind::kNumber) return places;
      if (token.depth == 0 && is_one_of(kClauseWords, token)) break;
    }
    places.add(tokens_[begin].begin);
    return places;
  }

  [[nodiscard]] Places subselect() const {
    Places places;
    const std::size_t inserting = inserting_select();
    for (std::size_t i = 0; i < tokens_.size(); ++i) {
      if (i != inserting && tokens_[i].is_word("SELECT")) places.add(tokens_[i].begin);
    }
    return places;
  }

  [[nodiscard]] Places insert_select() const {
    Places places;
    const std::size_t inserting = inserting_select();
    if (inserting != tokens_.size()) places.add(tokens_[inserting].begin);
    return places;
  }

  /// Names of other tables after FROM, INTO, JOIN, TABLE or USING and in lists of tables; every
  /// JOIN.
  [[nodiscard]] Places second_table() const {
    Places places;
    add_list(target_, places);
    for (std::size_t i = target_ + 1; i + 1 < tokens_.size(); ++i) {
      if (!is_one_of(kTableWords, tokens_[i])) continue;
      const std::size_t name = table_after(i);
      if (name != tokens_.size() && (tokens_[i].is_word("JOIN") || !is_target(name))) {
        places.add(tokens_[name].begin);
      }
      add_list(i + 1, places);
    }
    return places;
  }

  /// The policy judges one word; the engine may read another name there.
  [[nodiscard]] Places qualified_target() const {
    Places places;
    const bool plain = target_ + 1 < tokens_.size() && verb_is_plain() && is_table(target_) &&
                       is_target(target_) && ends_name(tokens_[target_ + 1]);
    if (!plain) places.add(target_ < tokens_.size() ? tokens_[target_].begin : 0);
    return places;
  }

  [[nodiscard]] Places double_quoted() const {
    Places places;
    for (const SqlToken& token : tokens_) {
      if (token.kind == TokenKind::kQuoted || token.is_sign('"')) places.add(token.begin);
    }
    return places;
  }

  [[nodiscard]] Places apostrophe_in_double_quotes() const {
    Places places;
    for (const SqlToken& token : tokens_) {
      if (!token.is_sign('"')) continue;
      const std::size_t apostrophe = canonical_.find('\'', token.begin);
      if (apostrophe != canonical_.npos) places.add(apostrophe);
    }
    return places;
  }

  [[nodiscard]] Places non_ascii() const {
    Places places;
    bool inside = false;
    for (std::size_t i = 0; i < canonical_.size(); ++i) {
      const bool beyond = static_cast<unsigned char>(canonical_[i]) >= 0x80;
      if (beyond && !inside) places.add(i);
      inside = beyond;
    }
    return places;
  }

  [[nodiscard]] Places function_call() const {
    Places places;
    for (std::size_t i = 0; i + 1 < tokens_.size(); ++i) {
      const SqlToken& token = tokens_[i];
      const bool named = is_table(i) || token.is_sign('`') || token.is_sign(']');
      const bool of_target = i == target_ || (opens_name(target_) && i == target_ + 2);
      if (named && !of_target && tokens_[i + 1].is_sign('(') && !is_one_of(kNoFunctions, token)) {
        places.add(token.begin);
      }
    }
    return places;
  }

  [[nodiscard]] Places long_name() const {
    Places places;
    for (const SqlToken& token : tokens_) {
      const std::size_t quotes = token.kind == TokenKind::kQuoted ? 2 : 0;
      const bool named = token.kind == TokenKind::kWord || quotes > 0;
      if (named && token.text.size() - quotes > kNameLimit) places.add(token.begin);
    }
    return places;
  }

  [[nodiscard]] Places too_long() const {
    Places places;
    const auto rows = statement_rows(canonical_, kScreenColumns);
    if (rows.size() > kScreenRows) places.add(rows[kScreenRows].begin);
    return places;
  }

 private:
  /// The index of the condition's WHERE, or how many tokens there are.
  [[nodiscard]] std::size_t where() const {
    const auto found = std::find_if(tokens_.begin(), tokens_.end(), [](const SqlToken& token) {
      return token.depth == 0 && token.is_word("WHERE");
    });
    return static_cast<std::size_t>(found - tokens_.begin());
  }

  /// The index of the SELECT whose rows an INSERT inserts, or how many tokens there are.
  [[nodiscard]] std::size_t inserting_select() const {
    if (type_ != "INSERT") return tokens_.size();
    const auto found = std::find_if(tokens_.begin(), tokens_.end(), [](const SqlToken& token) {
      return token.is_word("SELECT") || token.is_word("VALUES");
    });
    if (found == tokens_.end() || found->is_word("VALUES")) return tokens_.size();
    return static_cast<std::size_t>(found - tokens_.begin());
  }

  [[nodiscard]] bool is_table(std::size_t index) const {
    return index < tokens_.size() &&
           (tokens_[index].kind == TokenKind::kWord || tokens_[index].kind == TokenKind::kQuoted);
  }

  /// Whether a name may begin with this sign: engines differ on which signs quote one.
  [[nodiscard]] bool opens_name(std::size_t index) const {
    return index < tokens_.size() && (tokens_[index].is_sign('`') || tokens_[index].is_sign('['));
  }

  /// The index of the table's name after the token at `index`, behind parentheses and signs that
  /// quote it, or how many tokens there are.
  [[nodiscard]] std::size_t table_after(std::size_t index) const {
    std::size_t name = index + 1;
    while (name < tokens_.size() && (tokens_[name].is_sign('(') || opens_name(name))) ++name;
    const bool is_query = name < tokens_.size() && is_one_of(kQueryWords, tokens_[name]);
    return is_table(name) && !is_query ? name : tokens_.size();
  }

  /// Whether the name is the one that the policy has judged, in double quotes or without.
  [[nodiscard]] bool is_target(std::size_t index) const {
    const SqlToken& token = tokens_[index];
    const bool quoted = token.kind == TokenKind::kQuoted;
    const std::string_view name = quoted ? token.text.substr(1, token.text.size() - 2) : token.text;
    return name.substr(0, kNameLimit) == table_;
  }

  /// Whether the statement begins with the words that the classifier has found.
  [[nodiscard]] bool verb_is_plain() const {
    if (!tokens_[0].is_word(type_)) return false;
    if (type_ == "INSERT") return tokens_[1].is_word("INTO");
    return type_ == "UPDATE" || tokens_[1].is_word("FROM");
  }

  /// Whether a name can end before this token.
  [[nodiscard]] static bool ends_name(const SqlToken& next) {
    constexpr std::string_view kSigns = "(,;=";
    return next.kind == TokenKind::kWord || next.kind == TokenKind::kQuoted ||
           (next.kind == TokenKind::kSign && kSigns.find(next.text) != kSigns.npos);
  }

  /// Adds the names after the commas of the list of tables that begins at `begin`.
  void add_list(std::size_t begin, Places& places) const {
    if (begin >= tokens_.size()) return;
    const int depth = tokens_[begin].depth;
    for (std::size_t i = begin + 1; i < tokens_.size() && tokens_[i].depth >= depth; ++i) {
      if (tokens_[i].depth != depth) continue;
      // After another word for tables their list is a list of its own.
      if (is_one_of(kClauseWords, tokens_[i]) || is_one_of(kTableWords, tokens_[i])) return;
      const std::size_t name = tokens_[i].is_sign(',') ? table_after(i) : tokens_.size();
      if (name != tokens_.size()) places.add(tokens_[name].begin);
    }
  }

  std::string_view canonical_;
  std::string_view type_;
  std::string_view table_;
  std::vector<SqlToken> tokens_;
  std::size_t target_;
};

struct Rule {
  const char* name;
  const char* meaning;
  Places (Reader::*find)() const;
};

constexpr Rule kRules[] = {
    {"no-where", "no WHERE: every row of the table is meant", &Reader::no_where},
    {"where-without-literal", "WHERE compares with no literal: it may hold for every row",
     &Reader::where_without_literal},
    {"subselect", "a sub-select", &Reader::subselect},
    {"insert-select", "the rows to insert come from a SELECT", &Reader::insert_select},
    {"second-table", "a second table", &Reader::second_table},
    {"qualified-target",
     "the target is no plain name: the engine may take another table than the policy judged",
     &Reader::qualified_target},
    {"double-quoted", "text in double quotes: a name or a string, as the engine takes it",
     &Reader::double_quoted},
    {"apostrophe-in-double-quotes",
     "an apostrophe inside double quotes: the engine may end the literals elsewhere",
     &Reader::apostrophe_in_double_quotes},
    {"non-ascii", "letters beyond ASCII: some look like others", &Reader::non_ascii},
    {"function-call", "a function call", &Reader::function_call},
    {"long-name", "a name of more than 63 characters: only 63 are compared", &Reader::long_name},
    {"long", "more than a screenful: 24 rows of 80 columns", &Reader::too_long},
};

}  // namespace

std::vector<Warning> find_warnings(const ClassifiedWrite& write) {
  const Reader reader(write);
  std::vector<Warning> warnings;
  for (const Rule& rule : kRules) {
    const Places places = (reader.*rule.find)();
    if (places.count == 0) continue;
    warnings.push_back({.name = rule.name,
                        .meaning = rule.meaning,
                        .index = places.first,
                        .places = places.count});
  }
  return warnings;
}

}  // namespace kova::admin
