// The client library's operations on a running engine.

#include <signal.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/engine_fixture.h"

namespace kova::sample {
namespace {

constexpr const char* kNumbers =
    "SELECT N FROM (WITH RECURSIVE C(N) AS (SELECT 1 UNION ALL SELECT N+1 FROM C LIMIT 1000)"
    " SELECT N FROM C);";

class Library : public testing::Test {
 protected:
  void SetUp() override {
    make_database(folder_ / "shop.db",
                  "CREATE TABLE ITEMS (ID INTEGER PRIMARY KEY, NAME TEXT);"
                  "INSERT INTO ITEMS VALUES (1, 'one'), (2, NULL);");
    write_file(folder_ / "users", "app:secret\n");
    users_ = std::make_unique<Users>(folder_ / "users");
    options_.data = folder_.path();
    server_ = std::make_unique<Server>(options_, *users_);
    server_->listen();
    thread_ = std::thread([this] { server_->run(); });
    instance_ = KOVA_CreateVantreoInstance();
    connection_ = start();
    ASSERT_NE(connection_, nullptr);
    object_ = new_session(connection_);
  }

  void TearDown() override {
    KOVA_FreeObject(object_);
    KOVA_StopVantreo(connection_);
    stop_engine();
  }

  void* start() {
    return KOVA_StartVantreo(instance_, 0, "127.0.0.1", std::to_string(server_->port()).c_str());
  }

  static void* new_session(void* connection) {
    void* object = KOVA_NewObject(connection);
    EXPECT_GT(KOVA_Exec(object, "use shop;"), 0) << KOVA_Status(object);
    EXPECT_GT(KOVA_Exec(object, "login app,secret;"), 0) << KOVA_Status(object);
    return object;
  }

  // The server takes the signal from its own descriptor; it is blocked everywhere.
  void stop_engine() {
    if (!thread_.joinable()) return;
    ::kill(::getpid(), SIGTERM);
    thread_.join();
  }

  TemporaryFolder folder_;
  Options options_;
  std::unique_ptr<Users> users_;
  std::unique_ptr<Server> server_;
  std::thread thread_;
  void* instance_ = nullptr;
  void* connection_ = nullptr;
  void* object_ = nullptr;
};

TEST_F(Library, GivesNamesRowsAndNulls) {
  ASSERT_EQ(KOVA_Exec(object_, "SELECT ID, NAME FROM ITEMS ORDER BY ID;"), 1);
  EXPECT_STREQ(KOVA_Status(object_), "OK");
  ASSERT_EQ(KOVA_FieldCount(object_), 2);
  EXPECT_STREQ(KOVA_FieldName(object_, 1), "ID");
  EXPECT_STREQ(KOVA_FieldName(object_, 2), "NAME");
  EXPECT_EQ(KOVA_DataByFno(object_, 1), nullptr) << "no row is current yet";
  ASSERT_NE(KOVA_Next(object_), 0);
  EXPECT_STREQ(KOVA_DataByFno(object_, 1), "1");
  EXPECT_STREQ(KOVA_DataByFno(object_, 2), "one");
  ASSERT_NE(KOVA_Next(object_), 0);
  EXPECT_STREQ(KOVA_DataByFno(object_, 1), "2");
  EXPECT_EQ(KOVA_DataByFno(object_, 2), nullptr);
  EXPECT_EQ(KOVA_Next(object_), 0);
  EXPECT_EQ(KOVA_Next(object_), 0) << "the end stays";
  EXPECT_EQ(KOVA_DataByFno(object_, 1), nullptr) << "no row is current any more";
  EXPECT_STREQ(KOVA_FieldName(object_, 2), "NAME") << "the names outlive the rows";
}

TEST_F(Library, ColumnsThatAreNotThereAreNull) {
  ASSERT_GT(KOVA_Exec(object_, "SELECT ID FROM ITEMS;"), 0);
  ASSERT_NE(KOVA_Next(object_), 0);
  for (const int column : {-1, 0, 2, 2147483647}) {
    EXPECT_EQ(KOVA_FieldName(object_, column), nullptr) << column;
    EXPECT_EQ(KOVA_DataByFno(object_, column), nullptr) << column;
  }
}

TEST_F(Library, ResultsOfManyBlocksArriveWholeAndInOrder) {
  ASSERT_GT(KOVA_Exec(object_, kNumbers), 0);
  for (int number = 1; number <= 1000; ++number) {
    ASSERT_NE(KOVA_Next(object_), 0) << number;
    ASSERT_STREQ(KOVA_DataByFno(object_, 1), std::to_string(number).c_str());
  }
  EXPECT_EQ(KOVA_Next(object_), 0);
}

TEST_F(Library, AStatementAbandonsTheEarlierResult) {
  ASSERT_GT(KOVA_Exec(object_, kNumbers), 0);
  ASSERT_NE(KOVA_Next(object_), 0);
  ASSERT_GT(KOVA_Exec(object_, "SELECT 'other';"), 0);
  ASSERT_NE(KOVA_Next(object_), 0);
  EXPECT_STREQ(KOVA_DataByFno(object_, 1), "other");
  EXPECT_EQ(KOVA_Next(object_), 0);
}

TEST_F(Library, AFailedStatementHasWordsAndNoResult) {
  ASSERT_GT(KOVA_Exec(object_, kNumbers), 0);
  EXPECT_LE(KOVA_Exec(object_, "SELECT X FROM NOWHERE;"), 0);
  EXPECT_STREQ(KOVA_Status(object_), "no such table: NOWHERE");
  EXPECT_EQ(KOVA_FieldCount(object_), 0);
  EXPECT_EQ(KOVA_Next(object_), 0);
  EXPECT_GT(KOVA_Exec(object_, "SELECT 1;"), 0) << "the session goes on";
}

TEST_F(Library, AWriteHasAStatusAndNoColumns) {
  ASSERT_GT(KOVA_Exec(object_, "INSERT INTO ITEMS VALUES (3, 'x'), (4, 'y');"), 0);
  EXPECT_STREQ(KOVA_Status(object_), "2 rows inserted");
  EXPECT_EQ(KOVA_FieldCount(object_), 0);
  EXPECT_EQ(KOVA_Next(object_), 0);
}

TEST_F(Library, ObjectsOfAConnectionShareItsSessionAndReadSideBySide) {
  void* other = KOVA_NewObject(connection_);
  ASSERT_GT(KOVA_Exec(object_, kNumbers), 0);
  ASSERT_GT(KOVA_Exec(other, kNumbers), 0) << KOVA_Status(other);
  for (int number = 1; number <= 400; ++number) {
    ASSERT_NE(KOVA_Next(object_), 0);
    if (number % 2 == 0) continue;
    ASSERT_NE(KOVA_Next(other), 0);
    ASSERT_STREQ(KOVA_DataByFno(other, 1), std::to_string(number / 2 + 1).c_str());
  }
  ASSERT_STREQ(KOVA_DataByFno(object_, 1), "400");
  KOVA_FreeObject(other);
  ASSERT_NE(KOVA_Next(object_), 0);
}

TEST_F(Library, ObjectsMayBeUsedByThreadsOfTheirOwn) {
  std::vector<std::thread> threads;
  std::atomic<int> rows = 0;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      void* object = KOVA_NewObject(connection_);
      EXPECT_GT(KOVA_Exec(object, kNumbers), 0);
      while (KOVA_Next(object) != 0) ++rows;
      KOVA_FreeObject(object);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(rows, 4000);
}

TEST_F(Library, ManyObjectsMayComeAndGo) {
  for (int i = 0; i < 200; ++i) {
    void* object = KOVA_NewObject(connection_);
    ASSERT_GT(KOVA_Exec(object, "SELECT 1;"), 0) << KOVA_Status(object);
    KOVA_FreeObject(object);
  }
}

TEST_F(Library, TooManyObjectsAreRefused) {
  std::vector<void*> objects;
  for (int i = 0; i < 64; ++i) objects.push_back(KOVA_NewObject(connection_));
  for (std::size_t i = 0; i < 63; ++i) ASSERT_GT(KOVA_Exec(objects[i], "SELECT 1;"), 0) << i;
  EXPECT_LE(KOVA_Exec(objects[63], "SELECT 1;"), 0);
  EXPECT_STREQ(KOVA_Status(objects[63]), "the engine refused: too many statement objects");
  for (void* object : objects) KOVA_FreeObject(object);
}

TEST_F(Library, AStoppedEngineIsALostConnection) {
  ASSERT_GT(KOVA_Exec(object_, kNumbers), 0);
  stop_engine();
  int rows = 0;
  while (KOVA_Next(object_) != 0) ++rows;
  EXPECT_LT(rows, 1000);
  EXPECT_STREQ(KOVA_Status(object_), "connection to the engine was lost");
  EXPECT_LE(KOVA_Exec(object_, "SELECT 1;"), 0);
  EXPECT_STREQ(KOVA_Status(object_), "connection to the engine was lost");
}

TEST_F(Library, AnObjectOutlivesItsConnection) {
  KOVA_StopVantreo(connection_);
  connection_ = nullptr;
  EXPECT_LE(KOVA_Exec(object_, "SELECT 1;"), 0);
  EXPECT_STREQ(KOVA_Status(object_), "connection to the engine was lost");
}

TEST_F(Library, StatementsHaveALimit) {
  const std::string start = "SELECT 1 ";
  const std::string longest = start + std::string(65536 - start.size(), ' ');
  EXPECT_GT(KOVA_Exec(object_, longest.c_str()), 0) << KOVA_Status(object_);
  EXPECT_LE(KOVA_Exec(object_, (longest + " ").c_str()), 0);
  EXPECT_STREQ(KOVA_Status(object_), "the statement is too long");
  EXPECT_GT(KOVA_Exec(object_, "SELECT 1;"), 0) << "the connection goes on";
}

}  // namespace
}  // namespace kova::sample
