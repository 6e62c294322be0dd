#include "location/https_exchange.h"

#include <gtest/gtest.h>

#include <cstring>

#include "location/answer_id.hpp"
#include "location/tls_server.hpp"
#include "support/descriptors.hpp"

namespace {

using namespace test;

constexpr size_t kRequestLength = 10;
constexpr size_t kBodyRoom = 17 + 256;  // of the response to a request of 10 bytes
const Bytes kRequest = from_hex("93000102030405060708");
const std::string kRequestText = "kwABAgMEBQYHCA==";
const std::string kGoodBody = R"({"data":"AQI=","sessionId":"abc"})";
const std::string kOk = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";

ScpContext context_for(uint16_t port, uint32_t log_level = 0) {
  ScpContext context{};
  std::strcpy(context.host, "127.0.0.1");
  context.port = port;
  context.logLevel = log_level;
  return context;
}

std::string chunk(const std::string& data, const std::string& extension = "") {
  char size[16];
  std::snprintf(size, sizeof size, "%zX", data.size());
  return size + extension + "\r\n" + data + "\r\n";
}
std::string chunked(const std::string& body) {
  return kOk + chunk(body) + "0\r\n\r\n";
}
// A good body of exactly `size` characters.
std::string body_of(size_t size) {
  const std::string start = R"({"pad":")";
  const std::string rest = R"(","data":"AQI=","sessionId":"abc"})";
  return start + std::string(size - start.size() - rest.size(), 'x') + rest;
}
std::string with_session_id(size_t length) {
  return chunked(R"({"data":"AQI=","sessionId":")" + std::string(length, 's') + R"("})");
}

struct Outcome {
  int32_t result;
  Bytes answer;  // the whole buffer
  std::string request;
};

// One exchange with a server that writes `pieces` and then closes in good order.
Outcome ask(const std::vector<std::string>& pieces, size_t capacity = 64, uint32_t log_level = 0) {
  Outcome outcome{};
  LoopbackServer server([&](const Peer& peer) {
    const TlsPeer tls(peer);
    ASSERT_TRUE(tls.accepted());
    outcome.request = tls.read_request();
    for (const std::string& piece : pieces) tls.write(piece);
    tls.close_notify();
  });
  const ScpContext context = context_for(server.port(), log_level);
  outcome.answer.assign(capacity, 0xEE);
  outcome.result = scp_socket_send_and_recv(&context, kRequest.data(), kRequestLength, outcome.answer.data(),
                                            static_cast<uint32_t>(capacity));
  const std::string body = R"({"data":")" + kRequestText + R"(","sessionId":""})";
  EXPECT_EQ(outcome.request,
            "POST /orvoCloud/nfc/getPlace HTTP/1.1\r\nHOST: 127.0.0.1:" + std::to_string(server.port()) +
                "\r\nAccept: */*\r\nContent-Type:application/json\r\nContent-Length: " +
                std::to_string(body.size()) + "\r\n\r\n" + body);
  return outcome;
}

TEST(HttpsExchange, Responses) {
  const std::string large(40000, 'x');
  const struct {
    const char* name;
    std::vector<std::string> pieces;
    int32_t result;
    std::string session_id;  // in the store afterwards
  } cases[] = {
      {"one chunk", {chunked(kGoodBody)}, 2, "abc"},
      {"two chunks", {kOk, chunk(kGoodBody.substr(0, 5)), chunk(kGoodBody.substr(5)), "0\r\n\r\n"}, 2, "abc"},
      {"chunk extension", {kOk + chunk(kGoodBody, ";name=value") + "0\r\n\r\n"}, 2, "abc"},
      {"something behind the end", {chunked(kGoodBody) + "more"}, 2, "abc"},
      {"another status", {"HTTP/1.1 500 Oops" + chunked(kGoodBody).substr(15)}, 2, "abc"},
      {"empty values", {chunked(R"({"data":"","sessionId":""})")}, 0, ""},
      {"body that just fits", {chunked(body_of(kBodyRoom))}, 2, "abc"},
      {"body too long by one", {chunked(body_of(kBodyRoom + 1))}, -1, ""},
      {"session id that just fits", {with_session_id(63)}, 2, std::string(63, 's')},
      {"session id too long by one", {with_session_id(64)}, -1, ""},
      {"NUL ends a piece", {kOk + std::string("\0lost", 5), chunk(kGoodBody), "0\r\n\r\n"}, 2, "abc"},
      {"Content-Length", {"HTTP/1.1 200 OK\r\nContent-Length: 33\r\n\r\n" + kGoodBody}, -1, ""},
      {"header that ends with 0",
       {"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n" + chunk(kGoodBody) + "0\r\n\r\n"},
       -1,
       ""},
      {"no JSON", {chunked("data")}, -1, ""},
      {"blank before the value", {chunked(R"({"data": "AQI=","sessionId":"abc"})")}, -1, ""},
      {"no data", {chunked(R"({"sessionId":"abc"})")}, -1, ""},
      {"no session id", {chunked(R"({"data":"AQI="})")}, -1, ""},
      {"never an end", {large, large}, -1, ""},
      {"cut off", {kOk, chunk(kGoodBody)}, -1, ""},
      {"nothing", {}, -1, ""},
  };
  for (const auto& c : cases) {
    const Outcome outcome = ask(c.pieces);
    EXPECT_EQ(outcome.result, c.result) << c.name;
    EXPECT_EQ(std::string(tq::last_answer_id().data()), c.session_id) << c.name;
    Bytes answer(64, c.result < 0 ? uint8_t{0xEE} : uint8_t{0});
    if (c.result == 2) answer[0] = 1;
    if (c.result == 2) answer[1] = 2;
    EXPECT_EQ(hex(outcome.answer), hex(answer)) << c.name;
  }
}

TEST(HttpsExchange, TheAnswerIsCutToItsRoomAndMayTakeTheRequestsPlace) {
  const std::string response = chunked(R"({"data":"AQIDBA==","sessionId":""})");
  const Outcome cut = ask({response}, 3);
  EXPECT_EQ(cut.result, 3);
  EXPECT_EQ(hex(cut.answer), "010203");
  LoopbackServer server([&](const Peer& peer) {
    const TlsPeer tls(peer);
    EXPECT_NE(tls.read_request().find(kRequestText), std::string::npos);
    tls.write(response);
    EXPECT_TRUE(tls.ends_with_close_notify());
  });
  const ScpContext context = context_for(server.port());
  Bytes buffer = kRequest;
  EXPECT_EQ(scp_socket_send_and_recv(&context, buffer.data(), kRequestLength, buffer.data(), kRequestLength),
            4);
  EXPECT_EQ(hex(buffer), "01020304000000000000");
}

TEST(HttpsExchange, LogLevelTwoShowsTheBytes) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(ask({chunked(kGoodBody)}, 64, 2).result, 2);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Send SR: 93000102030405060708\nRecv SR: 0102\n");
  testing::internal::CaptureStdout();
  EXPECT_EQ(ask({chunked(kGoodBody)}, 64, 1).result, 2);
  EXPECT_EQ(ask({}, 64, 2).result, -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Send SR: 93000102030405060708\n");
}

TEST(HttpsExchange, NoServerWorthTheName) {
  const auto ask_plainly = [](const LoopbackServer& server, const char* host = "127.0.0.1") {
    ScpContext context = context_for(server.port());
    std::strcpy(context.host, host);
    Bytes answer(64);
    return scp_socket_send_and_recv(&context, kRequest.data(), kRequestLength, answer.data(), 64);
  };
  const size_t before = num_descriptors();
  {
    LoopbackServer refusing({}, false);
    EXPECT_EQ(ask_plainly(refusing), -1);
    EXPECT_EQ(ask_plainly(refusing, "no-such-host.invalid"), -1);
    EXPECT_EQ(ask_plainly(refusing, ""), -1);
    EXPECT_EQ(ask_plainly(refusing, "::1"), -1);
  }
  {
    LoopbackServer closing([](const Peer&) {});
    EXPECT_EQ(ask_plainly(closing), -1);
  }
  {
    LoopbackServer plain([](const Peer& peer) { peer.write(from_text("HTTP/1.1 400 Bad Request\r\n\r\n")); });
    EXPECT_EQ(ask_plainly(plain), -1);
  }
  {
    LoopbackServer hanging_up([](const Peer& peer) {
      const TlsPeer tls(peer);
      tls.read_request();
    });
    EXPECT_EQ(ask_plainly(hanging_up), -1);
  }
  for (const char* host : {"localhost", "127.0.0.1"}) {
    LoopbackServer good([](const Peer& peer) {
      const TlsPeer tls(peer);
      tls.read_request();
      tls.write(chunked(kGoodBody));
    });
    EXPECT_EQ(ask_plainly(good, host), 2) << host;
  }
  EXPECT_EQ(num_descriptors(), before);
}

TEST(HttpsExchange, BadArguments) {
  const ScpContext context = context_for(1);
  Bytes bytes(64);
  EXPECT_EQ(scp_socket_send_and_recv(nullptr, bytes.data(), 64, bytes.data(), 64), -1);
  EXPECT_EQ(scp_socket_send_and_recv(&context, nullptr, 64, bytes.data(), 64), -1);
  EXPECT_EQ(scp_socket_send_and_recv(&context, bytes.data(), 64, nullptr, 64), -1);
  EXPECT_EQ(scp_socket_send_and_recv(&context, bytes.data(), UINT32_MAX, bytes.data(), 64), -1);
}

}  // namespace
