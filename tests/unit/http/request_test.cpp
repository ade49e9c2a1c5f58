#include "http/request.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/connected_sockets.h"
#include "support/guard_page.h"

namespace kova {
namespace {

using testing::ConnectedSockets;
using testing::GuardedText;

std::string value_of(const std::optional<std::string_view>& value) {
  return value ? "=" + std::string(*value) : "none";
}

std::string found(std::string_view received, std::string_view name) {
  return value_of(find_header(GuardedText(received).view(), name));
}

struct HeaderRow {
  std::string received;
  const char* value;
};

class FindHeader : public ::testing::TestWithParam<HeaderRow> {};

TEST_P(FindHeader, Host) {
  EXPECT_EQ(found(GetParam().received, "Host"), GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, FindHeader,
    ::testing::Values(
        HeaderRow{"", "none"}, HeaderRow{"Host: a\r\n", "none"}, HeaderRow{"POST\r\n", "none"},
        HeaderRow{"POST\r\nHost: a\r\n", "=a"}, HeaderRow{"POST\r\nhOsT:a\r\n", "=a"},
        HeaderRow{"POST\r\nHost:\r\n", "="}, HeaderRow{"POST\r\nHost: \t \r\n", "="},
        HeaderRow{"POST\r\nHost", "none"}, HeaderRow{"POST\r\nHost:", "none"},
        HeaderRow{"POST\r\nHost: a", "none"}, HeaderRow{"POST\r\nHost: a\r", "none"},
        HeaderRow{"POST\r\nHost\r\n", "none"}, HeaderRow{"POST\r\nHost : a\r\n", "none"},
        HeaderRow{"POST\r\n Host: a\r\n", "none"}, HeaderRow{"POST\r\nHosts: a\r\n", "none"},
        HeaderRow{"POST\r\nXHost: a\r\n", "none"}, HeaderRow{"POST\r\nFrom: a\r\n", "none"},
        HeaderRow{"POST\r\nHost: \v\f a b\t \r\n", "=a b"},
        HeaderRow{"POST\r\nHost: a\r\nHost: b\r\n", "=a"},
        HeaderRow{"POST\r\nA: 1\r\nHost: a\r\n\r\n", "=a"},
        // A line feed or carriage return alone ends no line.
        HeaderRow{"POST\r\nA: 1\nHost: a\r\n", "none"},
        HeaderRow{"POST\r\nA: 1\rHost: a\r\n", "none"},
        HeaderRow{"POST\r\nHost: a\nb\r\n", "=a\nb"},
        HeaderRow{"POST\r\nA: 1\n\r\nHost: a\r\n", "=a"},
        // Behind the blank line the search goes on.
        HeaderRow{"POST\r\n\r\nHost: a\r\n", "=a"},
        HeaderRow{"POST\r\n\r\nx\r\n\r\nHost: a\r\nx", "=a"},
        HeaderRow{"POST\r\n\r\nHost: a", "none"},
        HeaderRow{std::string("POST\r\nA: \0\r\nHost: a\r\n", 21), "=a"}));

TEST(FindHeader, BytesAfterANulBelongToTheValue) {
  const std::string received("POST\r\nHost: a\0b\r\n", 17);
  EXPECT_EQ(find_header(received, "Host"), std::string_view("a\0b", 3));
}

struct ListRow {
  const char* value;
  std::string list;
  bool is_in;
};

class IsInList : public ::testing::TestWithParam<ListRow> {};

TEST_P(IsInList, Item) {
  const auto& [value, list, is_in] = GetParam();
  EXPECT_EQ(is_in_list(value, GuardedText(list).view()), is_in);
}

INSTANTIATE_TEST_SUITE_P(
    Lists, IsInList,
    ::testing::Values(ListRow{"a", "", false}, ListRow{"", "", false}, ListRow{"", ",", false},
                      ListRow{"", " , ,", false}, ListRow{"a", "a", true}, ListRow{"A", "a", true},
                      ListRow{"a", "A", true}, ListRow{"a", "ab", false}, ListRow{"ab", "a", false},
                      ListRow{"a", "b,a", true}, ListRow{"a", "b, a ,c", true},
                      ListRow{"a", ",,\t,a\v\f\r\n", true}, ListRow{"a b", "a b", true},
                      ListRow{"a", "a b", false}, ListRow{"b", "a b", false},
                      ListRow{"a,b", "a,b", false}));

TEST(IsInList, AnItemCountsWithItsFirst511Characters) {
  const std::string item(511, 'a');
  EXPECT_TRUE(is_in_list(item, item));
  EXPECT_TRUE(is_in_list(item, item + "bcd"));
  EXPECT_FALSE(is_in_list(item + "b", item + "b"));
  EXPECT_FALSE(is_in_list(item.substr(1), item));
  EXPECT_TRUE(is_in_list("b", item + "xyz,b"));
  EXPECT_FALSE(is_in_list("xyz", item + "xyz,b"));
  // What is cut may leave white space at the end.
  EXPECT_TRUE(is_in_list(item.substr(1), item.substr(1) + " b"));
}

class HttpRequestTest : public ::testing::Test {
 protected:
  /// Sends pieces and ends the sending side; whether the request is whole.
  bool receive(const std::vector<std::string>& pieces) {
    std::thread sender([&] {
      for (const std::string& piece : pieces) sockets.send(piece);
      sockets.client.shut_down();
    });
    return receive_from(sender);
  }

  /// Sends each piece when the one before it has been read.
  bool receive_apart(const std::vector<std::string>& pieces) {
    std::thread sender([&] {
      for (const std::string& piece : pieces) {
        sockets.send(piece);
        while (sockets.server.has_waiting_bytes()) std::this_thread::yield();
      }
      sockets.client.shut_down();
    });
    return receive_from(sender);
  }

  /// Also reads what a refused request leaves, so that its sender ends.
  bool receive_from(std::thread& sender) {
    const bool whole = request.receive(sockets.server);
    char rest[4096];
    while (sockets.server.receive(rest, sizeof rest) > 0) {
    }
    sender.join();
    return whole;
  }

  static std::string head_of_length(std::size_t length, const std::string& headers) {
    const std::string start = "POST /mcp HTTP/1.1\r\n" + headers + "A: ";
    return start + std::string(length - start.size() - 4, 'a') + "\r\n\r\n";
  }

  ConnectedSockets sockets;
  std::vector<char> buffer = std::vector<char>(kRequestCapacity, '\xEE');
  HttpRequest request{buffer.data()};
};

TEST_F(HttpRequestTest, WithBody) {
  ASSERT_TRUE(receive({"POST /mcp HTTP/1.1\r\nContent-Length: 4\r\n\r\nbody"}));
  EXPECT_EQ(request.body(), "body");
  EXPECT_EQ(request.body_as_line(), "body\n");
}

TEST_F(HttpRequestTest, ByteByByte) {
  std::vector<std::string> pieces;
  for (const char c : std::string("POST /mcp HTTP/1.1\r\nContent-Length: 4\r\n\r\nbody")) {
    pieces.emplace_back(1, c);
  }
  ASSERT_TRUE(receive_apart(pieces));
  EXPECT_EQ(request.body(), "body");
}

TEST_F(HttpRequestTest, WithoutLengthThereIsNoBody) {
  ASSERT_TRUE(receive({"POST /mcp HTTP/1.1\r\n\r\n"}));
  EXPECT_EQ(request.body(), "");
  EXPECT_EQ(request.body_as_line(), "\n");
}

TEST_F(HttpRequestTest, WhatFollowsTheBodyIsReceivedToo) {
  ASSERT_TRUE(receive({"POST /mcp HTTP/1.1\r\nContent-Length: 4\r\n\r\nbody\r\nHost: late\r\n"}));
  EXPECT_EQ(value_of(request.header("Host", 512)), "=late");
  EXPECT_EQ(request.body_as_line(), "body\n");
}

TEST_F(HttpRequestTest, AnEarlyEndIsNoRequest) {
  EXPECT_FALSE(receive({"POST /mcp HTTP/1.1\r\nContent-Length: 5\r\n\r\nbody"}));
}

TEST_F(HttpRequestTest, NothingIsNoRequest) {
  EXPECT_FALSE(receive({}));
}

TEST_F(HttpRequestTest, NoBlankLine) {
  EXPECT_FALSE(receive({"POST /mcp HTTP/1.1\r\nContent-Length: 0\r\n"}));
}

TEST_F(HttpRequestTest, ALongestHeaderBlockAndBody) {
  const std::string head = head_of_length(kHeaderBlockLimit, "Content-Length: 262144\r\n");
  const std::string body(kBodyLimit, 'b');
  ASSERT_TRUE(receive({head, body}));
  EXPECT_TRUE(request.body() == body);
  EXPECT_TRUE(request.body_as_line() == body + "\n");
}

TEST_F(HttpRequestTest, AHeaderBlockOfOneByteMore) {
  EXPECT_FALSE(receive({head_of_length(kHeaderBlockLimit + 1, "")}));
}

TEST_F(HttpRequestTest, AFullBufferWithoutBlankLine) {
  EXPECT_FALSE(receive({std::string(kRequestLimit, 'a')}));
}

// Its client keeps the connection and sends nothing more.
TEST_F(HttpRequestTest, AFullBufferIsNotWaitedFor) {
  std::thread sender([&] { sockets.send(std::string(kRequestLimit, 'a')); });
  EXPECT_FALSE(request.receive(sockets.server));
  sender.join();
}

TEST_F(HttpRequestTest, NoMoreIsReadThanTheLimit) {
  EXPECT_FALSE(receive({std::string(kRequestLimit - 100, 'a'), std::string(200, 'a')}));
  EXPECT_EQ(request.received().size(), kRequestLimit);
}

struct LengthRow {
  const char* text;
  bool whole;
  std::size_t length;
};

class ContentLength : public HttpRequestTest, public ::testing::WithParamInterface<LengthRow> {};

TEST_P(ContentLength, Value) {
  const std::string head =
      "POST /mcp HTTP/1.1\r\nContent-Length: " + std::string(GetParam().text) + "\r\n\r\n";
  // A refused length is refused although as many bytes follow.
  ASSERT_EQ(receive({head, std::string(GetParam().length, 'b')}), GetParam().whole);
  if (GetParam().whole) {
    EXPECT_EQ(request.body().size(), GetParam().length);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Values, ContentLength,
    ::testing::Values(LengthRow{"262144", true, 262144}, LengthRow{"262145", false, 262145},
                      LengthRow{"-1", false, 1}, LengthRow{"-0", true, 0}, LengthRow{"", false, 0},
                      LengthRow{"x", false, 0}, LengthRow{"+3", true, 3}, LengthRow{"+", false, 0},
                      LengthRow{"-", false, 0}, LengthRow{"+-3", false, 3},
                      LengthRow{"- 0", false, 0}, LengthRow{"3x", false, 0},
                      LengthRow{"3 3", false, 0}, LengthRow{"3,3", false, 0},
                      LengthRow{"3.0", false, 0}, LengthRow{"0x3", false, 0},
                      LengthRow{"010", true, 10}, LengthRow{"4294967301", false, 0},
                      LengthRow{"18446744073709551621", false, 0},
                      // 31 characters
                      LengthRow{"9999999999999999999999999999999", false, 0},
                      LengthRow{"0000000000000000000000000000005", true, 5},
                      // 32 characters
                      LengthRow{"99999999999999999999999999999999", true, 0},
                      LengthRow{"00000000000000000000000000000005", true, 0}));

TEST_F(HttpRequestTest, TheFirstLengthCountsAlsoWhenItIsTooLong) {
  ASSERT_TRUE(receive({"POST /mcp HTTP/1.1\r\nContent-Length: " + std::string(32, '1') +
                       "\r\nContent-Length: 4\r\n\r\n"}));
  EXPECT_EQ(request.body(), "");
}

TEST_F(HttpRequestTest, HeaderCapacities) {
  ASSERT_TRUE(receive({"POST /mcp HTTP/1.1\r\nHost: 1234\r\n\r\n"}));
  EXPECT_EQ(value_of(request.header("Host", 5)), "=1234");
  EXPECT_EQ(value_of(request.header("Host", 4)), "none");
  EXPECT_EQ(value_of(request.header("Origin", 4)), "none");
}

}  // namespace
}  // namespace kova
