#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "engine/store.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "engine/dialect.h"
#include "tests/engine_fixture.h"

namespace kova::sample {
namespace {

class StoreTest : public testing::Test {
 protected:
  void SetUp() override {
    make_database(folder_ / "shop.db",
                  "CREATE TABLE ITEMS (ID INTEGER PRIMARY KEY, NAME TEXT NOT NULL);"
                  "CREATE INDEX ITEMS_BY_NAME ON ITEMS (NAME);"
                  "CREATE TABLE PARTS (ITEM INTEGER REFERENCES ITEMS (ID));"
                  "INSERT INTO ITEMS VALUES (1, 'one');");
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets_), 0);
    watch_ = std::make_unique<ClientWatch>(sockets_[0], stopping_);
    std::string error;
    store_ = Store::open(folder_ / "shop.db", *watch_, error);
    ASSERT_NE(store_, nullptr) << error;
  }

  void TearDown() override {
    store_.reset();
    ::close(sockets_[0]);
    if (sockets_[1] >= 0) ::close(sockets_[1]);
  }

  void leave() {
    ::close(sockets_[1]);
    sockets_[1] = -1;
  }

  // The words of a statement's refusal; empty when it was prepared.
  std::string prepared(const char* sql, Rights rights) {
    Query query;
    return store_->prepare(sql, rights, query) ? "" : store_->error();
  }

  TemporaryFolder folder_;
  std::atomic<bool> stopping_ = false;
  int sockets_[2] = {-1, -1};
  std::unique_ptr<ClientWatch> watch_;
  std::shared_ptr<Store> store_;
};

TEST_F(StoreTest, ReadersReadAndNothingElse) {
  EXPECT_EQ(prepared("SELECT * FROM ITEMS", Rights::kRead), "");
  EXPECT_EQ(prepared("SELECT NAME FROM sqlite_schema", Rights::kRead), "");
  for (const char* sql :
       {"INSERT INTO ITEMS VALUES (2, 'two')", "UPDATE ITEMS SET NAME = ''", "DELETE FROM ITEMS",
        "PRAGMA user_version", "PRAGMA query_only=0", "ATTACH ':memory:' AS other",
        "CREATE TABLE X (Y)", "CREATE TEMP TABLE X (Y)", "DROP TABLE ITEMS", "BEGIN", "SAVEPOINT s",
        "REINDEX ITEMS", "ANALYZE", "ALTER TABLE ITEMS ADD X", "CREATE VIEW V AS SELECT 1",
        "SELECT load_extension('x')"}) {
    EXPECT_NE(prepared(sql, Rights::kRead), "") << sql;
  }
}

TEST_F(StoreTest, WritersChangeRowsAndNothingElse) {
  EXPECT_EQ(prepared("INSERT INTO ITEMS SELECT 2, NAME FROM ITEMS", Rights::kChange), "");
  for (const char* sql :
       {"DELETE FROM sqlite_schema", "UPDATE SQLITE_SCHEMA SET sql = ''",
        "INSERT INTO sqlite_sequence VALUES ('x', 1)", "PRAGMA query_only=0", "DROP TABLE ITEMS",
        "CREATE TABLE X (Y)", "ATTACH ':memory:' AS other", "REINDEX ITEMS"}) {
    EXPECT_NE(prepared(sql, Rights::kChange), "") << sql;
  }
}

TEST_F(StoreTest, ExactlyOneStatementIsPrepared) {
  EXPECT_EQ(prepared("SELECT 1; ; \n", Rights::kRead), "");
  EXPECT_EQ(prepared("SELECT 1; SELECT 2", Rights::kRead), "only one statement at a time");
  EXPECT_EQ(prepared("SELECT 1; -- and", Rights::kRead), "only one statement at a time");
  EXPECT_EQ(prepared("-- nothing", Rights::kRead), "the statement is empty");
}

TEST_F(StoreTest, TheConnectionIsReadOnlyUntilAChangeAndAfterIt) {
  Query insert;
  ASSERT_TRUE(store_->prepare("INSERT INTO ITEMS VALUES (2, 'two')", Rights::kEngine, insert));
  EXPECT_EQ(insert.step(), Query::Step::kFailed);
  EXPECT_EQ(store_->error(), "attempt to write a readonly database");
  insert.close();
  std::int64_t rows = 0;
  ASSERT_TRUE(store_->change("INSERT INTO ITEMS VALUES (2, 'two')", Rights::kChange, rows));
  EXPECT_EQ(rows, 1);
  ASSERT_TRUE(store_->prepare("INSERT INTO ITEMS VALUES (3, 'three')", Rights::kEngine, insert));
  EXPECT_EQ(insert.step(), Query::Step::kFailed);
}

TEST_F(StoreTest, AFailedChangeLeavesNothingBehind) {
  std::int64_t rows = 0;
  EXPECT_FALSE(
      store_->change("INSERT INTO ITEMS VALUES (2, 'two'), (1, 'again')", Rights::kChange, rows));
  EXPECT_EQ(store_->error(), "UNIQUE constraint failed: ITEMS.ID");
  EXPECT_FALSE(store_->change("INSERT INTO PARTS VALUES (9)", Rights::kChange, rows));
  EXPECT_EQ(store_->error(), "FOREIGN KEY constraint failed");
  EXPECT_FALSE(store_->change("VACUUM", Rights::kChange, rows));
  EXPECT_EQ(store_->error(), "cannot VACUUM from within a transaction");
  ASSERT_TRUE(store_->change("UPDATE ITEMS SET NAME = 'uno'", Rights::kChange, rows));
  EXPECT_EQ(rows, 1);
}

TEST_F(StoreTest, AClientThatHasGoneInterrupts) {
  leave();
  Query endless;
  ASSERT_TRUE(
      store_->prepare("SELECT COUNT(*) FROM (WITH RECURSIVE C(N) AS (SELECT 1 UNION ALL"
                      " SELECT N+1 FROM C) SELECT N FROM C)",
                      Rights::kRead, endless));
  EXPECT_EQ(endless.step(), Query::Step::kFailed);
  EXPECT_EQ(store_->error(), "interrupted");
}

TEST_F(StoreTest, AClientThatHasGoneCommitsNothing) {
  leave();
  std::int64_t rows = 0;
  EXPECT_FALSE(store_->change("DELETE FROM ITEMS", Rights::kChange, rows));
  EXPECT_EQ(store_->error(), "interrupted");
  Query count;
  ASSERT_TRUE(store_->prepare("SELECT 1 FROM ITEMS", Rights::kRead, count));
  EXPECT_EQ(count.step(), Query::Step::kRow);
}

TEST_F(StoreTest, TheEnginesStopInterrupts) {
  stopping_ = true;
  Query endless;
  ASSERT_TRUE(
      store_->prepare("SELECT COUNT(*) FROM (WITH RECURSIVE C(N) AS (SELECT 1 UNION ALL"
                      " SELECT N+1 FROM C) SELECT N FROM C)",
                      Rights::kRead, endless));
  EXPECT_EQ(endless.step(), Query::Step::kFailed);
}

TEST_F(StoreTest, ABusyDatabaseIsNotWaitedForWhenTheClientHasGone) {
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open((folder_ / "shop.db").c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  leave();
  std::int64_t rows = 0;
  const auto started = std::chrono::steady_clock::now();
  EXPECT_FALSE(store_->change("DELETE FROM ITEMS", Rights::kChange, rows));
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(1));
  sqlite3_close(other);
}

TEST_F(StoreTest, APathThatIsNoDatabaseHasWords) {
  write_file(folder_ / "text.db", "this is no database, but it is long enough to be looked at");
  std::string error;
  EXPECT_EQ(Store::open(folder_ / "text.db", *watch_, error), nullptr);
  EXPECT_EQ(error, "file is not a database");
  EXPECT_EQ(Store::open(folder_ / "missing.db", *watch_, error), nullptr);
  EXPECT_EQ(error, "unable to open database file");
}

class Dialect : public StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    write_file(folder_ / "users", "app:secret\n");
    std::string error;
    ASSERT_TRUE(users_.load(folder_ / "users", error)) << error;
    databases_ = std::make_unique<Databases>(folder_.path());
    session_ = std::make_unique<Session>(users_, *databases_, *watch_);
    ASSERT_TRUE(run_statement(*session_, "use shop;").success);
    ASSERT_TRUE(run_statement(*session_, "login app,secret;").success);
  }

  std::string status_of(std::string_view statement) {
    return run_statement(*session_, statement).status;
  }

  Users users_;
  std::unique_ptr<Databases> databases_;
  std::unique_ptr<Session> session_;
};

TEST_F(Dialect, DropsTheSessionsOwnTemporaryTables) {
  std::string error;
  Store* store = session_->store(error);
  ASSERT_NE(store, nullptr) << error;
  ASSERT_TRUE(store->run("PRAGMA query_only=0") && store->run("CREATE TEMP TABLE HITS (N)") &&
              store->run("INSERT INTO HITS VALUES (7)") && store->run("PRAGMA query_only=1"));
  EXPECT_TRUE(run_statement(*session_, "SELECT N FROM HITS;").success);
  EXPECT_EQ(status_of("Drop  Table\thits ;"), "OK");
  EXPECT_EQ(status_of("SELECT N FROM HITS;"), "no such table: HITS");
  EXPECT_EQ(status_of("drop table HITS;"), "no such temporary table: HITS");
  EXPECT_EQ(status_of("drop table ITEMS;"), "no such temporary table: ITEMS");
  EXPECT_EQ(status_of("drop table temp.HITS;"), "expected: drop table NAME;");
  EXPECT_EQ(status_of("drop view HITS;"), "expected: drop table NAME;");
}

TEST_F(Dialect, ATemporaryTableThatHidesAnOrdinaryOneGoesAlone) {
  std::string error;
  Store* store = session_->store(error);
  ASSERT_TRUE(store->run("PRAGMA query_only=0") && store->run("CREATE TEMP TABLE ITEMS (N)") &&
              store->run("PRAGMA query_only=1"));
  EXPECT_EQ(status_of("drop table items;"), "OK");
  EXPECT_TRUE(run_statement(*session_, "SELECT NAME FROM ITEMS;").success);
}

TEST_F(Dialect, LogsNoPassword) {
  EXPECT_EQ(loggable("login app,secret;"), "LOGIN");
  EXPECT_EQ(loggable(" LoGiN app,secret"), "LOGIN");
  EXPECT_EQ(loggable("use shop; login app,secret;"), "USE");
  EXPECT_EQ(loggable("logni app,secret;"), "(unknown statement)");
  EXPECT_EQ(loggable("app,secret"), "(unknown statement)");
  EXPECT_EQ(status_of("logni app,secret;"), "unknown statement: logni");
  EXPECT_EQ(status_of("login;app,secret"), "wrong user or password");
}

TEST_F(Dialect, LogsOneBoundedLine) {
  EXPECT_EQ(loggable(" SELECT\n1\t; "), "SELECT 1 ;");
  const std::string line = loggable("SELECT " + std::string(5000, 'x'));
  EXPECT_EQ(line.size(), 203U);
  EXPECT_TRUE(line.ends_with("..."));
}

}  // namespace
}  // namespace kova::sample
