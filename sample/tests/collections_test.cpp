// Collections and their jobs on one connection; the statements are tested from outside.
#include "engine/ai/collection.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "engine/ai/jobs.h"
#include "engine/dialect.h"
#include "tests/engine_fixture.h"

namespace kova::sample {
namespace {

constexpr const char* kArticles =
    "CREATE TABLE ARTICLES (ID INTEGER PRIMARY KEY, TITLE TEXT, BODY TEXT, PRICE INTEGER);"
    "INSERT INTO ARTICLES VALUES (1, 'red car', 'a fast car', 1), (2, 'blue boat', 'sails', 2),"
    " (3, NULL, NULL, 3);"
    "CREATE TABLE AI_COLLECTIONS (NAME TEXT PRIMARY KEY COLLATE NOCASE, SOURCE_TABLE TEXT,"
    " KEY_COLUMN TEXT, TEXT_COLUMNS TEXT, PROVIDER TEXT);"
    "INSERT INTO AI_COLLECTIONS VALUES ('DOCS', 'ARTICLES', 'ID', 'TITLE 2, BODY', 'LOCAL');";

using Rows = std::vector<std::string>;

class CollectionsTest : public testing::Test {
 protected:
  void SetUp() override {
    make_database(folder_ / "shop.db", kArticles);
    write_file(folder_ / "users", "app:secret\n");
    users_ = std::make_unique<Users>(folder_ / "users");
    databases_ = std::make_unique<Databases>(folder_.path());
    session_ = std::make_unique<Session>(*users_, *databases_, watch_);
    session_->login("app", "secret");
    store_ = open();
  }

  std::shared_ptr<Store> open() {
    std::shared_ptr<Store> store = Store::open(folder_ / "shop.db");
    store->watch(&watch_);
    return store;
  }

  void run(Retry retry = Retry::kNothing) { bring_up_to_date(*store_, retry); }

  void change(const char* sql) { store_->change(sql, Rights::kChange); }

  // From outside, as the maker of a database.
  void administer(const char* sql) { make_database(folder_ / "shop.db", sql); }

  // Each row's cells with blanks between.
  static Rows rows_of(Query& query) {
    Rows rows;
    while (query.step()) {
      std::string row;
      for (int column = 0; column < query.columns(); ++column) {
        const std::string_view cell = query.cell(column);
        row += (column > 0 ? " " : "") + (cell.data() == nullptr ? "-" : std::string(cell));
      }
      rows.push_back(row);
    }
    return rows;
  }

  Rows rows(const std::string& sql) {
    Query query = store_->prepare(sql);
    return rows_of(query);
  }

  Rows jobs() {
    return rows("SELECT ID, KIND, SOURCE_KEY, STATE FROM AI_JOBS WHERE COLLECTION = 'DOCS'");
  }

  // The source keys of the hits, or the message of the failure.
  Rows search(const std::string& text, const std::string& name = "DOCS") {
    Rows keys;
    const std::string message = message_of([&] {
      session_->use("shop");
      Outcome outcome =
          run_statement(*session_, "SEARCH AI " + name + " TEXT '" + text + "' TOP 10");
      for (const std::string& row : rows_of(outcome.query)) {
        keys.push_back(row.substr(row.rfind(' ') + 1));
      }
    });
    return message.empty() ? keys : Rows{message};
  }

  std::string best(const std::string& text) { return search(text).at(0); }

  TemporaryFolder folder_;
  std::atomic<bool> stopping_ = false;
  ClientWatch watch_{-1, stopping_};
  std::shared_ptr<Store> store_;
  std::unique_ptr<Users> users_;
  std::unique_ptr<Databases> databases_;
  std::unique_ptr<Session> session_;
};

TEST_F(CollectionsTest, ABuildMakesAVectorForEachRow) {
  std::vector<int> percents;
  bring_up_to_date(*store_, Retry::kNothing, [&](std::string_view collection, int percent) {
    EXPECT_EQ(collection, "DOCS");
    percents.push_back(percent);
  });
  EXPECT_EQ(jobs(), Rows{"1 BUILD - DONE"});
  EXPECT_EQ(rows("SELECT SOURCE_KEY, length(VECTOR) FROM AI_VECTORS ORDER BY SOURCE_KEY"),
            (Rows{"1 1024", "2 1024", "3 1024"}));
  EXPECT_TRUE(std::is_sorted(percents.begin(), percents.end()));
  EXPECT_EQ(percents.back(), 100);
  EXPECT_EQ(best("fast cars"), "1");
  EXPECT_EQ(best("sailing boats"), "2");
}

TEST_F(CollectionsTest, TwoBuildsOfTheSameRowsAreEqual) {
  run();
  const std::string vectors = "SELECT SOURCE_KEY, VECTOR FROM DOCS_VECTORS ORDER BY SOURCE_KEY";
  const Rows first = rows(vectors);
  administer("INSERT INTO AI_JOBS (COLLECTION, KIND) VALUES ('DOCS', 'BUILD')");
  run();
  EXPECT_EQ(rows(vectors), first);
  EXPECT_TRUE(first[0].starts_with("1 ["));
}

TEST_F(CollectionsTest, WithoutDefinitionsNothingIsMade) {
  make_database(folder_ / "plain.db", "CREATE TABLE T (A);");
  store_ = Store::open(folder_ / "plain.db");
  run();
  EXPECT_EQ(rows("SELECT name FROM sqlite_schema"), Rows{"T"});
  EXPECT_EQ(collection_names(*store_), Rows{});
  EXPECT_EQ(message_of([&] { static_cast<void>(find_collection(*store_, "DOCS")); }),
            "no such collection: DOCS");
}

TEST_F(CollectionsTest, TheFirstSessionBuilds) {
  session_->use("shop");
  static_cast<void>(session_->store());
  EXPECT_EQ(jobs(), Rows{"1 BUILD - DONE"});
}

TEST_F(CollectionsTest, AStatementThatChangesRowsRunsTheirJobs) {
  session_->use("shop");
  EXPECT_EQ(run_statement(*session_, "INSERT INTO ARTICLES VALUES (4, 'train', '', 4)").status,
            "1 row inserted");
  EXPECT_EQ(jobs(), (Rows{"1 BUILD - DONE", "2 INSERT 4 DONE"}));
  EXPECT_EQ(rows("SELECT COUNT(*) FROM DOCS_VECTORS"), Rows{"4"});
}

TEST_F(CollectionsTest, ChangesOfRowsAreQueuedAndDoneInTheirOrder) {
  run();
  change("INSERT INTO ARTICLES VALUES (4, 'green bicycle', 'two wheels', 4)");
  change("UPDATE ARTICLES SET TITLE = 'yellow submarine', BODY = 'dives' WHERE ID = 2");
  change("DELETE FROM ARTICLES WHERE ID = 1");
  EXPECT_EQ(jobs(), (Rows{"1 BUILD - DONE", "2 INSERT 4 QUEUED", "3 UPDATE 2 QUEUED",
                          "4 DELETE 1 QUEUED"}));
  run();
  EXPECT_EQ(jobs(),
            (Rows{"1 BUILD - DONE", "2 INSERT 4 DONE", "3 UPDATE 2 DONE", "4 DELETE 1 DONE"}));
  EXPECT_EQ(best("bicycle wheels"), "4");
  EXPECT_EQ(best("diving submarine"), "2");
  const Rows all = search("fast car");
  EXPECT_EQ(std::count(all.begin(), all.end(), "1"), 0);
  EXPECT_EQ(all.size(), 3U);
}

TEST_F(CollectionsTest, AChangedKeyMovesTheVector) {
  run();
  change("UPDATE ARTICLES SET ID = 9 WHERE ID = 1");
  run();
  EXPECT_EQ(jobs(), (Rows{"1 BUILD - DONE", "2 DELETE 1 DONE", "3 UPDATE 9 DONE"}));
  EXPECT_EQ(best("fast car"), "9");
  EXPECT_EQ(search("fast car").size(), 3U);
}

TEST_F(CollectionsTest, ARowThatComesBackIsFoundAgain) {
  run();
  change("DELETE FROM ARTICLES WHERE ID = 1");
  run();
  EXPECT_EQ(search("fast car").size(), 2U);
  change("INSERT INTO ARTICLES VALUES (1, 'red car', 'again', 1)");
  run();
  EXPECT_EQ(best("red car"), "1");
  EXPECT_EQ(search("red car").size(), 3U);
}

TEST_F(CollectionsTest, ARolledBackChangeQueuesNothing) {
  run();
  EXPECT_THROW(change("INSERT INTO ARTICLES (ID) VALUES (7), (1)"), Failure);
  EXPECT_EQ(jobs(), Rows{"1 BUILD - DONE"});
}

TEST_F(CollectionsTest, JobsAreCountedNeitherAsChangedRowsNorChangedByAnybody) {
  run();
  EXPECT_EQ(store_->change("UPDATE ARTICLES SET PRICE = 0", Rights::kChange), 3);
  for (const char* sql :
       {"DELETE FROM AI_JOBS", "UPDATE AI_VECTORS SET VECTOR = NULL",
        "INSERT INTO AI_COLLECTIONS VALUES ('X', 'ARTICLES', 'ID', 'BODY', 'LOCAL')",
        "DELETE FROM ai_words", "UPDATE AI_MODELS SET TEXTS = 0"}) {
    EXPECT_EQ(message_of([&] { change(sql); }), "not authorized") << sql;
  }
}

TEST_F(CollectionsTest, WhatAnotherProgramHasChangedIsSeen) {
  run();
  EXPECT_EQ(best("fast car"), "1");
  administer("UPDATE ARTICLES SET TITLE = 'train', BODY = 'on rails' WHERE ID = 3");
  EXPECT_EQ(best("train on rails"), "3");
  administer(
      "DELETE FROM ARTICLES; INSERT INTO AI_JOBS (COLLECTION, KIND) VALUES ('DOCS', 'BUILD')");
  EXPECT_EQ(search("fast car"), Rows{"collection DOCS is empty"});
}

TEST_F(CollectionsTest, JobsThatCannotRunNowHoldUpNoSearch) {
  run();
  administer("UPDATE ARTICLES SET TITLE = 'train' WHERE ID = 3");
  stopping_ = true;
  EXPECT_FALSE(try_to_bring_up_to_date(*store_));
  EXPECT_EQ(jobs().back(), "2 UPDATE 3 QUEUED");
}

TEST_F(CollectionsTest, KeysKeepTheirType) {
  administer(
      "CREATE TABLE WORDS (W TEXT, T TEXT); INSERT INTO WORDS VALUES ('7', 'seven'),"
      " (NULL, 'lost'); INSERT INTO AI_COLLECTIONS VALUES ('W', 'WORDS', 'W', 'T', 'local');");
  run();
  EXPECT_EQ(rows("SELECT COLLECTION, SOURCE_KEY, typeof(SOURCE_KEY) FROM AI_VECTORS ORDER BY 1, 2"),
            (Rows{"DOCS 1 integer", "DOCS 2 integer", "DOCS 3 integer", "W 7 text"}));
}

TEST_F(CollectionsTest, OldFinishedJobsAreNotKept) {
  run();
  administer(
      "INSERT INTO AI_JOBS (COLLECTION, KIND, SOURCE_KEY) WITH RECURSIVE C(N) AS (SELECT 1"
      " UNION ALL SELECT N+1 FROM C LIMIT 1200) SELECT 'DOCS', 'UPDATE', 1 FROM C");
  run();
  EXPECT_EQ(rows("SELECT COUNT(*) FROM AI_JOBS WHERE KIND <> 'BUILD'"), Rows{"1000"});
  EXPECT_EQ(rows("SELECT MIN(ID), MAX(ID), COUNT(*) FROM AI_JOBS"), Rows{"1 1201 1001"});
  EXPECT_EQ(rows("SELECT COUNT(*) FROM AI_JOBS WHERE KIND = 'BUILD'"), Rows{"1"});
}

struct Wrong {
  const char* definition;
  const char* message;
};

TEST_F(CollectionsTest, WrongDefinitionsBecomeFailedBuildsWithAMessage) {
  const Wrong wrongs[] = {
      {"'NOWHERE', 'ID', 'BODY', 'LOCAL'", "no such table: main.NOWHERE"},
      {"'ARTICLES', 'NO', 'BODY', 'LOCAL'", "no such column: S.NO"},
      {"'ARTICLES', 'ID', 'TITLE, NO', 'LOCAL'", "no such column: S.NO"},
      {"'ARTICLES', 'ID', '', 'LOCAL'",
       "collection BAD: TEXT_COLUMNS must be columns, each with a weight from 0 to 100 or without"},
      {"'ARTICLES', 'ID', 'BODY x', 'LOCAL'",
       "collection BAD: TEXT_COLUMNS must be columns, each with a weight from 0 to 100 or without"},
      {"'ARTICLES', 'ID', 'BODY 0', 'LOCAL'",
       "collection BAD: TEXT_COLUMNS must be columns, each with a weight from 0 to 100 or without"},
      {"'ARTICLES', 'ID', 'BODY', 'REMOTE'", "no such provider: REMOTE"},
      {"'CHEAP', 'ID', 'BODY', 'LOCAL'", "cannot create AFTER trigger on view: CHEAP"},
  };
  administer("CREATE VIEW CHEAP AS SELECT * FROM ARTICLES WHERE PRICE < 2");
  run();
  for (const Wrong& wrong : wrongs) {
    const std::string define =
        std::string("INSERT INTO AI_COLLECTIONS VALUES ('BAD', ") + wrong.definition + ")";
    administer(define.c_str());
    run();
    EXPECT_EQ(rows("SELECT KIND, STATE, ERROR FROM AI_JOBS WHERE COLLECTION = 'BAD'"),
              Rows{std::string("BUILD FAILED ") + wrong.message});
    const std::string found = search("x", "bad").at(0);
    EXPECT_NE(found.find(wrong.message), std::string::npos) << found;
    administer("DELETE FROM AI_COLLECTIONS WHERE NAME = 'BAD'");
    administer("DELETE FROM AI_JOBS WHERE COLLECTION = 'BAD'");
  }
  EXPECT_EQ(best("fast car"), "1");
}

TEST_F(CollectionsTest, AFailedBuildIsTriedAgainWhenAskedFor) {
  administer("INSERT INTO AI_COLLECTIONS VALUES ('LATE', 'LATER', 'ID', 'T', 'LOCAL')");
  const Rows failed{"collection LATE cannot be built: no such table: main.LATER"};
  EXPECT_EQ(search("x", "LATE"), failed);
  administer("CREATE TABLE LATER (ID, T); INSERT INTO LATER VALUES (1, 'x')");
  run();
  EXPECT_EQ(search("x", "LATE"), failed);
  run(Retry::kFailedBuilds);
  EXPECT_EQ(search("x", "LATE"), Rows{"1"});
}

TEST_F(CollectionsTest, RowJobsThatCannotBeDoneFailWithWordsAndHoldUpNothing) {
  run();
  change("UPDATE ARTICLES SET PRICE = 9 WHERE ID = 1");
  administer("UPDATE AI_COLLECTIONS SET TEXT_COLUMNS = 'TITLE, GONE'");
  run();
  EXPECT_EQ(rows("SELECT ID, STATE, ERROR FROM AI_JOBS WHERE KIND = 'UPDATE'"),
            Rows{"2 FAILED no such column: S.GONE"});
  administer("UPDATE AI_COLLECTIONS SET TEXT_COLUMNS = 'TITLE'");
  change("UPDATE ARTICLES SET TITLE = 'train' WHERE ID = 1");
  run();
  EXPECT_EQ(best("train"), "1");
}

TEST_F(CollectionsTest, ACollectionThatIsNotBuiltSaysSo) {
  EXPECT_EQ(message_of([&] {
              const Collection docs = find_collection(*store_, "DOCS");
              static_cast<void>(count_vectors(*store_, docs));
            }),
            "collection DOCS is still being built");
}

TEST_F(CollectionsTest, AnInterruptedBuildLeavesNothingAndIsTakenUpAgain) {
  administer(
      "INSERT INTO ARTICLES (TITLE) WITH RECURSIVE C(N) AS (SELECT 1 UNION ALL SELECT N+1 FROM C"
      " LIMIT 2000) SELECT 'train ' || N FROM C");
  for (const int at : {10, 50, 80, 99}) {
    std::atomic<bool> stopping = false;
    ClientWatch watch(-1, stopping);
    const std::shared_ptr<Store> store = open();
    store->watch(&watch);
    const auto stop = [&](std::string_view, int percent) { stopping = percent >= at; };
    EXPECT_THROW(bring_up_to_date(*store, Retry::kNothing, stop), PassingFailure) << at;
    EXPECT_EQ(jobs(), Rows{"1 BUILD - QUEUED"}) << at;
    EXPECT_EQ(rows("SELECT COUNT(*) FROM AI_VECTORS"), Rows{"0"});
  }
  run();
  EXPECT_EQ(jobs(), Rows{"1 BUILD - DONE"});
  EXPECT_EQ(rows("SELECT COUNT(*) FROM AI_VECTORS"), Rows{"2003"});
}

TEST_F(CollectionsTest, ATextWithoutWordsFindsNothing) {
  run();
  EXPECT_EQ(search("of the, ..."), Rows{});
}

}  // namespace
}  // namespace kova::sample
