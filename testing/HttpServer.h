// SPDX-License-Identifier: Apache-2.0
// HttpServer is a small real HTTP/1.1 server on 127.0.0.1 for tests and
// benchmarks that download: it listens on a free port from construction to
// destruction, answers each request from a table of routes on its own thread
// and closes the connection after every answer. Unknown paths get 404.
//
//   HttpServer server;
//   server.serveFile("/w/clock.wgt", packagePath);
//   Downloader d(server.url("/w/clock.wgt"), target);
#ifndef WIDGETENGINE_TESTING_HTTPSERVER_H_
#define WIDGETENGINE_TESTING_HTTPSERVER_H_

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "testing/Listener.h"

class HttpServer {
 public:
  using Headers = std::vector<std::pair<std::string, std::string>>;

  HttpServer();
  ~HttpServer();

  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // 200 with the bytes of filePath as they are when a request comes.
  void serveFile(const std::string& path, const std::string& filePath);
  // Any status with a body and extra header lines (Content-Length and
  // Connection are added).
  void serve(const std::string& path, int status, const std::string& body,
             const Headers& headers = {});
  // 302 to location, with a body of its own.
  void serveRedirect(const std::string& path, const std::string& location,
                     const std::string& body);
  // 200 announcing the whole body's length, then closing the connection after
  // the first sentBytes bytes of it.
  void serveTruncated(const std::string& path, const std::string& body,
                      size_t sentBytes);

  // 200 with a body that never ends: chunks of bytes until the client goes
  // away. announced, when not 0, is sent as the Content-Length.
  void serveEndless(const std::string& path, uint64_t announced = 0);
  // 200 announcing the whole body's length, then the first sentBytes bytes,
  // then silence with the connection held open until the client goes away
  // or the server stops.
  void serveStalled(const std::string& path, const std::string& body,
                    size_t sentBytes);

  // A resource that answers as an HTTP cache or CDN would: 200 with its
  // validators (ETag, Last-Modified, when not empty), 304 without a body to
  // a request whose If-None-Match names its ETag or, without that header,
  // whose If-Modified-Since is its Last-Modified, and 206 from N to a
  // "Range: bytes=N-" whose If-Range, when sent, names a validator.
  struct Resource {
    std::string body;
    std::string etag;
    std::string lastModified;
    std::string contentType = "application/xml";
    // The first answer with a body closes the connection after this many
    // bytes of it; then, when bodyAfterCut is not empty, the resource
    // becomes bodyAfterCut with etagAfterCut, as if republished meanwhile.
    size_t cutFirstAt = static_cast<size_t>(-1);
    std::string bodyAfterCut;
    std::string etagAfterCut;
    // Range requests get the whole body with 200, as from a server that
    // knows no ranges.
    bool ignoreRange = false;
    // 206 answers claim to start one byte later than asked, and do.
    bool wrongRange = false;
  };
  void serveResource(const std::string& path, const Resource& resource);
  // For a resource: the answers that carried a body (200 or 206), the
  // requests that asked for a range, and the head of the last request.
  int bodiesSent(const std::string& path) const;
  int rangeRequests(const std::string& path) const;
  std::string lastRequest(const std::string& path) const;

  int port() const { return listener_.port(); }
  // "http://127.0.0.1:<port>" + path.
  std::string url(const std::string& path) const;
  // Requests received so far, in all and for one path.
  int requestCount() const;
  int requestCount(const std::string& path) const;

 private:
  struct Route {
    int status = 200;
    std::string body;
    std::string filePath;  // when not empty, the body is read from here
    Headers headers;
    size_t sentBytes = static_cast<size_t>(-1);
    bool endless = false;
    uint64_t announced = 0;
    bool stall = false;
    bool isResource = false;
    Resource resource;
  };
  // Answers a request for a Resource route; the route's state moves on
  // after a cut.
  void answerResource(int client, const std::string& path,
                      const std::string& request, const Route& route);

  void run();
  void answer(int client);
  static const char* reason(int status);

  Listener listener_;
  int wakeRead_ = -1;
  int wakeWrite_ = -1;
  mutable std::mutex mutex_;
  std::map<std::string, Route> routes_;
  std::map<std::string, int> counts_;
  std::map<std::string, int> bodies_;
  std::map<std::string, int> ranges_;
  std::map<std::string, std::string> lastRequests_;
  int total_ = 0;
  std::thread thread_;
};

// A port on 127.0.0.1 where a connection is refused: the socket is bound, so
// no one else gets the port, but never listens.
class RefusingPort {
 public:
  RefusingPort();
  ~RefusingPort();

  RefusingPort(const RefusingPort&) = delete;
  RefusingPort& operator=(const RefusingPort&) = delete;

  int port() const { return port_; }
  std::string url(const std::string& path) const;

 private:
  int socket_ = -1;
  int port_ = 0;
};

#endif  // WIDGETENGINE_TESTING_HTTPSERVER_H_
