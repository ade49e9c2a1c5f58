// Which statements carry which warnings, and where.
#include "admin/approve/warnings.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "admin/approve/statement_rows.h"
#include "unit/policy/classified.h"

namespace kova::testing {
namespace {

class Warnings : public WriteClassifier {
 protected:
  /// The warnings as "name line:column", each with its number of places when there are several.
  std::vector<std::string> warnings_of(std::string_view sql) {
    EXPECT_TRUE(classify(sql)) << sql << ": " << message;
    std::vector<std::string> found;
    for (const admin::Warning& warning : admin::find_warnings(*write)) {
      const admin::Place place = admin::place_of(write->canonical, warning.index);
      found.push_back(std::string(warning.name) + ' ' + std::to_string(place.line) + ':' +
                      std::to_string(place.column));
      if (warning.places > 1) found.back() += " x" + std::to_string(warning.places);
    }
    return found;
  }
};

struct Case {
  std::string sql;
  std::vector<std::string> warnings;
};

TEST_F(Warnings, OfEachStatement) {
  const std::string name63(63, 'N');
  const Case cases[] = {
      // Nothing to look at.
      {"insert into t (a, b) values (1, 'x')", {}},
      {"insert into t values (1)", {}},
      {"update t set a = 1 where id = 7", {}},
      {"update t set a = 1, b = 'x' where id in (1, 2) and not (c = 3 or exists (4))", {}},
      {"delete from t where name = 'where; select max(1) from \"x\" -- join'", {}},
      {"update orders as o set a = 2 where o.id = 1", {}},
      // No condition at the outermost level, whatever literals, names and sub-selects hold.
      {"delete from t", {"no-where 1:1"}},
      {"update t set a = 'where b = 1'", {"no-where 1:1"}},
      {"update t set a = \"WHERE\"", {"no-where 1:1", "double-quoted 1:18"}},
      {"update t set wherever = 1", {"no-where 1:1"}},
      {"update t set a = (select b from t where c = 1)", {"no-where 1:1", "subselect 1:19"}},
      // A condition that compares with nothing.
      {"delete from t where a = a", {"where-without-literal 1:15"}},
      {"delete from t where a is null", {"where-without-literal 1:15"}},
      {"update t set a = 1 where b = c2", {"where-without-literal 1:20"}},
      {"delete from t where a = b limit 5", {"where-without-literal 1:15"}},
      {"delete from t where a = b and c = ''", {}},
      {"delete from t where a > .5", {}},
      // Sub-selects and inserted rows.
      {"delete from t where id in (select id from t where a = 1)", {"subselect 1:28"}},
      {"insert into t values ((select 1), (select 2))", {"subselect 1:24 x2"}},
      {"insert into t select a, b from t where c = 1", {"insert-select 1:15"}},
      {"insert into t (a) (select 1 union select 2)", {"subselect 1:35", "insert-select 1:20"}},
      // Other tables.
      {"insert into t select a from u where b = 1", {"insert-select 1:15", "second-table 1:29"}},
      {"delete from t using u where t.a = 1", {"second-table 1:21"}},
      {"delete from t using u, v join w on 1 = 1 where a = 1", {"second-table 1:21 x3"}},
      {"delete from t, u where a = 1", {"second-table 1:16"}},
      {"update t, u set a = 1 where b = 2", {"second-table 1:11"}},
      {"update t set a = 1 from t as x, \"U\" where b = 2",
       {"second-table 1:33", "double-quoted 1:33"}},
      {"update t join t on 1 = 1 set a = 1 where b = 2", {"second-table 1:15"}},
      {"insert into t table u", {"second-table 1:21"}},
      {"delete from t where id in (select a from t, u where b = 1)",
       {"subselect 1:28", "second-table 1:45"}},
      {"delete from t where id in (select a from (u) where b = 1)",
       {"subselect 1:28", "second-table 1:43"}},
      {"delete from t where id in (select a from (select b from u) where c = 1)",
       {"subselect 1:28 x2", "second-table 1:57"}},
      {"update t set a = 1 from `u` where b = 2", {"second-table 1:26"}},
      {"delete from t using [u], `t` where a = 1", {"second-table 1:22 x2"}},
      {"delete from t using `t` where a = 1", {}},
      {"update t, `u` set a = 1 where b = 2", {"second-table 1:12"}},
      // The policy judged another word than the engine may take for the table.
      {"update t.secret set a = 1 where b = 2", {"qualified-target 1:8"}},
      {"delete from t . secret where b = 2", {"qualified-target 1:13"}},
      {"insert into t@link values (1)", {"qualified-target 1:13"}},
      {"update 9.t set a = 1 where b = 2", {"qualified-target 1:8"}},
      {"update \xC3\x84.t set a = 1 where b = 2", {"qualified-target 1:8", "non-ascii 1:8"}},
      {"'update t' drop_all", {"no-where 1:1", "qualified-target 1:12"}},
      {"update \"t\" set a = 1 where b = 2", {"double-quoted 1:8"}},
      {"update \"t\".\"u\" set a = 1 where b = 2",
       {"qualified-target 1:8", "double-quoted 1:8 x2"}},
      // Double quotes.
      {"update t set a = \"b\" where c = 1", {"double-quoted 1:18"}},
      {"update t set a = \" where c = 1", {"double-quoted 1:18"}},
      {"update t set a = '\"' where c = 1", {}},
      {"update t set a = \"b'c\" where d = 'e\" where f = 1",
       {"double-quoted 1:18 x2", "apostrophe-in-double-quotes 1:20"}},
      // Letters beyond ASCII, in literals too.
      {"update t set a = 'gr\xC3\xBC\xC3\x9F' where c = '\xD0\xB0'", {"non-ascii 1:21 x2"}},
      // Calls.
      {"update t set a = now () where c = f(1)", {"function-call 1:18 x2"}},
      {"delete from t where \"F\"(1) = 2", {"double-quoted 1:21", "function-call 1:21"}},
      {"insert into t(a) values(f)", {}},
      {"delete from t where `f`(1) = [g] (2)", {"function-call 1:23 x2"}},
      {"insert into `t`(a) values (1)", {"qualified-target 1:13"}},
      // Names.
      {"update t set " + name63 + " = 1 where b = 2", {}},
      {"update t set " + name63 + "x = 1 where b = 2", {"long-name 1:14"}},
      {"update t set \"" + name63 + "x\" = 1 where b = 2",
       {"double-quoted 1:14", "long-name 1:14"}},
      // Places after a line feed, which only a literal can hold.
      {"update t set a = 'x\ny', b = f(1)\nwhere c = 2", {"function-call 2:9"}},
  };
  for (const Case& one : cases) {
    EXPECT_EQ(warnings_of(one.sql), one.warnings) << one.sql;
  }
}

TEST_F(Warnings, ALongStatementHasMoreThan24RowsOf80Columns) {
  const std::string head = "UPDATE T SET A = '";
  const std::string tail = "' WHERE B = 1;";
  const std::size_t room = 24 * 80 - head.size() - tail.size();
  EXPECT_TRUE(warnings_of(head + std::string(room, 'x') + tail).empty());
  EXPECT_EQ(warnings_of(head + std::string(room + 1, 'x') + tail),
            std::vector<std::string>{"long 1:1921"});
  // Escapes count as they are shown.
  EXPECT_EQ(warnings_of(head + std::string(room / 4 + 1, '\x01') + tail).size(), 1U);
  // Each line feed ends a row.
  EXPECT_TRUE(warnings_of(head + std::string(23, '\n') + tail).empty());
  EXPECT_EQ(warnings_of(head + std::string(24, '\n') + tail),
            std::vector<std::string>{"long 25:1"});
}

}  // namespace
}  // namespace kova::testing
