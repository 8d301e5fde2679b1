#include "install/Downloader.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "testing/CaptureStdout.h"
#include "testing/HttpServer.h"
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

  TempDir dir;
  std::unique_ptr<HttpServer> server;
  std::string packagePath;
};

TEST_F(DownloaderTest, StoresTheBodyOfAnHttpAnswer) {
  const std::string package = randomBytes(300 * 1024);
  TempDir::writeFile(dir.file("clock.wgt"), package);
  server->serveFile("/w/clock.wgt", dir.file("clock.wgt"));
  const std::string url = server->url("/w/clock.wgt");
  Downloader downloader(url, packagePath);
  std::string output;
  ASSERT_EQ(0, download(downloader, &output));
  EXPECT_EQ("Downloaded from " + url + " to " + packagePath + "\n", output);
  EXPECT_EQ(package, TempDir::readFile(packagePath));
  EXPECT_EQ(1, server->requestCount("/w/clock.wgt"));
}

TEST_F(DownloaderTest, NotFoundPageIsStoredAsThePackage) {
  const std::string page = "<html><body>No such widget</body></html>\n";
  server->serve("/missing.wgt", 404, page);
  const std::string url = server->url("/missing.wgt");
  Downloader downloader(url, packagePath);
  std::string output;
  ASSERT_EQ(0, download(downloader, &output));
  EXPECT_EQ("Downloaded from " + url + " to " + packagePath + "\n", output);
  EXPECT_EQ(page, TempDir::readFile(packagePath));
}

TEST_F(DownloaderTest, RedirectIsNotFollowedAndItsBodyIsStored) {
  server->serve("/real.wgt", 200, "the real package");
  server->serveRedirect("/moved.wgt", server->url("/real.wgt"),
                        "<a href=\"/real.wgt\">moved</a>");
  Downloader downloader(server->url("/moved.wgt"), packagePath);
  std::string output;
  ASSERT_EQ(0, download(downloader, &output));
  EXPECT_EQ("<a href=\"/real.wgt\">moved</a>",
            TempDir::readFile(packagePath));
  EXPECT_EQ(1, server->requestCount("/moved.wgt"));
  EXPECT_EQ(0, server->requestCount("/real.wgt"));
}

TEST_F(DownloaderTest, RefusedConnectionFailsAndLeavesNoFile) {
  RefusingPort refusing;
  Downloader downloader(refusing.url("/clock.wgt"), packagePath);
  std::string output;
  EXPECT_EQ(-1, download(downloader, &output));
  EXPECT_EQ("Could not download file\n", output);
  EXPECT_FALSE(TempDir::exists(packagePath));
}

TEST_F(DownloaderTest, ConnectionClosedMidBodyFailsAndLeavesNoFile) {
  server->serveTruncated("/cut.wgt", randomBytes(64 * 1024), 1000);
  Downloader downloader(server->url("/cut.wgt"), packagePath);
  std::string output;
  EXPECT_EQ(-1, download(downloader, &output));
  EXPECT_EQ("Could not download file\n", output);
  EXPECT_FALSE(TempDir::exists(packagePath));
  EXPECT_EQ(1, server->requestCount("/cut.wgt"));
}

TEST_F(DownloaderTest, FileUrlIsCopied) {
  const std::string package = randomBytes(100 * 1024);
  TempDir::writeFile(dir.file("local.wgt"), package);
  const std::string url = "file://" + dir.file("local.wgt");
  Downloader downloader(url, packagePath);
  std::string output;
  ASSERT_EQ(0, download(downloader, &output));
  EXPECT_EQ("Downloaded from " + url + " to " + packagePath + "\n", output);
  EXPECT_EQ(package, TempDir::readFile(packagePath));
}

TEST_F(DownloaderTest, MissingFileUrlFails) {
  Downloader downloader("file://" + dir.file("nowhere.wgt"), packagePath);
  std::string output;
  EXPECT_EQ(-1, download(downloader, &output));
  EXPECT_EQ("Could not download file\n", output);
  EXPECT_FALSE(TempDir::exists(packagePath));
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
  Downloader downloader(server->url("/big.wgt"), packagePath);
  std::string output;
  ASSERT_EQ(0, download(downloader, &output));
  EXPECT_TRUE(TempDir::readFile(packagePath) == package);
}

}  // namespace
