// SPDX-License-Identifier: Apache-2.0
// The gate on real sockets on 127.0.0.1: what it forwards, what it refuses
// and says so, which scheme a tunnel speaks, which names it resolves.
#include "host/NetworkGate.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/HttpServer.h"
#include "testing/Listener.h"
#include "testing/LoopbackResolver.h"
#include "testing/TempDir.h"

namespace {

AccessPolicy granting(const std::vector<std::string>& origins) {
  std::string xml =
      "<widget xmlns=\"http://www.w3.org/ns/widgets\" id=\"http://e.org/w\">";
  for (const std::string& origin : origins)
    xml += "<access origin=\"" + origin + "\"/>";
  return AccessPolicy::fromDocument(xml + "</widget>");
}

// A gate with its refusal lines kept.
struct Gate {
  explicit Gate(const std::vector<std::string>& origins)
      : gate(granting(origins), [this](const std::string& line) {
          std::lock_guard<std::mutex> lock(mutex);
          lines += line + "\n";
        }) {
    EXPECT_TRUE(gate.start());
  }
  std::string refusals() {
    std::lock_guard<std::mutex> lock(mutex);
    return lines;
  }
  std::mutex mutex;
  std::string lines;
  NetworkGate gate;
};

// A client connection to port on 127.0.0.1; reads give up after 20 s, so
// that a gate that keeps a connection open by mistake fails the test
// instead of hanging it.
int connectTo(int port) {
  const int fd = connectToLoopback(port);
  EXPECT_GE(fd, 0) << "no connection to port " << port;
  timeval wait = {20, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  return fd;
}

void sendText(int fd, const std::string& text) {
  ASSERT_EQ(static_cast<ssize_t>(text.size()),
            send(fd, text.data(), text.size(), MSG_NOSIGNAL));
}

// Everything until the other side closes.
std::string readAll(int fd) {
  std::string all;
  char buffer[4096];
  ssize_t n;
  while ((n = recv(fd, buffer, sizeof buffer, 0)) > 0)
    all.append(buffer, static_cast<size_t>(n));
  return all;
}

// Up to the end of a response head.
std::string readHead(int fd) {
  std::string head;
  char c;
  while (head.find("\r\n\r\n") == std::string::npos && recv(fd, &c, 1, 0) == 1)
    head += c;
  return head;
}

// Sends one request to the gate and reads the whole answer.
std::string ask(NetworkGate& gate, const std::string& request) {
  const int fd = connectTo(gate.port());
  sendText(fd, request);
  std::string answer = readAll(fd);
  close(fd);
  return answer;
}

std::string get(const std::string& url) {
  return "GET " + url +
         " HTTP/1.1\r\nHost: h\r\nProxy-Connection: keep-alive\r\n"
         "Connection: keep-alive\r\n\r\n";
}

// The first bytes of a TLS client hello, enough to tell it from HTTP.
const std::string kTlsHello("\x16\x03\x01\x00\x05hello", 10);
const std::string kPlainRequest = "GET /data.txt HTTP/1.1\r\nHost: h\r\n\r\n";

// Opens a tunnel to hostPort and sends first through it; what comes back
// until the gate closes the connection (the answer to CONNECT included).
std::string tunnel(NetworkGate& gate, const std::string& hostPort,
                   const std::string& first) {
  const int fd = connectTo(gate.port());
  sendText(fd, "CONNECT " + hostPort + " HTTP/1.1\r\nHost: " + hostPort +
                   "\r\n\r\n");
  std::string answer = readHead(fd);
  if (answer.find(" 200 ") != std::string::npos) {
    sendText(fd, first);
    answer += readAll(fd);
  }
  close(fd);
  return answer;
}

// Waits (20 s at most, for a gate that never connects) until the listener
// has a connection; how many it had.
int connectionsSeen(Listener& listener) {
  listener.waitForConnection(std::chrono::seconds(20));
  return listener.connections();
}

TEST(NetworkGateTest, ForwardsAGrantedRequestInOriginForm) {
  HttpServer granted;
  granted.serve("/data.txt?x=1", 200, "granted data");
  Gate g({granted.url("")});
  const std::string answer = ask(g.gate, get(granted.url("/data.txt?x=1")));
  EXPECT_EQ(0u, answer.find("HTTP/1.1 200")) << answer;
  EXPECT_NE(std::string::npos, answer.find("granted data")) << answer;
  EXPECT_EQ(1, granted.requestCount("/data.txt?x=1"));
  EXPECT_EQ("", g.refusals());
}

// WebKit opens a ws:// WebSocket through a proxy as an absolute-form GET:
// it goes on with its upgrade, to the http grant of the same host and port.
TEST(NetworkGateTest, ForwardsAWebSocketHandshakeOfAGrantedOrigin) {
  HttpServer granted;
  HttpServer other;
  granted.serve("/socket", 400, "no socket here");
  Gate g({granted.url("")});
  const std::string handshake =
      " HTTP/1.1\r\nHost: h\r\nUpgrade: websocket\r\n"
      "Connection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
      "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n";
  const std::string ws = "ws://127.0.0.1:" + std::to_string(granted.port());
  EXPECT_NE(
      std::string::npos,
      ask(g.gate, "GET " + ws + "/socket" + handshake).find("no socket here"));
  EXPECT_EQ(1, granted.requestCount("/socket"));
  const std::string otherWs =
      "ws://127.0.0.1:" + std::to_string(other.port()) + "/socket";
  EXPECT_EQ(0u, ask(g.gate, "GET " + otherWs + handshake).find("HTTP/1.1 403"));
  EXPECT_EQ(0, other.requestCount());
  EXPECT_NE(std::string::npos,
            g.refusals().find("widget-browser: refused " + otherWs +
                              ": an origin the widget was not granted\n"))
      << g.refusals();
}

TEST(NetworkGateTest, RefusesEveryOtherOriginAndSaysWhy) {
  HttpServer granted;
  HttpServer other;  // the same host on another port: never granted
  Gate g({granted.url("")});
  const std::string url = other.url("/data.txt");
  EXPECT_EQ(0u, ask(g.gate, get(url)).find("HTTP/1.1 403")) << url;
  // Not a proxy request, not an http:// address, no address at all.
  EXPECT_EQ(0u, ask(g.gate, get("/data.txt")).find("HTTP/1.1 403"));
  EXPECT_EQ(0u,
            ask(g.gate,
                get("https://127.0.0.1:" + std::to_string(other.port()) + "/"))
                .find("HTTP/1.1 403"));
  EXPECT_EQ(0u, ask(g.gate, "nonsense\r\n\r\n").find("HTTP/1.1 400"));
  // User information would let a granted host name hide another one.
  EXPECT_EQ(
      0u, ask(g.gate, get("http://127.0.0.1:" + std::to_string(granted.port()) +
                          "@127.0.0.1:" + std::to_string(other.port()) + "/"))
              .find("HTTP/1.1 403"));
  EXPECT_EQ(0, other.requestCount());
  EXPECT_EQ(0, granted.requestCount());
  EXPECT_NE(std::string::npos,
            g.refusals().find("widget-browser: refused " + url +
                              ": an origin the widget was not granted\n"))
      << g.refusals();
  EXPECT_NE(std::string::npos,
            g.refusals().find("widget-browser: refused GET /data.txt: not an "
                              "http:// or ws:// address or a tunnel\n"))
      << g.refusals();
}

TEST(NetworkGateTest, TunnelToAnOriginNotGrantedIsRefusedBeforeItOpens) {
  Listener other;
  Gate g({"http://127.0.0.1:1"});
  const std::string answer = tunnel(g.gate, other.hostPort(), kPlainRequest);
  EXPECT_EQ(0u, answer.find("HTTP/1.1 403")) << answer;
  EXPECT_EQ(0, other.connections());
  EXPECT_NE(std::string::npos,
            g.refusals().find("widget-browser: refused a tunnel to " +
                              other.hostPort() +
                              ": an origin the widget was not granted\n"))
      << g.refusals();
}

// An http grant is not an https (or wss) grant, nor the other way round:
// the gate tells them apart by what the client speaks through the tunnel.
TEST(NetworkGateTest, TunnelAdmitsOnlyTheSchemeGranted) {
  HttpServer plainServer;
  plainServer.serve("/data.txt", 200, "plain data");
  Listener plainListener;
  Listener secureListener;
  const std::string plainHost =
      "127.0.0.1:" + std::to_string(plainServer.port());
  Gate g({"http://" + plainHost, "http://" + plainListener.hostPort(),
          "https://" + secureListener.hostPort()});

  // TLS to a port granted for http only, plain HTTP to one granted for
  // https only: refused before anything goes out.
  EXPECT_EQ(std::string::npos,
            tunnel(g.gate, plainListener.hostPort(), kTlsHello).find("hello"));
  EXPECT_EQ(0, plainListener.connections());
  EXPECT_EQ(
      std::string::npos,
      tunnel(g.gate, secureListener.hostPort(), kPlainRequest).find("data"));
  EXPECT_EQ(0, secureListener.connections());
  const std::string lines = g.refusals();
  EXPECT_NE(
      std::string::npos,
      lines.find("widget-browser: refused https://" + plainListener.hostPort() +
                 " (https or wss, through a tunnel): an origin the "
                 "widget was not granted\n"))
      << lines;
  EXPECT_NE(
      std::string::npos,
      lines.find("widget-browser: refused http://" + secureListener.hostPort() +
                 " (http or ws, through a tunnel): an origin the "
                 "widget was not granted\n"))
      << lines;

  // Each scheme where it is granted.
  const std::string answer = tunnel(g.gate, plainHost, kPlainRequest);
  EXPECT_NE(std::string::npos, answer.find("plain data")) << answer;
  EXPECT_EQ(1, plainServer.requestCount("/data.txt"));
  const int fd = connectTo(g.gate.port());
  sendText(fd, "CONNECT " + secureListener.hostPort() + " HTTP/1.1\r\n\r\n");
  EXPECT_NE(std::string::npos, readHead(fd).find(" 200 "));
  sendText(fd, kTlsHello);
  EXPECT_EQ(1, connectionsSeen(secureListener));
  close(fd);
}

// Whatever a client sends, it gets a refusal and the gate goes on; a
// second request pipelined behind a granted one goes to the granted
// server, whatever origin it names.
TEST(NetworkGateTest, MalformedRequestsAreRefusedAndTheGateGoesOn) {
  HttpServer granted;
  granted.serve("/data.txt", 200, "granted data");
  HttpServer other;
  Gate g({granted.url("")});
  const std::string port = std::to_string(granted.port());
  for (const std::string& request : std::vector<std::string>{
           "CONNECT [::1 HTTP/1.1\r\n\r\n", "CONNECT [zz]:80 HTTP/1.1\r\n\r\n",
           "CONNECT 127.0.0.1:99999 HTTP/1.1\r\n\r\n",
           "CONNECT 127.0.0.1: HTTP/1.1\r\n\r\n",
           "CONNECT :80 HTTP/1.1\r\n\r\n",
           "CONNECT 127.0.0.1:" + port + "x HTTP/1.1\r\n\r\n",
           "GET http:// HTTP/1.1\r\n\r\n",
           "GET http://127.0.0.1:0/ HTTP/1.1\r\n\r\n",
           "GET http://127.0.0.1%3a" + port + "/ HTTP/1.1\r\n\r\n",
           "GET http://a\tb:" + port + "/ HTTP/1.1\r\n\r\n",
           "GET ftp://127.0.0.1:" + port + "/ HTTP/1.1\r\n\r\n",
           std::string("\x16\x03\x01\0\0\r\n\r\n", 9), "\r\n\r\n"}) {
    const std::string answer = ask(g.gate, request);
    EXPECT_TRUE(answer.find("HTTP/1.1 403") == 0 ||
                answer.find("HTTP/1.1 400") == 0)
        << request << "\n"
        << answer;
  }
  EXPECT_EQ(0, granted.requestCount());
  const std::string pipelined =
      "GET " + granted.url("/data.txt") + " HTTP/1.1\r\nHost: h\r\n\r\n" +
      "GET " + other.url("/data.txt") + " HTTP/1.1\r\nHost: h\r\n\r\n";
  EXPECT_NE(std::string::npos, ask(g.gate, pipelined).find("granted data"));
  EXPECT_EQ(0, other.requestCount());
}

TEST(NetworkGateTest, OversizedHeadIsRefused) {
  HttpServer granted;
  Gate g({granted.url("")});
  const std::string request =
      "GET " + granted.url("/") +
      " HTTP/1.1\r\nX-Filler: " + std::string(20000, 'a') + "\r\n\r\n";
  EXPECT_EQ(0u, ask(g.gate, request).find("HTTP/1.1 431"));
  EXPECT_EQ(0, granted.requestCount());
}

// Stopping does not wait for tunnels that are still open, nor for clients
// that never finish their request.
TEST(NetworkGateTest, StopsWithOpenConnections) {
  Listener granted;
  auto g = std::make_unique<Gate>(
      std::vector<std::string>{"http://" + granted.hostPort()});
  const int open = connectTo(g->gate.port());
  sendText(open, "CONNECT " + granted.hostPort() + " HTTP/1.1\r\n\r\n");
  EXPECT_NE(std::string::npos, readHead(open).find(" 200 "));
  sendText(open, kPlainRequest);
  EXPECT_EQ(1, connectionsSeen(granted));
  const int idle = connectTo(g->gate.port());
  sendText(idle, "GET ");
  g.reset();
  EXPECT_EQ("", readAll(open));
  EXPECT_EQ("", readAll(idle));
  close(open);
  close(idle);
}

// More clients than the gate serves at once wait their turn.
TEST(NetworkGateTest, ConnectionsBeyondTheBoundWaitTheirTurn) {
  HttpServer granted;
  granted.serve("/data.txt", 200, "granted data");
  Gate g({granted.url("")});
  std::vector<int> idle;
  for (int i = 0; i < NetworkGate::kMaxConnections; ++i)
    idle.push_back(connectTo(g.gate.port()));
  const int late = connectTo(g.gate.port());
  sendText(late, get(granted.url("/data.txt")));
  // One slot frees; the waiting client is then served.
  close(idle.back());
  idle.pop_back();
  EXPECT_NE(std::string::npos, readAll(late).find("granted data"));
  close(late);
  for (int fd : idle) close(fd);
}

// Only a granted host name is ever looked up. The gate runs in a child
// whose resolver configuration names a server the test reads.
TEST(NetworkGateTest, ResolvesOnlyGrantedNames) {
  TempDir dir;
  LoopbackResolver resolver(dir.file("resolv.conf"));
  if (!resolver.ready()) GTEST_SKIP() << "127.53.0.1:53 is taken";
  ChildProcess child;
  ASSERT_TRUE(child.start([&] {
    if (!resolver.enter()) return 77;
    bool refused = false;
    bool looked = false;
    {
      NetworkGate gate(granting({"http://granted-name.test:8081"}), nullptr);
      if (!gate.start()) return 2;
      // Not granted: refused without a lookup. Granted: looked up, and then
      // not found (nothing answers).
      refused =
          ask(gate, get("http://exfil-c2VjcmV0.test/")).find("HTTP/1.1 403") ==
          0;
      looked = ask(gate, get("http://granted-name.test:8081/"))
                   .find("HTTP/1.1 502") == 0;
    }
    return refused && looked ? 0 : 1;
  }));
  child.wait();
  if (child.exitedWith(77)) GTEST_SKIP() << "no mount namespace";
  EXPECT_TRUE(child.exitedWith(0)) << "status " << child.shellStatus() << ": "
                                   << child.out() << child.err();
  bool grantedAsked = false;
  for (const std::string& name : resolver.names()) {
    EXPECT_EQ(std::string::npos, name.find("exfil")) << name;
    if (name == "granted-name.test") grantedAsked = true;
  }
  EXPECT_TRUE(grantedAsked);
}

}  // namespace
