// Collections and their jobs on one connection; the statements are tested from outside.
#include "engine/collections.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "engine/collection_setup.h"
#include "engine/jobs.h"
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
    store_ = open();
  }

  std::shared_ptr<Store> open() {
    std::string error;
    std::shared_ptr<Store> store = Store::open(folder_ / "shop.db", watch_, error);
    EXPECT_NE(store, nullptr) << error;
    return store;
  }

  void run() { EXPECT_TRUE(run_jobs(*store_, collections_, progress_)) << store_->error(); }

  void change(const char* sql) {
    std::int64_t rows = 0;
    ASSERT_TRUE(store_->change(sql, Rights::kChange, rows)) << store_->error();
  }

  // From outside, as whoever makes a database.
  void administer(const char* sql) { make_database(folder_ / "shop.db", sql); }

  // Each row's cells with blanks between.
  Rows rows(const std::string& sql) {
    Query query;
    EXPECT_TRUE(store_->prepare(sql, Rights::kEngine, query)) << store_->error();
    Rows rows;
    while (query.step() == Query::Step::kRow) {
      std::string row;
      for (int column = 0; column < query.columns(); ++column) {
        const std::string_view cell = query.cell(column);
        row += (column > 0 ? " " : "") + (cell.data() == nullptr ? "-" : std::string(cell));
      }
      rows.push_back(row);
    }
    return rows;
  }

  Rows jobs() {
    return rows("SELECT ID, KIND, SOURCE_KEY, STATE FROM AI_JOBS WHERE COLLECTION = 'DOCS'");
  }

  // The source keys of the hits, or the words of the failure.
  Rows search(const std::string& text, const std::string& name = "DOCS") {
    Collection collection;
    std::vector<Hit> hits;
    if (!find_collection(*store_, name, collection) ||
        !check_provider(*store_, collection.provider) ||
        !collections_.loaded(collection.name).nearest(*store_, collection, text, 10, hits)) {
      return {store_->error()};
    }
    Rows keys;
    for (const Hit& hit : hits) {
      keys.push_back(
          rows("SELECT SOURCE_KEY FROM AI_VECTORS WHERE ID = " + std::to_string(hit.id)).at(0));
    }
    return keys;
  }

  std::string best(const std::string& text) { return search(text).at(0); }

  TemporaryFolder folder_;
  std::atomic<bool> stopping_ = false;
  ClientWatch watch_{-1, stopping_};
  std::shared_ptr<Store> store_;
  Collections collections_;
  BuildProgress progress_ = [](std::string_view, int) {};
};

TEST_F(CollectionsTest, ABuildMakesAVectorForEachRow) {
  std::vector<int> percents;
  progress_ = [&](std::string_view collection, int percent) {
    EXPECT_EQ(collection, "DOCS");
    percents.push_back(percent);
  };
  run();
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
  std::string error;
  store_ = Store::open(folder_ / "plain.db", watch_, error);
  run();
  EXPECT_EQ(rows("SELECT name FROM sqlite_schema"), Rows{"T"});
  EXPECT_EQ(search("x"), Rows{"no such collection: DOCS"});
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
  std::int64_t changed = 0;
  EXPECT_FALSE(
      store_->change("INSERT INTO ARTICLES (ID) VALUES (7), (1)", Rights::kChange, changed));
  EXPECT_EQ(jobs(), Rows{"1 BUILD - DONE"});
}

TEST_F(CollectionsTest, JobsAreCountedNeitherAsChangedRowsNorChangedByAnybody) {
  run();
  std::int64_t changed = 0;
  ASSERT_TRUE(store_->change("UPDATE ARTICLES SET PRICE = 0", Rights::kChange, changed));
  EXPECT_EQ(changed, 3);
  for (const char* sql :
       {"DELETE FROM AI_JOBS", "UPDATE AI_VECTORS SET VECTOR = NULL",
        "INSERT INTO AI_COLLECTIONS VALUES ('X', 'ARTICLES', 'ID', 'BODY', 'LOCAL')",
        "DELETE FROM ai_words", "UPDATE AI_MODELS SET BUILT = 0"}) {
    EXPECT_FALSE(store_->change(sql, Rights::kChange, changed)) << sql;
    EXPECT_EQ(store_->error(), "not authorized") << sql;
  }
}

TEST_F(CollectionsTest, WhatAnotherConnectionHasChangedIsSeen) {
  run();
  EXPECT_EQ(best("fast car"), "1");
  change("UPDATE ARTICLES SET TITLE = 'train', BODY = 'on rails' WHERE ID = 3");
  const std::shared_ptr<Store> other = open();
  Collections of_other;
  ASSERT_TRUE(run_jobs(*other, of_other, progress_));
  EXPECT_EQ(best("train on rails"), "3");
  administer(
      "DELETE FROM ARTICLES; INSERT INTO AI_JOBS (COLLECTION, KIND) VALUES ('DOCS', 'BUILD')");
  ASSERT_TRUE(run_jobs(*other, of_other, progress_));
  EXPECT_EQ(search("fast car"), Rows{"collection DOCS is empty"});
}

TEST_F(CollectionsTest, KeysKeepTheirType) {
  administer(
      "CREATE TABLE WORDS (W TEXT, T TEXT); INSERT INTO WORDS VALUES ('7', 'seven'),"
      " (NULL, 'lost'); INSERT INTO AI_COLLECTIONS VALUES ('W', 'WORDS', 'W', 'T', 'local');");
  run();
  EXPECT_EQ(rows("SELECT COLLECTION, SOURCE_KEY, typeof(SOURCE_KEY) FROM AI_VECTORS ORDER BY 1, 2"),
            (Rows{"DOCS 1 integer", "DOCS 2 integer", "DOCS 3 integer", "W 7 text"}));
}

TEST_F(CollectionsTest, ACollectionThatGrowsIsBuiltAnew) {
  run();
  for (int i = 0; i < 20; ++i) change("INSERT INTO ARTICLES (TITLE) VALUES ('train')");
  run();
  EXPECT_EQ(rows("SELECT COUNT(*) FROM AI_JOBS WHERE KIND = 'BUILD' AND STATE = 'DONE'"),
            Rows{"2"});
  EXPECT_EQ(rows("SELECT DOCUMENTS FROM AI_MODELS"), Rows{"23"});
  EXPECT_EQ(search("train").size(), 10U);
}

TEST_F(CollectionsTest, OldFinishedJobsAreNotKept) {
  run();
  for (int round = 0; round < 8; ++round) {
    for (int i = 0; i < 160; ++i) change("UPDATE ARTICLES SET PRICE = 1 WHERE ID = 1");
    run();
  }
  const int left = std::stoi(rows("SELECT COUNT(*) FROM AI_JOBS").at(0));
  EXPECT_GE(left, 1000);
  EXPECT_LE(left, 1002);
  EXPECT_EQ(rows("SELECT COUNT(*) FROM AI_JOBS WHERE KIND = 'BUILD'"), Rows{"1"});
}

struct Wrong {
  const char* definition;
  const char* words;
};

TEST_F(CollectionsTest, WrongDefinitionsBecomeFailedBuildsWithWords) {
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
              Rows{std::string("BUILD FAILED ") + wrong.words});
    const std::string found = search("x", "bad").at(0);
    EXPECT_NE(found.find(wrong.words), std::string::npos) << found;
    administer("DELETE FROM AI_COLLECTIONS WHERE NAME = 'BAD'");
    administer("DELETE FROM AI_JOBS WHERE COLLECTION = 'BAD'");
  }
  EXPECT_EQ(best("fast car"), "1");
}

TEST_F(CollectionsTest, AFailedBuildIsTriedAgainWhenAskedFor) {
  administer("INSERT INTO AI_COLLECTIONS VALUES ('LATE', 'LATER', 'ID', 'T', 'LOCAL')");
  run();
  EXPECT_EQ(search("x", "LATE"),
            Rows{"collection LATE cannot be built: no such table: main.LATER"});
  administer("CREATE TABLE LATER (ID, T); INSERT INTO LATER VALUES (1, 'x')");
  run();
  EXPECT_EQ(search("x", "LATE").size(), 1U);
  EXPECT_NE(search("x", "LATE").at(0), "1");
  ASSERT_TRUE(retry_failed_builds(*store_));
  run();
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

TEST_F(CollectionsTest, BeforeItsBuildACollectionSaysSo) {
  ASSERT_TRUE(set_up_collections(*store_)) << store_->error();
  EXPECT_EQ(jobs(), Rows{"1 BUILD - QUEUED"});
  EXPECT_EQ(search("x"), Rows{"collection DOCS is still being built"});
}

TEST_F(CollectionsTest, AnInterruptedBuildLeavesNothingAndIsTakenUpAgain) {
  administer(
      "INSERT INTO ARTICLES (TITLE) WITH RECURSIVE C(N) AS (SELECT 1 UNION ALL SELECT N+1 FROM C"
      " LIMIT 2000) SELECT 'train ' || N FROM C");
  for (const int at : {10, 50, 80, 99}) {
    std::atomic<bool> stopping = false;
    ClientWatch watch(-1, stopping);
    std::string error;
    const std::shared_ptr<Store> store = Store::open(folder_ / "shop.db", watch, error);
    EXPECT_FALSE(run_jobs(*store, collections_,
                          [&](std::string_view, int percent) { stopping = percent >= at; }));
    EXPECT_FALSE(store->failure_lasts()) << store->error();
    EXPECT_EQ(jobs(), Rows{"1 BUILD - QUEUED"}) << at;
    EXPECT_EQ(rows("SELECT COUNT(*) FROM AI_VECTORS"), Rows{"0"});
  }
  run();
  EXPECT_EQ(jobs(), Rows{"1 BUILD - DONE"});
  EXPECT_EQ(rows("SELECT COUNT(*) FROM AI_VECTORS"), Rows{"2003"});
}

TEST_F(CollectionsTest, InterruptedRowJobsStayQueued) {
  run();
  change("UPDATE ARTICLES SET PRICE = 9 WHERE ID = 1");
  stopping_ = true;
  EXPECT_FALSE(run_jobs(*store_, collections_, progress_));
  EXPECT_FALSE(store_->failure_lasts());
  EXPECT_EQ(jobs().back(), "2 UPDATE 1 QUEUED");
}

TEST_F(CollectionsTest, ATextWithoutWordsFindsNothing) {
  run();
  EXPECT_EQ(search("of the, ..."), Rows{});
}

}  // namespace
}  // namespace kova::sample
