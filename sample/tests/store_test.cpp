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
    store_ = Store::open(folder_ / "shop.db");
    store_->watch(watch_.get());
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

  // The message of a statement's refusal; empty when it was prepared.
  std::string prepared(const char* sql, Rights rights) {
    return message_of([&] { static_cast<void>(store_->prepare(sql, rights)); });
  }

  // The message of a change's failure, or how many rows it has changed.
  std::string changed(const char* sql) {
    std::int64_t rows = 0;
    const std::string message = message_of([&] { rows = store_->change(sql, Rights::kChange); });
    return message.empty() ? std::to_string(rows) : message;
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
  const auto insert = [&] { store_->prepare("INSERT INTO ITEMS VALUES (3, 'three')").run(); };
  EXPECT_EQ(message_of(insert), "attempt to write a readonly database");
  EXPECT_EQ(changed("INSERT INTO ITEMS VALUES (2, 'two')"), "1");
  EXPECT_EQ(message_of(insert), "attempt to write a readonly database");
}

TEST_F(StoreTest, AFailedChangeLeavesNothingBehind) {
  EXPECT_EQ(changed("INSERT INTO ITEMS VALUES (2, 'two'), (1, 'again')"),
            "UNIQUE constraint failed: ITEMS.ID");
  EXPECT_EQ(changed("INSERT INTO PARTS VALUES (9)"), "FOREIGN KEY constraint failed");
  EXPECT_EQ(changed("VACUUM"), "cannot VACUUM from within a transaction");
  EXPECT_EQ(changed("UPDATE ITEMS SET NAME = 'uno'"), "1");
}

TEST_F(StoreTest, WorkThatThrowsIsRolledBack) {
  const std::string message = message_of([&] {
    store_->transact(Transaction::kChange, [&] {
      store_->run("DELETE FROM ITEMS");
      throw Failure("no more");
    });
  });
  EXPECT_EQ(message, "no more");
  EXPECT_TRUE(store_->has_row("SELECT 1 FROM ITEMS"));
}

constexpr const char* kEndless =
    "SELECT COUNT(*) FROM (WITH RECURSIVE C(N) AS (SELECT 1 UNION ALL SELECT N+1 FROM C)"
    " SELECT N FROM C)";

TEST_F(StoreTest, AClientThatHasGoneInterrupts) {
  Query endless = store_->prepare(kEndless, Rights::kRead);
  leave();
  EXPECT_THROW(endless.step(), PassingFailure);
  EXPECT_EQ(message_of([&] { endless.step(); }), "interrupted");
}

TEST_F(StoreTest, AClientThatHasGoneCommitsNothing) {
  leave();
  EXPECT_EQ(changed("DELETE FROM ITEMS"), "interrupted");
  EXPECT_TRUE(store_->has_row("SELECT 1 FROM ITEMS"));
}

TEST_F(StoreTest, TheEnginesStopInterrupts) {
  stopping_ = true;
  Query endless = store_->prepare(kEndless, Rights::kRead);
  EXPECT_THROW(endless.step(), PassingFailure);
}

TEST_F(StoreTest, ABusyDatabaseIsNotWaitedForWhenTheClientHasGone) {
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open((folder_ / "shop.db").c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  leave();
  const auto started = std::chrono::steady_clock::now();
  EXPECT_NE(changed("DELETE FROM ITEMS"), "1");
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(1));
  sqlite3_close(other);
}

TEST_F(StoreTest, APathThatIsNoDatabaseHasAMessage) {
  write_file(folder_ / "text.db", "this is no database, but it is long enough to be looked at");
  const auto open = [&](const char* name) {
    return message_of([&] { static_cast<void>(Store::open(folder_ / name)); });
  };
  EXPECT_EQ(open("text.db"), "file is not a database");
  EXPECT_EQ(open("missing.db"), "unable to open database file");
}

// The connections that a database keeps.

TEST_F(StoreTest, AConnectionIsUsedAgain) {
  Database database(folder_ / "shop.db");
  std::shared_ptr<Store> first = database.take(*watch_);
  const Store* known = first.get();
  database.give_back(std::move(first), 0);
  std::shared_ptr<Store> second = database.take(*watch_);
  std::shared_ptr<Store> third = database.take(*watch_);
  EXPECT_EQ(second.get(), known);
  EXPECT_NE(third.get(), known) << "one session at a time";
  EXPECT_TRUE(second->has_row("SELECT 1 FROM ITEMS"));
}

TEST_F(StoreTest, AConnectionWithAQueryOrATemporaryTableIsNotUsedAgain) {
  Database database(folder_ / "shop.db");
  std::shared_ptr<Store> store = database.take(*watch_);
  const std::weak_ptr<Store> reading = store;
  Query query = store->prepare("SELECT 1 FROM ITEMS");
  database.give_back(std::move(store), 0);
  query.close();
  EXPECT_TRUE(reading.expired());
  store = database.take(*watch_);
  const std::weak_ptr<Store> keeping = store;
  database.temporary_tables = 3;
  database.give_back(std::move(store), 2);
  EXPECT_TRUE(keeping.expired());
  EXPECT_EQ(database.temporary_tables, 1);
}

TEST_F(StoreTest, AClientThatHasGoneInterruptsNotTheNextOne) {
  Database database(folder_ / "shop.db");
  ClientWatch next(-1, stopping_);
  leave();
  std::shared_ptr<Store> store = database.take(*watch_);
  EXPECT_THROW(store->change("DELETE FROM PARTS", Rights::kChange), PassingFailure);
  database.give_back(std::move(store), 0);
  store = database.take(next);
  EXPECT_EQ(store->change("DELETE FROM ITEMS", Rights::kChange), 1);
}

class Dialect : public StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    write_file(folder_ / "users", "app:secret\n");
    users_ = std::make_unique<Users>(folder_ / "users");
    databases_ = std::make_unique<Databases>(folder_.path());
    session_ = std::make_unique<Session>(*users_, *databases_, *watch_);
    ASSERT_EQ(status_of("use shop;"), "OK");
    ASSERT_EQ(status_of("login app,secret;"), "OK");
  }

  // The status of a statement, or the message of its failure.
  std::string status_of(std::string_view statement) {
    std::string status;
    const std::string message =
        message_of([&] { status = run_statement(*session_, statement).status; });
    return message.empty() ? status : message;
  }

  // A temporary table is made by searches only.
  void make_temporary_table(const std::string& table) {
    Store& store = session_->store();
    store.transact(Transaction::kTemporary,
                   [&] { store.run(("CREATE TEMP TABLE " + table + " (N)").c_str()); });
    session_->count_temporary_tables(1);
  }

  std::unique_ptr<Users> users_;
  std::unique_ptr<Databases> databases_;
  std::unique_ptr<Session> session_;
};

TEST_F(Dialect, DropsTheSessionsOwnTemporaryTables) {
  make_temporary_table("HITS");
  EXPECT_EQ(status_of("SELECT N FROM HITS;"), "OK");
  EXPECT_EQ(session_->all_temporary_tables(), 1);
  EXPECT_EQ(status_of("Drop  Table\thits ;"), "OK");
  EXPECT_EQ(session_->all_temporary_tables(), 0);
  EXPECT_EQ(status_of("SELECT N FROM HITS;"), "no such table: HITS");
  EXPECT_EQ(status_of("drop table HITS;"), "no such temporary table: HITS");
  EXPECT_EQ(status_of("drop table ITEMS;"), "no such temporary table: ITEMS");
  EXPECT_EQ(status_of("drop table temp.HITS;"), "expected: drop table NAME;");
  EXPECT_EQ(status_of("drop view HITS;"), "expected: drop table NAME;");
}

TEST_F(Dialect, ATemporaryTableThatHidesAnOrdinaryOneGoesAlone) {
  make_temporary_table("ITEMS");
  EXPECT_EQ(status_of("drop table items;"), "OK");
  EXPECT_EQ(status_of("SELECT NAME FROM ITEMS;"), "OK");
}

TEST_F(Dialect, TemporaryTablesEndWithTheSession) {
  make_temporary_table("A");
  make_temporary_table("B");
  EXPECT_EQ(session_->end(), 2);
  EXPECT_EQ(session_->all_temporary_tables(), 0);
  EXPECT_EQ(status_of("SELECT N FROM A;"), "no such table: A");
  EXPECT_EQ(session_->end(), 0);
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
