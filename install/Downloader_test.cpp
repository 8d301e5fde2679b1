// SPDX-License-Identifier: Apache-2.0
#include "install/Downloader.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <widgetengine/WidgetEngineExtensions.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <string>

#include "base/Outcome.h"
#include "testing/CaptureStdout.h"
#include "testing/HttpServer.h"
#include "testing/Listener.h"
#include "testing/OutputChecks.h"
#include "testing/ScopedEnv.h"
#include "testing/TempDir.h"

namespace {

std::string randomBytes(size_t size) {
  std::string bytes(size, '\0');
  unsigned state = 12345;
  for (char& c : bytes) {
    state = state * 1103515245u + 12345u;
    c = static_cast<char>(state >> 16);
  }
  return bytes;
}

class DownloaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server = std::make_unique<HttpServer>();
    packagePath = dir.file("file" + std::string("Ab3xYz"));
  }
  void TearDown() override { server.reset(); }

  // Runs one download to packagePath and returns its result; *output gets
  // what download() printed.
  int download(Downloader& downloader, std::string* output) {
    CaptureStdout capture;
    int result = downloader.download();
    *output = capture.text();
    return result;
  }

  // Passes when downloading url succeeds with its one line and packagePath
  // then holds exactly expected.
  ::testing::AssertionResult stores(const std::string& url,
                                    const std::string& expected) {
    Downloader downloader(url, packagePath);
    std::string output;
    const int result = download(downloader, &output);
    ::testing::AssertionResult downloaded = returnedAndPrinted(
        "download()", result, 0, output,
        "Downloaded from " + url + " to " + packagePath + "\n");
    if (!downloaded) return downloaded;
    const std::string stored = TempDir::readFile(packagePath);
    if (stored != expected)
      return ::testing::AssertionFailure()
             << "the " << stored.size() << " bytes stored differ from the "
             << expected.size() << " expected";
    return ::testing::AssertionSuccess();
  }

  // Passes when downloading url fails with its one line and leaves no file.
  // reason: the line said before that one, if any.
  // *why, when given, gets the downloader's outcome.
  ::testing::AssertionResult failsToDownload(const std::string& url,
                                             const std::string& reason = "",
                                             Outcome* why = nullptr) {
    Downloader downloader(url, packagePath);
    std::string output;
    const int result = download(downloader, &output);
    if (why != nullptr) *why = downloader.outcome();
    ::testing::AssertionResult failed = returnedAndPrinted(
        "download()", result, -1, output,
        reason + "Could not download file\n");
    if (!failed) return failed;
    if (TempDir::exists(packagePath))
      return ::testing::AssertionFailure() << packagePath << " was left";
    return ::testing::AssertionSuccess();
  }

  ::testing::AssertionResult resumes(const HttpServer::Resource& package,
                                     const std::string& expected);

  TempDir dir;
  std::unique_ptr<HttpServer> server;
  std::string packagePath;
};

TEST_F(DownloaderTest, StoresTheBodyOfAnHttpAnswer) {
  const std::string package = randomBytes(300 * 1024);
  TempDir::writeFile(dir.file("clock.wgt"), package);
  server->serveFile("/w/clock.wgt", dir.file("clock.wgt"));
  EXPECT_TRUE(stores(server->url("/w/clock.wgt"), package));
  EXPECT_EQ(1, server->requestCount("/w/clock.wgt"));
}

TEST_F(DownloaderTest, NotFoundPageIsStoredAsThePackage) {
  const std::string page = "<html><body>No such widget</body></html>\n";
  server->serve("/missing.wgt", 404, page);
  EXPECT_TRUE(stores(server->url("/missing.wgt"), page));
}

TEST_F(DownloaderTest, RedirectIsNotFollowedAndItsBodyIsStored) {
  server->serve("/real.wgt", 200, "the real package");
  server->serveRedirect("/moved.wgt", server->url("/real.wgt"),
                        "<a href=\"/real.wgt\">moved</a>");
  EXPECT_TRUE(
      stores(server->url("/moved.wgt"), "<a href=\"/real.wgt\">moved</a>"));
  EXPECT_EQ(1, server->requestCount("/moved.wgt"));
  EXPECT_EQ(0, server->requestCount("/real.wgt"));
}

TEST_F(DownloaderTest, RefusedConnectionFailsAndLeavesNoFile) {
  RefusingPort refusing;
  EXPECT_TRUE(failsToDownload(refusing.url("/clock.wgt")));
}

TEST_F(DownloaderTest, ConnectionClosedMidBodyFailsAndLeavesNoFile) {
  server->serveTruncated("/cut.wgt", randomBytes(64 * 1024), 1000);
  EXPECT_TRUE(failsToDownload(server->url("/cut.wgt")));
  EXPECT_EQ(1, server->requestCount("/cut.wgt"));
}

TEST_F(DownloaderTest, BodyAnnouncedLargerThanTheFreeSpaceFailsAtOnce) {
  // An exabyte announced: refused before a byte is stored.
  server->serveEndless("/huge.wgt", 1ull << 60);
  EXPECT_TRUE(failsToDownload(server->url("/huge.wgt"),
                              "Package larger than the largest allowed, "
                              "512 MiB\n"));
}

// A tmpfs of size MiB mounted in the test's folder, for as long as it lives.
class SmallFileSystem {
 public:
  SmallFileSystem(const std::string& path, int megabytes) : path_(path) {
    mkdir(path.c_str(), 0755);
    const std::string options = "size=" + std::to_string(megabytes) + "m";
    mounted_ = geteuid() == 0 &&
               mount("tmpfs", path.c_str(), "tmpfs", 0, options.c_str()) == 0;
  }
  ~SmallFileSystem() {
    if (mounted_) umount2(path_.c_str(), MNT_DETACH);
  }
  bool mounted() const { return mounted_; }
  uint64_t freeBytes() const {
    struct statvfs vfs;
    if (statvfs(path_.c_str(), &vfs) != 0) return 0;
    return static_cast<uint64_t>(vfs.f_bavail) * vfs.f_frsize;
  }

 private:
  std::string path_;
  bool mounted_ = false;
};

TEST_F(DownloaderTest, EndlessBodyStopsAtTheReserveWithAReason) {
  SmallFileSystem small(dir.file("small"), 24);
  if (!small.mounted()) GTEST_SKIP() << "mounting a tmpfs needs root";
  packagePath = dir.file("small") + "/fileAb3xYz";
  server->serveEndless("/endless.wgt");
  // The default reserve, 16 MiB of the 24: the body is cut before the
  // file system drops under it.
  Downloader downloader(server->url("/endless.wgt"), packagePath);
  std::string output;
  uint64_t lowest = UINT64_MAX;
  std::thread watch;
  std::atomic<bool> done(false);
  watch = std::thread([&] {
    while (!done) {
      const uint64_t free = small.freeBytes();
      if (free < lowest) lowest = free;
      usleep(200);
    }
  });
  const int result = download(downloader, &output);
  done = true;
  watch.join();
  EXPECT_TRUE(returnedAndPrinted(
      "download()", result, -1, output,
      "Package would leave less than 16 MiB free where widgets are stored\n"
      "Could not download file\n"));
  EXPECT_GE(lowest, 16u << 20) << "the file system dropped under the reserve";
  EXPECT_TRUE(TempDir::listDirectory(dir.file("small")).empty());
}

TEST_F(DownloaderTest, ReserveIsConfigurable) {
  SmallFileSystem small(dir.file("small"), 8);
  if (!small.mounted()) GTEST_SKIP() << "mounting a tmpfs needs root";
  packagePath = dir.file("small") + "/fileAb3xYz";
  const std::string package = randomBytes(3 << 20);
  server->serve("/w.wgt", 200, package);
  {
    // 3 MiB does not fit above a reserve of 6 MiB of 8...
    ScopedEnv reserve("WIDGETENGINE_DOWNLOAD_RESERVE_MB", "6");
    Downloader downloader(server->url("/w.wgt"), packagePath);
    std::string output;
    EXPECT_EQ(-1, download(downloader, &output));
    EXPECT_EQ(
        "Package would leave less than 6 MiB free where widgets are stored\n"
        "Could not download file\n",
        output);
    EXPECT_FALSE(TempDir::exists(packagePath));
  }
  // ...but does above one of 2 MiB.
  ScopedEnv reserve("WIDGETENGINE_DOWNLOAD_RESERVE_MB", "2");
  EXPECT_TRUE(stores(server->url("/w.wgt"), package));
}

TEST_F(DownloaderTest, PackageOverTheMaximumSizeFailsWithAReason) {
  ScopedEnv maximum("WIDGETENGINE_MAX_PACKAGE_MB", "1");
  const std::string big = randomBytes((1 << 20) + 1);
  server->serve("/announced.wgt", 200, big);
  server->serveEndless("/endless.wgt");
  for (const char* path : {"/announced.wgt", "/endless.wgt"}) {
    Downloader downloader(server->url(path), packagePath);
    std::string output;
    EXPECT_EQ(-1, download(downloader, &output)) << path;
    EXPECT_EQ(
        "Package larger than the largest allowed, 1 MiB\n"
        "Could not download file\n",
        output)
        << path;
    EXPECT_FALSE(TempDir::exists(packagePath)) << path;
  }
  // A package of the maximum exactly is stored.
  const std::string fits = randomBytes(1 << 20);
  server->serve("/fits.wgt", 200, fits);
  EXPECT_TRUE(stores(server->url("/fits.wgt"), fits));
}

TEST_F(DownloaderTest, ServerThatStopsSendingFailsTheDownload) {
  ScopedEnv stall("WIDGETENGINE_STALL_SECONDS", "1");
  server->serveStalled("/silent.wgt", randomBytes(64 * 1024), 1000);
  EXPECT_TRUE(failsToDownload(server->url("/silent.wgt")));
}

TEST_F(DownloaderTest, FileUrlIsCopied) {
  const std::string package = randomBytes(100 * 1024);
  TempDir::writeFile(dir.file("local.wgt"), package);
  EXPECT_TRUE(stores("file://" + dir.file("local.wgt"), package));
}

TEST_F(DownloaderTest, MissingFileUrlFails) {
  EXPECT_TRUE(failsToDownload("file://" + dir.file("nowhere.wgt")));
}

TEST_F(DownloaderTest, UnwritablePathFailsWithoutFetching) {
  server->serve("/clock.wgt", 200, "package");
  const std::string path = dir.file("no-such-folder/file123456");
  Downloader downloader(server->url("/clock.wgt"), path);
  std::string output;
  EXPECT_EQ(-1, download(downloader, &output));
  EXPECT_EQ("Could not open file for download\n", output);
  EXPECT_EQ(0, server->requestCount());
  EXPECT_FALSE(TempDir::exists(path));
}

TEST_F(DownloaderTest, ExistingFileIsNeitherOverwrittenNorRemoved) {
  server->serve("/clock.wgt", 200, "package");
  TempDir::writeFile(packagePath, "someone else's");
  CaptureStdout capture;
  {
    Downloader downloader(server->url("/clock.wgt"), packagePath);
    EXPECT_EQ(-1, downloader.download());
  }
  EXPECT_EQ("Could not open file for download\nDownload cleaned\n",
            capture.text());
  EXPECT_EQ("someone else's", TempDir::readFile(packagePath));
  EXPECT_EQ(0, server->requestCount());
}

TEST_F(DownloaderTest, LinkAtThePathIsNotWrittenThrough) {
  server->serve("/clock.wgt", 200, "package");
  TempDir::writeFile(dir.file("precious"), "keep");
  ASSERT_EQ(0, symlink(dir.file("precious").c_str(), packagePath.c_str()));
  CaptureStdout capture;
  {
    Downloader downloader(server->url("/clock.wgt"), packagePath);
    EXPECT_EQ(-1, downloader.download());
  }
  EXPECT_EQ("Could not open file for download\nDownload cleaned\n",
            capture.text());
  EXPECT_EQ("keep", TempDir::readFile(dir.file("precious")));
  // A dangling link is refused alike: nothing is created where it points.
  ASSERT_EQ(0, unlink(packagePath.c_str()));
  ASSERT_EQ(0, symlink(dir.file("elsewhere").c_str(), packagePath.c_str()));
  {
    CaptureStdout capture;
    Downloader downloader(server->url("/clock.wgt"), packagePath);
    EXPECT_EQ(-1, downloader.download());
  }
  EXPECT_FALSE(TempDir::exists(dir.file("elsewhere")));
}

TEST_F(DownloaderTest, DestructionRemovesTheFileAndSaysSo) {
  server->serve("/clock.wgt", 200, "package");
  CaptureStdout capture;
  {
    Downloader downloader(server->url("/clock.wgt"), packagePath);
    ASSERT_EQ(0, downloader.download());
    EXPECT_TRUE(TempDir::exists(packagePath));
  }
  EXPECT_FALSE(TempDir::exists(packagePath));
  const std::string text = capture.text();
  EXPECT_EQ("Download cleaned\n", text.substr(text.rfind('\n', text.size() - 2) + 1));
}

TEST_F(DownloaderTest, DestructionAfterAFailureSaysCleanedAgain) {
  RefusingPort refusing;
  CaptureStdout capture;
  {
    Downloader downloader(refusing.url("/clock.wgt"), packagePath);
    EXPECT_EQ(-1, downloader.download());
    EXPECT_FALSE(TempDir::exists(packagePath));
  }
  EXPECT_EQ("Could not download file\nDownload cleaned\n", capture.text());
}

TEST_F(DownloaderTest, FileMadeAtTheNameAfterAFailureIsNotRemoved) {
  RefusingPort refusing;
  CaptureStdout capture;
  {
    Downloader downloader(refusing.url("/clock.wgt"), packagePath);
    EXPECT_EQ(-1, downloader.download());
    TempDir::writeFile(packagePath, "someone else's");
  }
  EXPECT_EQ("Could not download file\nDownload cleaned\n", capture.text());
  EXPECT_EQ("someone else's", TempDir::readFile(packagePath));
}

TEST_F(DownloaderTest, DestructionWithoutDownloadSaysCleaned) {
  CaptureStdout capture;
  { Downloader downloader("http://127.0.0.1:1/none", packagePath); }
  EXPECT_EQ("Download cleaned\n", capture.text());
  EXPECT_EQ(0, server->requestCount());
}

TEST_F(DownloaderTest, FileRemovedByTheInstallerIsHarmlessAtDestruction) {
  server->serve("/clock.wgt", 200, "package");
  CaptureStdout capture;
  {
    Downloader downloader(server->url("/clock.wgt"), packagePath);
    ASSERT_EQ(0, downloader.download());
    ASSERT_EQ(0, remove(packagePath.c_str()));
  }
  const std::string text = capture.text();
  EXPECT_NE(std::string::npos, text.find("\nDownload cleaned\n"));
}

TEST_F(DownloaderTest, LargePackageArrivesWhole) {
  const std::string package = randomBytes(8 << 20);
  TempDir::writeFile(dir.file("big.wgt"), package);
  server->serveFile("/big.wgt", dir.file("big.wgt"));
  EXPECT_TRUE(stores(server->url("/big.wgt"), package));
}

// Every protocol libcurl may speak beside the web and local files: each one
// aimed at a listener that must see no connection at all.
const char* const kForeignSchemes[] = {
    "gopher", "gophers", "dict",  "telnet", "ftp",  "ftps",  "smtp", "smtps",
    "imap",   "imaps",   "pop3",  "pop3s",  "ldap", "ldaps", "rtsp", "mqtt",
    "smb",    "smbs",    "scp",   "sftp",   "ws",   "wss",   "tftp", "GoPhEr",
    "DICT"};

TEST_F(DownloaderTest, OtherProtocolsAreRefusedBeforeAnyConnection) {
  ScopedEnv stall("WIDGETENGINE_STALL_SECONDS", "1");
  Listener listener;
  for (const char* scheme : kForeignSchemes) {
    const std::string url = std::string(scheme) + "://" + listener.hostPort() +
                            "/_SET%20key%20pwned%0D%0A/x.wgt";
    Downloader downloader(url, packagePath);
    std::string output;
    EXPECT_EQ(-1, download(downloader, &output)) << url;
    std::string lower(scheme);
    for (char& c : lower) c = static_cast<char>(tolower(c));
    EXPECT_EQ("Refusing to download " + url + ": the protocol " + lower +
                  " is not http, https or file\n",
              output);
    EXPECT_FALSE(TempDir::exists(packagePath)) << url;
    std::string received;
    EXPECT_EQ(0, listener.connections(&received)) << url << ": " << received;
  }
}

TEST_F(DownloaderTest, AddressWithoutSchemeIsStillFetchedOverHttp) {
  server->serve("/plain.wgt", 200, "plain");
  const std::string url = "127.0.0.1:" + std::to_string(server->port()) +
                          "/plain.wgt";
  EXPECT_TRUE(stores(url, "plain"));
}

TEST_F(DownloaderTest, RedirectToAnotherProtocolReachesNothing) {
  Listener listener;
  server->serveRedirect("/moved.wgt",
                        "gopher://" + listener.hostPort() + "/_x",
                        "moved");
  EXPECT_TRUE(stores(server->url("/moved.wgt"), "moved"));
  EXPECT_EQ(0, listener.connections());
}

TEST_F(DownloaderTest, FileAddressOfAnotherHostIsRefusedWithItsReason) {
  // The file exists here, so that only the host can be why it is refused.
  const std::string package = dir.file("local.wgt");
  TempDir::writeFile(package, "local package");
  for (const char* host : {"otherhost", "127.0.0.1", "localhost.example", "user@localhost",
                           "localhost:80", "%6cocalhost"}) {
    const std::string url = std::string("file://") + host + package;
    Outcome why;
    EXPECT_TRUE(failsToDownload(
        url, "Refusing to download " + url +
                 ": a file:// address may name no host other than localhost\n",
        &why));
    EXPECT_EQ(WIDGETENGINE_REFUSAL_ADDRESS, why.code()) << url;
    EXPECT_EQ("the address " + url + " names the host " + host +
                  "; a file:// address may name no host other than localhost",
              why.reason());
  }
}

TEST_F(DownloaderTest, FileAddressOfNoHostOrLocalhostIsFetched) {
  TempDir::writeFile(dir.file("local.wgt"), "local package");
  for (const char* prefix : {"file://", "file://localhost", "FILE://LocalHost", "File://"}) {
    EXPECT_TRUE(stores(prefix + dir.file("local.wgt"), "local package")) << prefix;
  }
}

TEST_F(DownloaderTest, LocalFileIsStillFetched) {
  TempDir::writeFile(dir.file("local.wgt"), "local package");
  EXPECT_TRUE(stores("file://" + dir.file("local.wgt"), "local package"));
}

}  // namespace

namespace {

const char kCutPath[] = "/w/cut.wgt";

HttpServer::Resource cutPackage(const std::string& body, const std::string& etag) {
  HttpServer::Resource package;
  package.body = body;
  package.etag = etag;
  package.contentType = "application/widget";
  package.cutFirstAt = body.size() / 2;
  return package;
}

}  // namespace

// Passes when package, served at kCutPath, is downloaded whole with one
// resumption allowed, and the file then holds exactly expected.
::testing::AssertionResult DownloaderTest::resumes(
    const HttpServer::Resource& package, const std::string& expected) {
  server->serveResource(kCutPath, package);
  Downloader downloader(server->url(kCutPath), packagePath);
  downloader.resumeCutTransfers(1);
  std::string output;
  if (download(downloader, &output) != 0)
    return ::testing::AssertionFailure() << "download() failed: " << output;
  if (TempDir::readFile(packagePath) != expected)
    return ::testing::AssertionFailure() << "the bytes stored differ";
  return ::testing::AssertionSuccess();
}

TEST_F(DownloaderTest, CutDownloadFailsUnlessResumingIsAsked) {
  const std::string body = randomBytes(300 * 1024);
  server->serveResource(kCutPath, cutPackage(body, "\"p1\""));
  EXPECT_TRUE(failsToDownload(server->url(kCutPath)));
  EXPECT_EQ(0, server->rangeRequests(kCutPath));
  EXPECT_EQ(1, server->requestCount(kCutPath));
}

TEST_F(DownloaderTest, CutDownloadResumesWhereItStopped) {
  const std::string body = randomBytes(300 * 1024);
  server->serveResource(kCutPath, cutPackage(body, "\"p1\""));
  const std::string url = server->url(kCutPath);
  Downloader downloader(url, packagePath);
  downloader.resumeCutTransfers(2);
  std::string output;
  ASSERT_EQ(0, download(downloader, &output)) << output;
  EXPECT_EQ("Resuming the download of " + url + " at byte " +
                std::to_string(body.size() / 2) + "\nDownloaded from " + url +
                " to " + packagePath + "\n",
            output);
  EXPECT_TRUE(TempDir::readFile(packagePath) == body);
  EXPECT_EQ(1, server->rangeRequests(kCutPath));
  const std::string request = server->lastRequest(kCutPath);
  EXPECT_NE(std::string::npos,
            request.find("Range: bytes=" + std::to_string(body.size() / 2) + "-\r\n"));
  EXPECT_NE(std::string::npos, request.find("If-Range: \"p1\"\r\n"));
}

TEST_F(DownloaderTest, LastModifiedServesAsTheValidatorWithoutAnEtag) {
  const std::string body = randomBytes(200 * 1024);
  HttpServer::Resource package = cutPackage(body, "");
  package.lastModified = "Tue, 24 Nov 2026 10:00:00 GMT";
  EXPECT_TRUE(resumes(package, body));
  EXPECT_NE(std::string::npos, server->lastRequest(kCutPath)
                                   .find("If-Range: " + package.lastModified));
}

TEST_F(DownloaderTest, WholeAnswerToARangeRequestStartsTheFileOver) {
  const std::string body = randomBytes(200 * 1024);
  HttpServer::Resource package = cutPackage(body, "\"p1\"");
  package.ignoreRange = true;
  EXPECT_TRUE(resumes(package, body));
  EXPECT_EQ(1, server->rangeRequests(kCutPath));
  EXPECT_EQ(2, server->bodiesSent(kCutPath));
}

TEST_F(DownloaderTest, PackageChangedBetweenAttemptsIsFetchedAnew) {
  const std::string first = randomBytes(200 * 1024);
  const std::string second = std::string(150 * 1024, 'n');
  HttpServer::Resource package = cutPackage(first, "\"p1\"");
  package.bodyAfterCut = second;
  package.etagAfterCut = "\"p2\"";
  EXPECT_TRUE(resumes(package, second));
  EXPECT_NE(std::string::npos,
            server->lastRequest(kCutPath).find("If-Range: \"p1\"\r\n"));
}

TEST_F(DownloaderTest, PartialAnswerFromTheWrongPlaceFailsTheDownload) {
  HttpServer::Resource package = cutPackage(randomBytes(200 * 1024), "\"p1\"");
  package.wrongRange = true;
  server->serveResource(kCutPath, package);
  Downloader downloader(server->url(kCutPath), packagePath);
  downloader.resumeCutTransfers(3);
  std::string output;
  EXPECT_EQ(-1, download(downloader, &output));
  EXPECT_NE(std::string::npos, downloader.outcome().reason().find("elsewhere"));
  EXPECT_EQ(1, server->rangeRequests(kCutPath));
  EXPECT_FALSE(TempDir::exists(packagePath));
}
