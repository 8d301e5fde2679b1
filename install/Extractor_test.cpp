// SPDX-License-Identifier: Apache-2.0
#include "install/Extractor.h"

#include <gtest/gtest.h>
#include <widgetengine/WidgetEngineExtensions.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "testing/CaptureStdout.h"
#include "testing/ChildProcess.h"
#include "testing/OutputChecks.h"
#include "base/ScopedFd.h"
#include "signature/FileDigests.h"
#include "signature/PackageTree.h"
#include "testing/ScopedEnv.h"
#include "testing/FolderDigests.h"
#include "testing/TempDir.h"
#include "testing/WorkingDirectory.h"
#include "testing/ZipBuilder.h"

namespace {

using Files = std::vector<std::string>;

std::string trace(const std::string& full) {
  return "[V:Extractor] filename: " + full + "\n";
}

// The line of a file that could not be opened for writing.
std::string openError(int error) {
  return "Error opening file (error " + std::to_string(error) + ")\n";
}

// The line of a target directory that could not be made.
std::string targetError(int error) {
  return "Directory could not be created to extract the zip (error " +
         std::to_string(error) + ")\n";
}

bool isDirectory(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

mode_t permissions(const std::string& path) {
  struct stat info;
  if (lstat(path.c_str(), &info) != 0) return 0;
  return info.st_mode & 07777;
}

std::string currentDirectory() {
  char buffer[PATH_MAX];
  return getcwd(buffer, sizeof(buffer)) ? buffer : "";
}

// Offsets of the zip records that the fault tests rewrite.
std::vector<size_t> findAll(const std::string& bytes, const char* signature) {
  std::vector<size_t> at;
  for (size_t i = bytes.find(signature, 0, 4); i != std::string::npos;
       i = bytes.find(signature, i + 1, 4)) {
    at.push_back(i);
  }
  return at;
}
const char kLocalHeader[] = "PK\x03\x04";
const char kCentralHeader[] = "PK\x01\x02";

void put16(std::string& bytes, size_t at, uint16_t value) {
  bytes[at] = static_cast<char>(value & 0xff);
  bytes[at + 1] = static_cast<char>(value >> 8);
}
void put32(std::string& bytes, size_t at, uint32_t value) {
  for (int i = 0; i < 4; ++i) {
    bytes[at + i] = static_cast<char>((value >> (8 * i)) & 0xff);
  }
}

class ExtractorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    umask(022);
    zipPath = dir.file("package.wgt");
    target = dir.file("widget_clock") + "/";
  }

  void build(const ZipBuilder& zip) { ASSERT_TRUE(zip.write(zipPath)); }

  // Runs one extraction into target and returns its result; output holds
  // what it printed (without the destruction's line, which ends in cleaned).
  int extract(Files& files, std::string* output = nullptr) {
    CaptureStdout capture;
    Extractor extractor(zipPath, target);
    int result = extractor.extract(files);
    extractor.setKeepFiles(true);
    if (output) *output = capture.text();
    return result;
  }

  // Passes when an extraction fails (-1) having printed exactly expected.
  ::testing::AssertionResult failsWith(const std::string& expected) {
    Files files;
    return failure(expected, files);
  }

  // Passes when an extraction is refused (-1) having printed exactly
  // expected, listed no file and never made the target.
  ::testing::AssertionResult refusedWith(const std::string& expected) {
    Files files;
    ::testing::AssertionResult failed = failure(expected, files);
    if (!failed) return failed;
    if (!files.empty())
      return ::testing::AssertionFailure()
             << "the refusal listed " << files.size() << " files";
    if (TempDir::exists(target))
      return ::testing::AssertionFailure() << "the refusal made " << target;
    return ::testing::AssertionSuccess();
  }

  // Extracts into target (which must succeed), runs then on the live
  // extractor and the files it listed, and destroys the extractor; returns
  // everything printed, the destruction's line included.
  std::string extractThen(
      const std::function<void(Extractor&, const Files&)>& then) {
    CaptureStdout capture;
    {
      Extractor extractor(zipPath, target);
      Files files;
      EXPECT_EQ(0, extractor.extract(files));
      then(extractor, files);
    }
    return capture.text();
  }

  // Extracts with a link named name, pointing at pointee, planted in the
  // target after the extractor wiped it; extract()'s result. output gets
  // everything printed, the destruction's line included.
  int extractOverLink(const std::string& name, const std::string& pointee,
                      std::string* output) {
    CaptureStdout capture;
    int result;
    {
      Extractor extractor(zipPath, target);
      EXPECT_EQ(0, mkdir(target.c_str(), 0755));
      EXPECT_EQ(0, symlink(pointee.c_str(), (target + name).c_str()));
      Files files;
      result = extractor.extract(files);
    }
    *output = capture.text();
    return result;
  }

  // Removals move the process; each test ends where it began.
  WorkingDirectory start;
  TempDir dir;
  std::string zipPath;
  std::string target;

 private:
  ::testing::AssertionResult failure(const std::string& expected,
                                     Files& files) {
    std::string output;
    const int result = extract(files, &output);
    return returnedAndPrinted("extract()", result, -1, output, expected);
  }
};

TEST_F(ExtractorTest, ExtractsFilesAndListsThemInArchiveOrder) {
  ZipBuilder zip;
  zip.addFile("config.xml", "<widget/>")
      .addFolder("images/")
      .addFile("images/icon.png", std::string("\x89PNG\0\1", 6),
               ZipBuilder::kStored)
      .addFile("index.html", "<html></html>");
  build(zip);
  Files files;
  std::string output;
  ASSERT_EQ(0, extract(files, &output));
  EXPECT_EQ((Files{"config.xml", "images/icon.png", "index.html"}), files);
  EXPECT_EQ(trace(target + "config.xml") + trace(target + "images/") +
                trace(target + "images/icon.png") +
                trace(target + "index.html"),
            output);
  EXPECT_EQ("<widget/>", TempDir::readFile(target + "config.xml"));
  EXPECT_EQ(std::string("\x89PNG\0\1", 6),
            TempDir::readFile(target + "images/icon.png"));
  EXPECT_EQ("<html></html>", TempDir::readFile(target + "index.html"));
  EXPECT_EQ(0644u, permissions(target + "config.xml"));
  EXPECT_EQ(0755u, permissions(target + "images"));
}

TEST_F(ExtractorTest, EveryCompressionMethodGivesTheSameBytes) {
  std::string text;
  for (int i = 0; i < 50000; ++i) text += "row " + std::to_string(i % 97) + ";";
  std::string noise(3 << 20, '\0');
  unsigned state = 7;
  for (char& c : noise) {
    state = state * 1103515245u + 12345u;
    c = static_cast<char>(state >> 16);
  }
  ZipBuilder zip;
  zip.addFile("stored.txt", text, ZipBuilder::kStored)
      .addFile("deflated.txt", text)
      .addFile("fast.bin", noise, 1)
      .addFile("bzip2.txt", text, ZipBuilder::kBzip2)
      .addFile("empty.txt", "")
      .addFile("empty-stored.txt", "", ZipBuilder::kStored);
  build(zip);
  Files files;
  ASSERT_EQ(0, extract(files));
  EXPECT_EQ(6u, files.size());
  EXPECT_TRUE(TempDir::readFile(target + "stored.txt") == text);
  EXPECT_TRUE(TempDir::readFile(target + "deflated.txt") == text);
  EXPECT_TRUE(TempDir::readFile(target + "fast.bin") == noise);
  EXPECT_TRUE(TempDir::readFile(target + "bzip2.txt") == text);
  EXPECT_TRUE(TempDir::exists(target + "empty.txt"));
  EXPECT_EQ("", TempDir::readFile(target + "empty.txt"));
  EXPECT_EQ("", TempDir::readFile(target + "empty-stored.txt"));
}

TEST_F(ExtractorTest, AppendsToTheListWithoutClearingIt) {
  ZipBuilder zip;
  zip.addFile("a.txt", "a");
  build(zip);
  Files files{"earlier"};
  ASSERT_EQ(0, extract(files));
  EXPECT_EQ((Files{"earlier", "a.txt"}), files);
}

TEST_F(ExtractorTest, ListsOnlyFilesNeverFolders) {
  ZipBuilder zip;
  zip.addFolder("a/").addFile("a/1.txt", "1").addFolder("b/").addFolder(
      "b/c/").addFile("2.txt", "2");
  build(zip);
  Files files;
  ASSERT_EQ(0, extract(files));
  EXPECT_EQ((Files{"a/1.txt", "2.txt"}), files);
  EXPECT_TRUE(isDirectory(target + "b/c"));
}

TEST_F(ExtractorTest, ArchiveOfFoldersOnlyIsRefused) {
  ZipBuilder zip;
  zip.addFolder("images/").addFolder("locales/").addFolder("locales/fr/");
  build(zip);
  EXPECT_TRUE(refusedWith("Zip archive contains only folders\n"));
}

TEST_F(ExtractorTest, EmptyArchiveIsRefused) {
  build(ZipBuilder());
  EXPECT_TRUE(refusedWith("Empty archive\n"));
}

TEST_F(ExtractorTest, NestedNameWithoutFolderEntriesCreatesItsFolders) {
  ZipBuilder zip;
  zip.addFile("a/b/c.txt", "deep");
  build(zip);
  Files files;
  std::string output;
  ASSERT_EQ(0, extract(files, &output));
  EXPECT_EQ(Files{"a/b/c.txt"}, files);
  EXPECT_EQ(trace(target + "a/b/c.txt"), output);
  EXPECT_EQ("deep", TempDir::readFile(target + "a/b/c.txt"));
  EXPECT_EQ(0755u, permissions(target + "a"));
  EXPECT_EQ(0755u, permissions(target + "a/b"));
}

TEST_F(ExtractorTest, NonAsciiNameIsRefusedBeforeAnythingIsWritten) {
  ZipBuilder zip;
  zip.addFile("config.xml", "<widget/>").addFile("caf\xC3\xA9.html", "x");
  build(zip);
  EXPECT_TRUE(refusedWith("Incorrect file name: caf\xC3\xA9.html\n"));
}

TEST_F(ExtractorTest, EachRefusedCharacterIsRefused) {
  const char refused[] = {'!', '"', '*', ':', '<', '>', '?',
                          '\\', '^', '`', '{', '|', '}', 127};
  for (char c : refused) {
    SCOPED_TRACE(static_cast<int>(c));
    const std::string name = std::string("ok.txt") + c + "x";
    ZipBuilder zip;
    zip.addFile("first.txt", "1").addFile(name, "2");
    build(zip);
    EXPECT_TRUE(refusedWith("Incorrect file name: " + name + "\n"));
  }
}

// Control characters and high bytes are refused; the name printed is the one
// the archive reader reports, which may have been recoded.
TEST_F(ExtractorTest, ControlCharactersAndHighBytesAreRefused) {
  for (int byte : {0x01, 0x09, 0x1F, 0x80, 0xA0, 0xFF}) {
    SCOPED_TRACE(byte);
    ZipBuilder zip;
    zip.addFile(std::string("n") + static_cast<char>(byte) + ".txt", "x");
    build(zip);
    Files files;
    std::string output;
    EXPECT_EQ(-1, extract(files, &output));
    EXPECT_EQ(0u, output.rfind("Incorrect file name: n", 0)) << output;
    EXPECT_FALSE(TempDir::exists(target));
  }
}

TEST_F(ExtractorTest, PunctuationThatIsAllowedExtracts) {
  const std::string name = "a b#%&'()+,;=@[]~$-_.txt";
  ZipBuilder zip;
  zip.addFile(name, "fine");
  build(zip);
  Files files;
  ASSERT_EQ(0, extract(files));
  EXPECT_EQ(Files{name}, files);
  EXPECT_EQ("fine", TempDir::readFile(target + name));
}

TEST_F(ExtractorTest, ParentFolderComponentIsRefused) {
  for (const char* name : {"../evil.txt", "a/../../evil.txt", "a/..",
                           "../", "a/../b.txt"}) {
    SCOPED_TRACE(name);
    ZipBuilder zip;
    zip.addFile("config.xml", "<widget/>").addFile(name, "evil");
    build(zip);
    EXPECT_TRUE(
        refusedWith(std::string("Incorrect file name: ") + name + "\n"));
    EXPECT_FALSE(TempDir::exists(dir.file("evil.txt")));
  }
}

TEST_F(ExtractorTest, DotsInsideANameAreNotAParentFolder) {
  ZipBuilder zip;
  zip.addFile("a/..b/c..txt", "ok").addFile("...", "dots");
  build(zip);
  Files files;
  ASSERT_EQ(0, extract(files));
  EXPECT_EQ("ok", TempDir::readFile(target + "a/..b/c..txt"));
  EXPECT_EQ("dots", TempDir::readFile(target + "..."));
}

TEST_F(ExtractorTest, AbsoluteNameStaysInsideTheTarget) {
  ZipBuilder zip;
  zip.addFile("/abs.txt", "inside");
  build(zip);
  Files files;
  ASSERT_EQ(0, extract(files));
  EXPECT_EQ(Files{"/abs.txt"}, files);
  EXPECT_EQ("inside", TempDir::readFile(target + "abs.txt"));
}

TEST_F(ExtractorTest, EncryptedEntryIsRefusedBeforeAnythingIsWritten) {
  ZipBuilder zip;
  zip.addFile("config.xml", "<widget/>")
      .addEncryptedFile("secret.html", "hidden", "password");
  build(zip);
  EXPECT_TRUE(refusedWith("Zip archive must not be encrypted\n"));
}

TEST_F(ExtractorTest, ConstructionWipesAnExistingTargetBeforeAnyCheck) {
  mkdir(target.c_str(), 0755);
  mkdir((target + "old").c_str(), 0755);
  TempDir::writeFile(target + "old/stale.txt", "stale");
  TempDir::writeFile(target + "top.txt", "stale");
  CaptureStdout capture;
  Extractor extractor(dir.file("no-such.wgt"), target);
  EXPECT_FALSE(TempDir::exists(target));
  extractor.setKeepFiles(true);
  EXPECT_EQ("", capture.text());
}

TEST_F(ExtractorTest, TargetWithoutFinalSlashGluesNamesToItsLastComponent) {
  ZipBuilder zip;
  zip.addFile("a.txt", "a").addFile("sub/b.txt", "b");
  build(zip);
  target = dir.file("out");
  Files files;
  std::string output;
  ASSERT_EQ(0, extract(files, &output));
  EXPECT_EQ(trace(target + "a.txt") + trace(target + "sub/b.txt"), output);
  EXPECT_FALSE(TempDir::exists(dir.file("out")));
  EXPECT_EQ("a", TempDir::readFile(dir.file("outa.txt")));
  EXPECT_EQ("b", TempDir::readFile(dir.file("outsub/b.txt")));
}

TEST_F(ExtractorTest, DestructionRemovesTheTreeAndSaysSo) {
  ZipBuilder zip;
  zip.addFile("a/b/c.txt", "c").addFile("d.txt", "d");
  build(zip);
  const std::string output = extractThen([&](Extractor&, const Files&) {
    EXPECT_TRUE(TempDir::exists(target + "a/b/c.txt"));
  });
  EXPECT_EQ(trace(target + "a/b/c.txt") + trace(target + "d.txt") +
                "Extraction cleaned\n",
            output);
  EXPECT_FALSE(TempDir::exists(target));
}

TEST_F(ExtractorTest, KeptFilesSurviveDestructionSilently) {
  ZipBuilder zip;
  zip.addFile("d.txt", "d");
  build(zip);
  EXPECT_EQ(trace(target + "d.txt"),
            extractThen([](Extractor& extractor, const Files&) {
              extractor.setKeepFiles(true);
            }));
  EXPECT_EQ("d", TempDir::readFile(target + "d.txt"));
}

TEST_F(ExtractorTest, KeepingCanBeWithdrawn) {
  ZipBuilder zip;
  zip.addFile("d.txt", "d");
  build(zip);
  const std::string output =
      extractThen([](Extractor& extractor, const Files&) {
        extractor.setKeepFiles(true);
        extractor.setKeepFiles(false);
      });
  EXPECT_NE(std::string::npos, output.find("Extraction cleaned\n"));
  EXPECT_FALSE(TempDir::exists(target));
}

TEST_F(ExtractorTest, CleanRemovesAMissingTreeQuietlyAndStillSaysSo) {
  CaptureStdout capture;
  Extractor extractor(zipPath, target);
  extractor.clean();
  extractor.setKeepFiles(true);
  EXPECT_EQ("Extraction cleaned\n", capture.text());
}

TEST_F(ExtractorTest, MakeDirectoriesCreatesEveryComponentFollowedByASlash) {
  Extractor extractor(zipPath, target);
  extractor.setKeepFiles(true);
  EXPECT_EQ(0, extractor.makeDirectories(dir.file("x/y/z/"), 0755));
  EXPECT_TRUE(isDirectory(dir.file("x/y/z")));
  EXPECT_EQ(0755u, permissions(dir.file("x/y")));
  EXPECT_EQ(0, extractor.makeDirectories(dir.file("p/q/file.txt"), 0755));
  EXPECT_TRUE(isDirectory(dir.file("p/q")));
  EXPECT_FALSE(TempDir::exists(dir.file("p/q/file.txt")));
  // Existing folders count as made.
  EXPECT_EQ(0, extractor.makeDirectories(dir.file("x/y/z/"), 0755));
  EXPECT_EQ(2, extractor.makeDirectories("", 0755));
  EXPECT_EQ(0, extractor.makeDirectories("nothing", 0755));
}

TEST_F(ExtractorTest, MakeDirectoriesReportsOnlyTheLastAttempt) {
  Extractor extractor(zipPath, target);
  extractor.setKeepFiles(true);
  TempDir::writeFile(dir.file("file"), "f");
  // Below a file nothing can be made; the last attempt gives ENOTDIR.
  EXPECT_EQ(ENOTDIR, extractor.makeDirectories(dir.file("file/sub/"), 0755));
  // A file in the middle makes every deeper attempt fail alike.
  EXPECT_EQ(ENOTDIR,
            extractor.makeDirectories(dir.file("file/sub/deeper/"), 0755));
  // Only the last attempt decides: a path whose last component exists counts
  // as made whatever happened before.
  EXPECT_EQ(0, extractor.makeDirectories(dir.file("file/"), 0755));
}

TEST_F(ExtractorTest, MakeDirectoriesNeverGoesThroughAnotherUsersLink) {
  if (geteuid() != 0) GTEST_SKIP() << "giving a link away needs root";
  TempDir outside;
  const std::string link = dir.file("theirs");
  ASSERT_EQ(0, symlink(outside.path().c_str(), link.c_str()));
  ASSERT_EQ(0, lchown(link.c_str(), 65534, 65534));
  Extractor extractor(zipPath, target);
  extractor.setKeepFiles(true);
  EXPECT_EQ(EPERM, extractor.makeDirectories(link + "/sub/deeper/", 0755));
  EXPECT_TRUE(TempDir::listDirectory(outside.path()).empty());
  // One of the caller's own is followed, as any other path is.
  ASSERT_EQ(0, lchown(link.c_str(), 0, 0));
  EXPECT_EQ(0, extractor.makeDirectories(link + "/sub/deeper/", 0755));
  EXPECT_TRUE(isDirectory(outside.file("sub/deeper")));
}

TEST_F(ExtractorTest, RemovalLeavesTheWorkingDirectoryAtTheParent) {
  const std::string tree = dir.file("tree");
  ASSERT_EQ(0, mkdir(tree.c_str(), 0755));
  ASSERT_EQ(0, mkdir((tree + "/sub").c_str(), 0755));
  TempDir::writeFile(tree + "/sub/f.txt", "f");
  Extractor extractor(zipPath, target);
  extractor.setKeepFiles(true);
  extractor.removeDirectoryTree(tree);
  EXPECT_FALSE(TempDir::exists(tree));
  char real[PATH_MAX];
  ASSERT_NE(nullptr, realpath(dir.path().c_str(), real));
  EXPECT_EQ(std::string(real), currentDirectory());
}

TEST_F(ExtractorTest, RemovalOfARelativePathLeavesTheProcessInItsFolder) {
  char real[PATH_MAX];
  ASSERT_NE(nullptr, realpath(dir.path().c_str(), real));
  const std::string base(real);
  ASSERT_EQ(0, mkdir((base + "/sub").c_str(), 0755));
  ASSERT_EQ(0, mkdir((base + "/sub/tree").c_str(), 0755));
  ASSERT_EQ(0, mkdir((base + "/sub/tree/x").c_str(), 0755));
  TempDir::writeFile(base + "/sub/tree/x/f", "f");
  ASSERT_EQ(0, mkdir((base + "/single").c_str(), 0755));
  TempDir::writeFile(base + "/single/f", "f");
  Extractor extractor(zipPath, target);
  extractor.setKeepFiles(true);

  // A bare name: gone, and the process is where it was.
  ASSERT_EQ(0, chdir(base.c_str()));
  extractor.removeDirectoryTree("single");
  EXPECT_FALSE(TempDir::exists(base + "/single"));
  EXPECT_EQ(base, currentDirectory());

  // A longer relative path is emptied, and the process goes to the folder
  // that held it, from where the path no longer names it: it stays, empty.
  extractor.removeDirectoryTree("sub/tree/");
  EXPECT_EQ(base + "/sub", currentDirectory());
  EXPECT_TRUE(isDirectory(base + "/sub/tree"));
  EXPECT_TRUE(TempDir::listDirectory(base + "/sub/tree").empty());
  ASSERT_EQ(0, chdir("/"));
}

TEST_F(ExtractorTest, RemovalDeletesLinksButNotWhatTheyPointAt) {
  TempDir outside;
  TempDir::writeFile(outside.file("precious.txt"), "keep");
  ASSERT_EQ(0, mkdir(target.c_str(), 0755));
  ASSERT_EQ(0, mkdir((target + "sub").c_str(), 0755));
  ASSERT_EQ(0, symlink(outside.path().c_str(), (target + "sub/dir").c_str()));
  ASSERT_EQ(0, symlink(outside.file("precious.txt").c_str(),
                       (target + "file").c_str()));
  { Extractor extractor(zipPath, target); }
  EXPECT_FALSE(TempDir::exists(target));
  EXPECT_EQ("keep", TempDir::readFile(outside.file("precious.txt")));
}

TEST_F(ExtractorTest, LinkAtTheTopOfTheTreeIsRemovedNotDescended) {
  TempDir outside;
  TempDir::writeFile(outside.file("precious.txt"), "keep");
  ASSERT_EQ(0, symlink(outside.path().c_str(), dir.file("widget_clock").c_str()));
  const std::string before = currentDirectory();
  { Extractor extractor(zipPath, target); }
  EXPECT_FALSE(TempDir::exists(dir.file("widget_clock")));
  EXPECT_EQ("keep", TempDir::readFile(outside.file("precious.txt")));
  EXPECT_EQ(before, currentDirectory());
}

TEST_F(ExtractorTest, LinkPlantedInTheTreeIsNeverWrittenThrough) {
  TempDir outside;
  ZipBuilder zip;
  zip.addFile("a/x.txt", "evil");
  build(zip);
  std::string output;
  EXPECT_EQ(-1, extractOverLink("a", outside.path(), &output));
  EXPECT_EQ(
      trace(target + "a/x.txt") + openError(ENOTDIR) + "Extraction cleaned\n",
      output);
  EXPECT_FALSE(TempDir::exists(outside.file("x.txt")));
  EXPECT_FALSE(TempDir::exists(target));
}

TEST_F(ExtractorTest, LinkPlantedAtAFileNameIsNeverWrittenThrough) {
  TempDir outside;
  TempDir::writeFile(outside.file("precious.txt"), "keep");
  ZipBuilder zip;
  zip.addFile("config.xml", "evil");
  build(zip);
  std::string output;
  EXPECT_EQ(
      -1, extractOverLink("config.xml", outside.file("precious.txt"), &output));
  EXPECT_EQ(
      trace(target + "config.xml") + openError(ELOOP) + "Extraction cleaned\n",
      output);
  EXPECT_EQ("keep", TempDir::readFile(outside.file("precious.txt")));
}

TEST_F(ExtractorTest, FolderEntryOverAFileFailsTheFilesBelowIt) {
  ZipBuilder zip;
  zip.addFile("a", "file").addFolder("a/").addFile("a/b.txt", "b");
  build(zip);
  EXPECT_TRUE(failsWith(trace(target + "a") + trace(target + "a/") +
                        trace(target + "a/b.txt") + openError(ENOTDIR)));
}

TEST_F(ExtractorTest, FolderThatCannotBeMadeIsReported) {
  ZipBuilder zip;
  zip.addFile("a", "file").addFolder("a/b/");
  build(zip);
  EXPECT_TRUE(
      failsWith(trace(target + "a") + trace(target + "a/b/") +
                "Subdirectory could not be created to extract the zip (error " +
                std::to_string(ENOTDIR) + ")\n"));
}

TEST_F(ExtractorTest, TargetThatCannotBeMadeIsReported) {
  TempDir::writeFile(dir.file("blocker"), "f");
  target = dir.file("blocker/widget/");
  ZipBuilder zip;
  zip.addFile("a.txt", "a");
  build(zip);
  EXPECT_TRUE(failsWith(targetError(ENOTDIR)));
}

// Marks a folder immutable for its life, so that nothing, not even root, can
// create anything in it.
class ImmutableFolder {
 public:
  explicit ImmutableFolder(const std::string& path) {
    fd_ = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int flags = 0;
    if (fd_ < 0 || ioctl(fd_, FS_IOC_GETFLAGS, &flags) != 0) return;
    flags |= FS_IMMUTABLE_FL;
    active_ = ioctl(fd_, FS_IOC_SETFLAGS, &flags) == 0;
  }
  ~ImmutableFolder() {
    int flags = 0;
    if (active_ && ioctl(fd_, FS_IOC_GETFLAGS, &flags) == 0) {
      flags &= ~FS_IMMUTABLE_FL;
      ioctl(fd_, FS_IOC_SETFLAGS, &flags);
    }
    if (fd_ >= 0) close(fd_);
  }
  bool active() const { return active_; }

 private:
  int fd_ = -1;
  bool active_ = false;
};

TEST_F(ExtractorTest, FileBelowAFolderTheSystemRefusesFailsAsMissing) {
  const std::string locked = dir.file("locked");
  ASSERT_EQ(0, mkdir(locked.c_str(), 0755));
  ImmutableFolder immutable(locked);
  if (!immutable.active()) GTEST_SKIP() << "no immutable folders here";
  // Without a final "/" names are glued onto "widget" inside the locked
  // folder, where no folder can be made.
  target = locked + "/widget";
  ZipBuilder zip;
  zip.addFile("sub/x.txt", "x");
  build(zip);
  EXPECT_TRUE(failsWith(trace(target + "sub/x.txt") + openError(ENOENT)));
  ZipBuilder folders;
  folders.addFolder("sub/").addFile("x.txt", "x");
  build(folders);
  EXPECT_TRUE(failsWith(
      trace(target + "sub/") +
      "Subdirectory could not be created to extract the zip (error " +
      std::to_string(EPERM) + ")\n"));
}

TEST_F(ExtractorTest, FileInPlaceOfTheTargetFailsItsEntries) {
  TempDir::writeFile(dir.file("widget_clock"), "stray");
  ZipBuilder zip;
  zip.addFile("a.txt", "a");
  build(zip);
  EXPECT_TRUE(failsWith(trace(target + "a.txt") + openError(ENOTDIR)));
  ZipBuilder folders;
  folders.addFolder("sub/").addFile("a.txt", "a");
  build(folders);
  EXPECT_TRUE(failsWith(
      trace(target + "sub/") +
      "Subdirectory could not be created to extract the zip (error " +
      std::to_string(ENOTDIR) + ")\n"));
  EXPECT_EQ("stray", TempDir::readFile(dir.file("widget_clock")));
}

// ---- Bad input and faults ----

TEST_F(ExtractorTest, MissingPackageIsNotAValidArchive) {
  EXPECT_TRUE(refusedWith("Zip archive is not valid (error 9)\n"));
}

TEST_F(ExtractorTest, RandomBytesAreNotAValidArchive) {
  std::mt19937 random(42);
  std::string bytes(64 * 1024, '\0');
  for (char& c : bytes) c = static_cast<char>(random());
  TempDir::writeFile(zipPath, bytes);
  EXPECT_TRUE(refusedWith("Zip archive is not valid (error 19)\n"));
}

TEST_F(ExtractorTest, HtmlErrorPageIsNotAValidArchive) {
  TempDir::writeFile(zipPath, "<html><body>404 Not Found</body></html>\n");
  EXPECT_TRUE(refusedWith("Zip archive is not valid (error 19)\n"));
}

TEST_F(ExtractorTest, TruncatedArchiveIsNotAValidArchive) {
  ZipBuilder zip;
  zip.addFile("config.xml", std::string(4000, 'c'))
      .addFile("index.html", std::string(4000, 'i'), ZipBuilder::kStored);
  build(zip);
  std::string bytes = TempDir::readFile(zipPath);
  TempDir::writeFile(zipPath, bytes.substr(0, bytes.size() / 2));
  EXPECT_TRUE(refusedWith("Zip archive is not valid (error 19)\n"));
}

TEST_F(ExtractorTest, CorruptEntryDataEndsItsCopyAndStillCounts) {
  std::string text;
  for (int i = 0; i < 2000; ++i) text += "line " + std::to_string(i) + "\n";
  ZipBuilder zip;
  zip.addFile("config.xml", "<widget/>").addFile("index.html", text);
  build(zip);
  std::string bytes = TempDir::readFile(zipPath);
  std::vector<size_t> local = findAll(bytes, kLocalHeader);
  ASSERT_EQ(2u, local.size());
  // Scramble the middle of the second entry's deflated data.
  const size_t middle = (local[1] + bytes.find(kCentralHeader)) / 2;
  for (size_t i = middle; i < middle + 16; ++i) bytes[i] = ~bytes[i];
  TempDir::writeFile(zipPath, bytes);
  Files files;
  std::string output;
  EXPECT_EQ(0, extract(files, &output));
  EXPECT_EQ((Files{"config.xml", "index.html"}), files);
  EXPECT_EQ(trace(target + "config.xml") + trace(target + "index.html"),
            output);
  EXPECT_LT(TempDir::readFile(target + "index.html").size(), text.size());
}

// Checked entries, as widgetctl and widget-browser ask for them, for the
// length of one test.
class VerifiedEntries {
 public:
  VerifiedEntries() { widgetengine_set_verify_entries(1); }
  ~VerifiedEntries() { widgetengine_set_verify_entries(0); }
};

TEST_F(ExtractorTest, CorruptDeflatedDataFailsAsADamagedFileAndLeavesNothing) {
  VerifiedEntries verified;
  std::string text;
  for (int i = 0; i < 2000; ++i) text += "line " + std::to_string(i) + "\n";
  ZipBuilder zip;
  zip.addFile("config.xml", "<widget/>").addFile("index.html", text);
  build(zip);
  std::string bytes = TempDir::readFile(zipPath);
  std::vector<size_t> local = findAll(bytes, kLocalHeader);
  ASSERT_EQ(2u, local.size());
  // Scramble the middle of the second entry's deflated data.
  const size_t middle = (local[1] + bytes.find(kCentralHeader)) / 2;
  for (size_t i = middle; i < middle + 16; ++i) bytes[i] = ~bytes[i];
  TempDir::writeFile(zipPath, bytes);
  EXPECT_TRUE(failsWith(trace(target + "config.xml") +
                        trace(target + "index.html") +
                        "Damaged file in archive: index.html\n"));
}

TEST_F(ExtractorTest, StoredBytesThatFailTheirChecksumFailAndLeaveNothing) {
  VerifiedEntries verified;
  ZipBuilder zip;
  zip.addFile("config.xml", "<widget/>", ZipBuilder::kStored)
      .addFile("script.js", "var clockHands = 12;", ZipBuilder::kStored);
  build(zip);
  std::string bytes = TempDir::readFile(zipPath);
  const size_t at = bytes.find("clockHands");
  ASSERT_NE(std::string::npos, at);
  bytes[at + 9] = 'z';  // same size, other bytes: only the checksum tells
  TempDir::writeFile(zipPath, bytes);
  EXPECT_TRUE(failsWith(trace(target + "config.xml") +
                        trace(target + "script.js") +
                        "Damaged file in archive: script.js\n"));
}

TEST_F(ExtractorTest, DamagedEntryReadThroughLibzipFailsToo) {
  VerifiedEntries verified;
  // bzip2 entries are read through libzip rather than from the file.
  ZipBuilder zip;
  zip.addFile("config.xml", "<widget/>", ZipBuilder::kStored)
      .addFile("script.js", "var clockHands = 12;", ZipBuilder::kBzip2);
  build(zip);
  std::string bytes = TempDir::readFile(zipPath);
  std::vector<size_t> local = findAll(bytes, kLocalHeader);
  std::vector<size_t> central = findAll(bytes, kCentralHeader);
  ASSERT_EQ(2u, local.size());
  ASSERT_EQ(2u, central.size());
  // Both records agree on a checksum that the data does not have.
  bytes[local[1] + 14] = static_cast<char>(bytes[local[1] + 14] ^ 0x55);
  bytes[central[1] + 16] = static_cast<char>(bytes[central[1] + 16] ^ 0x55);
  TempDir::writeFile(zipPath, bytes);
  EXPECT_TRUE(failsWith(trace(target + "config.xml") +
                        trace(target + "script.js") +
                        "Damaged file in archive: script.js\n"));
}

TEST_F(ExtractorTest, CentralDirectoryThatLiesAboutSizesIsInconsistent) {
  ZipBuilder zip;
  zip.addFile("config.xml", "<widget/>")
      .addFile("index.html", std::string(1000, 'i'), ZipBuilder::kStored);
  build(zip);
  std::string bytes = TempDir::readFile(zipPath);
  std::vector<size_t> central = findAll(bytes, kCentralHeader);
  ASSERT_EQ(2u, central.size());
  put32(bytes, central[1] + 20, 10);  // compressed size
  put32(bytes, central[1] + 24, 10);  // uncompressed size
  TempDir::writeFile(zipPath, bytes);
  EXPECT_TRUE(refusedWith("Zip archive is not valid (error 21)\n"));
}

TEST_F(ExtractorTest, UnreadableEntryMethodIsRefusedWithTheOpenErrorNumber) {
  ZipBuilder zip;
  zip.addFile("config.xml", "<widget/>")
      .addFile("index.html", "data", ZipBuilder::kStored);
  build(zip);
  std::string bytes = TempDir::readFile(zipPath);
  std::vector<size_t> local = findAll(bytes, kLocalHeader);
  std::vector<size_t> central = findAll(bytes, kCentralHeader);
  ASSERT_EQ(2u, local.size());
  ASSERT_EQ(2u, central.size());
  // A compression method this reader has no decoder for.
  put16(bytes, local[1] + 8, 97);
  put16(bytes, central[1] + 10, 97);
  TempDir::writeFile(zipPath, bytes);
  EXPECT_TRUE(refusedWith("Could not read file in archive (error 0)\n"));
}

TEST_F(ExtractorTest, TenThousandEntriesExtractAndAreRemovedAgain) {
  ZipBuilder zip;
  for (int i = 0; i < 10000; ++i) {
    zip.addFile("d" + std::to_string(i % 100) + "/f" + std::to_string(i) +
                    ".txt",
                std::to_string(i), ZipBuilder::kStored);
  }
  build(zip);
  extractThen([&](Extractor&, const Files& files) {
    ASSERT_EQ(10000u, files.size());
    EXPECT_EQ("d99/f9999.txt", files.back());
    EXPECT_EQ("9999", TempDir::readFile(target + "d99/f9999.txt"));
  });
  EXPECT_FALSE(TempDir::exists(target));
}

TEST_F(ExtractorTest, DeepTreeExtractsAndIsRemovedWhole) {
  std::string deep;
  for (int i = 0; i < 1500; ++i) deep += "d/";
  ZipBuilder zip;
  zip.addFile(deep + "leaf.txt", "leaf").addFolder(deep + "e/").addFile(
      "top.txt", "top");
  build(zip);
  extractThen([&](Extractor&, const Files& files) {
    EXPECT_EQ((Files{deep + "leaf.txt", "top.txt"}), files);
    EXPECT_EQ("top", TempDir::readFile(target + "top.txt"));
  });
  EXPECT_FALSE(TempDir::exists(target));
}

// A name of exactly length bytes: folders of 100 bytes, then a last part
// of at most 101 bytes, and a final "/" for a folder.
std::string nameOfLength(size_t length, bool folder) {
  const size_t body = folder ? length - 1 : length;
  std::string name;
  while (body - name.size() > 101) name += std::string(100, 'd') + "/";
  name += std::string(body - name.size(), 'f');
  return folder ? name + "/" : name;
}

// The name's folders whose whole path stays below PATH_MAX bytes.
std::string deepestMadeFolder(const std::string& target,
                              const std::string& name) {
  const size_t cut = name.rfind('/', PATH_MAX - 1 - target.size());
  return target + name.substr(0, cut);
}

TEST_F(ExtractorTest, NameLongerThanAPathCanBeIsNotWritten) {
  std::string deep;
  for (int i = 0; i < 2100; ++i) deep += "d/";
  ZipBuilder zip;
  zip.addFile("top.txt", "top").addFile(deep + "leaf.txt", "leaf");
  build(zip);
  EXPECT_TRUE(failsWith(trace(target + "top.txt") +
                        trace(target + deep + "leaf.txt") +
                        openError(ENAMETOOLONG)));
  // Its folders are made as far as a path can name them, no further.
  const std::string made = deepestMadeFolder(target, deep);
  EXPECT_TRUE(isDirectory(made));
  EXPECT_FALSE(TempDir::exists(made + "/d"));
}

TEST_F(ExtractorTest, FileWhosePathJustFitsIsWritten) {
  const std::string name = nameOfLength(PATH_MAX - 1 - target.size(), false);
  ASSERT_EQ(PATH_MAX - 1u, (target + name).size());
  ZipBuilder zip;
  zip.addFile(name, "fits").addFile(name + "x", "too long");
  build(zip);
  EXPECT_TRUE(failsWith(trace(target + name) + trace(target + name + "x") +
                        openError(ENAMETOOLONG)));
  EXPECT_EQ("fits", TempDir::readFile(target + name));
}

TEST_F(ExtractorTest, FolderWhosePathJustFitsIsMade) {
  // The folder's own path is one byte shorter than its name with the "/".
  const std::string name = nameOfLength(PATH_MAX - target.size(), true);
  ASSERT_EQ(static_cast<size_t>(PATH_MAX), (target + name).size());
  ZipBuilder zip;
  zip.addFolder(name).addFile("a.txt", "a");
  build(zip);
  Files files;
  ASSERT_EQ(0, extract(files));
  EXPECT_EQ(Files{"a.txt"}, files);
  EXPECT_TRUE(isDirectory(target + name.substr(0, name.size() - 1)));
}

TEST_F(ExtractorTest, FolderLongerThanAPathCanBeIsMadeAsFarAsItReaches) {
  const std::string name = nameOfLength(PATH_MAX + 1 - target.size(), true);
  ZipBuilder zip;
  zip.addFile("a.txt", "a").addFolder(name);
  build(zip);
  EXPECT_TRUE(failsWith(
      trace(target + "a.txt") + trace(target + name) +
      "Subdirectory could not be created to extract the zip (error " +
      std::to_string(ENAMETOOLONG) + ")\n"));
  const std::string made = deepestMadeFolder(target, name);
  EXPECT_TRUE(isDirectory(made));
  EXPECT_GT(made.size(), static_cast<size_t>(PATH_MAX - 102));
}

// Runs one extraction in a child process whose files may not grow beyond
// limitBytes (writes past it fail with EFBIG, as on a full disk). Returns
// the child's output; *result gets extract()'s result.
std::string extractWithFileSizeLimit(const std::string& zipPath,
                                     const std::string& target,
                                     rlim_t limitBytes, int* result) {
  ChildProcess child;
  child.start([&] {
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit = {limitBytes, limitBytes};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 101;
    int status;
    {
      Extractor extractor(zipPath, target);
      Files files;
      status = extractor.extract(files);
    }
    return status == 0 ? 0 : 1;
  });
  child.wait();
  *result = child.exitedWith(0) ? 0 : child.exitedWith(1) ? -1 : 99;
  return child.out();
}

// Passes when an extraction whose files may not grow beyond limitBytes fails
// writing bigEntry, the entry after config.xml, and removes what it wrote.
::testing::AssertionResult stopsAtFileSizeLimit(const std::string& zipPath,
                                                const std::string& target,
                                                rlim_t limitBytes,
                                                const std::string& bigEntry) {
  int result = 0;
  const std::string output =
      extractWithFileSizeLimit(zipPath, target, limitBytes, &result);
  ::testing::AssertionResult failed = returnedAndPrinted(
      "extract()", result, -1, output,
      trace(target + "config.xml") + trace(target + bigEntry) +
          openError(EFBIG) + "Extraction cleaned\n");
  if (!failed) return failed;
  if (TempDir::exists(target))
    return ::testing::AssertionFailure() << target << " was left behind";
  return ::testing::AssertionSuccess();
}

TEST_F(ExtractorTest, WriteThatFailsOnAFullDiskFailsTheExtraction) {
  ZipBuilder zip;
  zip.addFile("config.xml", "<widget/>")
      .addFile("big.bin", std::string(3 << 20, 'b'), ZipBuilder::kStored)
      .addFile("after.txt", "after");
  build(zip);
  EXPECT_TRUE(stopsAtFileSizeLimit(zipPath, target, 1 << 20, "big.bin"));
}

TEST_F(ExtractorTest, EntryThatInflatesToAGigabyteStopsAtTheFileSizeLimit) {
  ZipBuilder zip;
  zip.addFile("config.xml", "<widget/>").addZeros("huge.bin", 1ull << 30);
  build(zip);
  EXPECT_LT(TempDir::readFile(zipPath).size(), 8u << 20);
  EXPECT_TRUE(stopsAtFileSizeLimit(zipPath, target, 4 << 20, "huge.bin"));
}

TEST_F(ExtractorTest, PackageLargerThanTheFreeSpaceIsRefusedBeforeWriting) {
  struct statvfs vfs;
  ASSERT_EQ(0, statvfs(dir.path().c_str(), &vfs));
  const uint64_t freeBytes = static_cast<uint64_t>(vfs.f_bavail) * vfs.f_frsize;
  // Each entry declares almost 4 GiB (the local and central records agree),
  // so the archive stays tiny while its declared total exceeds the space.
  const uint32_t declared = 0xFFFF0000u;
  const size_t entries = static_cast<size_t>(freeBytes / declared) + 2;
  ZipBuilder zip;
  for (size_t i = 0; i < entries; ++i) {
    zip.addFile("f" + std::to_string(i) + ".bin", "x", ZipBuilder::kStored);
  }
  build(zip);
  std::string bytes = TempDir::readFile(zipPath);
  std::vector<size_t> local = findAll(bytes, kLocalHeader);
  std::vector<size_t> central = findAll(bytes, kCentralHeader);
  ASSERT_EQ(entries, local.size());
  ASSERT_EQ(entries, central.size());
  for (size_t i = 0; i < entries; ++i) {
    put32(bytes, local[i] + 22, declared);
    put32(bytes, central[i] + 24, declared);
  }
  TempDir::writeFile(zipPath, bytes);
  EXPECT_TRUE(refusedWith(targetError(ENOSPC)));
}

// Rewrites the sizes of the second entry (the first is config.xml): what
// the local and the central records declare, each as given (-1: as it is).
std::string withSizes(std::string bytes, long localSize, long centralSize,
                      long localCompressed = -1, long centralCompressed = -1) {
  std::vector<size_t> local = findAll(bytes, kLocalHeader);
  std::vector<size_t> central = findAll(bytes, kCentralHeader);
  if (local.size() != 2 || central.size() != 2) return std::string();
  if (localSize >= 0) put32(bytes, local[1] + 22, static_cast<uint32_t>(localSize));
  if (centralSize >= 0) put32(bytes, central[1] + 24, static_cast<uint32_t>(centralSize));
  if (localCompressed >= 0)
    put32(bytes, local[1] + 18, static_cast<uint32_t>(localCompressed));
  if (centralCompressed >= 0)
    put32(bytes, central[1] + 20, static_cast<uint32_t>(centralCompressed));
  return bytes;
}

uint64_t bytesBelow(const std::string& path) {
  uint64_t total = 0;
  for (const std::string& name : TempDir::listDirectory(path)) {
    const std::string full = path + "/" + name;
    if (TempDir::isDirectory(full)) {
      total += bytesBelow(full);
    } else {
      total += TempDir::readFile(full).size();
    }
  }
  return total;
}

TEST_F(ExtractorTest, EntriesThatHoldMoreThanTheyDeclareAreCutAtTheirSize) {
  const std::string big(1 << 20, 'z');
  const int sizeOfConfig = 9;  // "<widget/>"
  for (int method : {ZipBuilder::kStored, ZipBuilder::kDeflateDefault}) {
    SCOPED_TRACE(method == ZipBuilder::kStored ? "stored" : "deflated");
    ZipBuilder zip;
    zip.addFile("config.xml", "<widget/>").addFile("big.bin", big, method);
    build(zip);
    const std::string original = TempDir::readFile(zipPath);
    // Both records say 10 bytes; the data holds a megabyte.
    TempDir::writeFile(zipPath, withSizes(original, 10, 10));
    Files files;
    std::string output;
    EXPECT_EQ(-1, extract(files, &output));
    EXPECT_NE(std::string::npos,
              output.find("Error opening file (error " + std::to_string(EFBIG) + ")"))
        << output;
    EXPECT_LE(bytesBelow(target), 10u + sizeOfConfig);
    TempDir::removeTree(target);

    // The two records disagree, one way or the other: whatever the reader
    // makes of it, nothing beyond the smaller size is written.
    for (const auto& sizes : {std::make_pair(10L, 1L << 20), std::make_pair(1L << 20, 10L)}) {
      TempDir::writeFile(zipPath, withSizes(original, sizes.first, sizes.second));
      Files some;
      extract(some, &output);
      EXPECT_LE(bytesBelow(target), 10u + sizeOfConfig) << output;
      TempDir::removeTree(target);
    }
  }
}

TEST_F(ExtractorTest, EntriesThatHoldLessThanTheyDeclareWriteWhatTheyHold) {
  ZipBuilder zip;
  zip.addFile("config.xml", "<widget/>")
      .addFile("small.bin", std::string(100, 's'), ZipBuilder::kDeflateDefault);
  build(zip);
  TempDir::writeFile(zipPath, withSizes(TempDir::readFile(zipPath), 5000, 5000));
  Files files;
  std::string output;
  extract(files, &output);
  EXPECT_LE(bytesBelow(target), 100u + 9u) << output;
}

// ---- Writing on two threads -------------------------------------------------

// A package of count entries in nested folders, stored and deflated, with a
// folder entry now and then; entry i holds contents(i).
std::string plainContents(int i) {
  return std::string(static_cast<size_t>(1000 + 977 * (i % 13)),
                     static_cast<char>('a' + i % 26)) +
         std::to_string(i);
}
std::string plainName(int i) {
  return "set" + std::to_string(i % 5) + "/sub" + std::to_string(i % 3) +
         "/file" + std::to_string(i) + ".txt";
}
void addPlainEntries(ZipBuilder& zip, int count, int first = 0) {
  for (int i = first; i < first + count; ++i) {
    if (i % 10 == 0 && i < 50) zip.addFolder("set" + std::to_string(i / 10) + "/");
    zip.addFile(plainName(i), plainContents(i),
                i % 2 ? ZipBuilder::kStored : ZipBuilder::kDeflateDefault);
  }
}

// One extraction into into with workers threads: its result, what it
// printed (into replaced by "<target>/"), the files it listed and whether
// it used a second thread. The tree is kept. With digests, the extractor
// digests what it writes into them.
struct Extraction {
  int result = 0;
  std::string output;
  Files files;
  bool twoThreads = false;
};
// workers 0 leaves the extractor's own choice.
Extraction extractWith(const std::string& zipPath, const std::string& into, int workers,
                       FileDigests* digests = nullptr,
                       const FirstEntries* first = nullptr) {
  Extraction run;
  CaptureStdout capture;
  {
    Extractor extractor(zipPath, into);
    if (workers > 0) extractor.setWorkers(workers);
    extractor.setDigests(digests);
    if (first) extractor.setFirst(*first);
    run.result = extractor.extract(run.files);
    run.twoThreads = extractor.wroteOnTwoThreads();
    extractor.setKeepFiles(true);
  }
  run.output = capture.text();
  for (size_t at; (at = run.output.find(into)) != std::string::npos;) {
    run.output.replace(at, into.size(), "<target>/");
  }
  return run;
}

TEST_F(ExtractorTest, PlainPackageIsWrittenOnTwoThreadsAsOneThreadWritesIt) {
  ZipBuilder zip;
  addPlainEntries(zip, 60);
  build(zip);
  const std::string one = dir.file("one") + "/";
  const std::string two = dir.file("two") + "/";
  const Extraction single = extractWith(zipPath, one, 1);
  const Extraction twice = extractWith(zipPath, two, 2);
  ASSERT_EQ(0, single.result) << single.output;
  ASSERT_EQ(0, twice.result) << twice.output;
  EXPECT_FALSE(single.twoThreads);
  EXPECT_TRUE(twice.twoThreads);
  EXPECT_EQ(single.output, twice.output);
  EXPECT_EQ(single.files, twice.files);
  ASSERT_EQ(60u, twice.files.size());
  for (int i = 0; i < 60; ++i) {
    EXPECT_EQ(plainContents(i), TempDir::readFile(two + plainName(i))) << i;
  }
  EXPECT_EQ(0755u, permissions(two + "set4/sub2"));
  EXPECT_EQ(0644u, permissions(two + plainName(7)));
}

TEST_F(ExtractorTest, FirstFailureInEntryOrderIsTheOneSaidOnTwoThreads) {
  VerifiedEntries verified;
  // Entry 25 fails its checksum and entry 40 cannot be opened (its name is
  // too long for the file system); whichever thread meets either first, the
  // lines are those of one thread: every entry up to 25, then why it failed.
  ZipBuilder zip;
  for (int i = 0; i < 50; ++i) {
    const std::string name =
        i == 40 ? std::string(300, 'n') : "page" + std::to_string(i) + ".html";
    zip.addFile(name, i == 25 ? "var clockHands = 12;" : plainContents(i),
                ZipBuilder::kStored);
  }
  build(zip);
  std::string bytes = TempDir::readFile(zipPath);
  const size_t at = bytes.find("clockHands");
  ASSERT_NE(std::string::npos, at);
  bytes[at + 9] = 'z';
  TempDir::writeFile(zipPath, bytes);
  std::string expected;
  for (int i = 0; i <= 25; ++i) {
    expected += trace("<target>/page" + std::to_string(i) + ".html");
  }
  expected += "Damaged file in archive: page25.html\n";
  for (int round = 0; round < 20; ++round) {
    const Extraction single =
        extractWith(zipPath, dir.file("one" + std::to_string(round)) + "/", 1);
    const Extraction twice =
        extractWith(zipPath, dir.file("two" + std::to_string(round)) + "/", 2);
    EXPECT_EQ(-1, single.result);
    EXPECT_EQ(-1, twice.result);
    EXPECT_TRUE(twice.twoThreads);
    EXPECT_EQ(expected, single.output);
    ASSERT_EQ(expected, twice.output) << "round " << round;
    EXPECT_EQ(25u, twice.files.size());
  }
  std::printf("20 rounds on one thread and on two\n");
}

// Entries 30 and 45 (the ".xml" ones) are chosen to be written first. The
// lines, files and refusal stay those of the archive's order, and the
// chosen entries' hook runs once, with both written whole, or not at all
// when either failed.
TEST_F(ExtractorTest, EntriesChosenFirstLeaveTheArchivesOrderAsItWas) {
  VerifiedEntries verified;
  const auto nameOf = [](int i) {
    return i == 30 || i == 45 ? "doc" + std::to_string(i) + ".xml"
                              : "page" + std::to_string(i) + ".html";
  };
  const auto contentsOf = [](int i) { return "<p>" + std::string(i * 500, 'x') + "</p>"; };
  // Which entries are damaged (their checksum fails), and the entry whose
  // refusal is said (-1 for none).
  const struct {
    std::vector<int> damaged;
    int said;
  } cases[] = {{{}, -1}, {{45}, 45}, {{25, 45}, 25}, {{30}, 30}, {{40}, 40}};
  int round = 0;
  for (const auto& c : cases) {
    ZipBuilder zip;
    for (int i = 0; i < 50; ++i) {
      const bool damaged =
          std::find(c.damaged.begin(), c.damaged.end(), i) != c.damaged.end();
      zip.addFile(nameOf(i), damaged ? "var clockHands" + std::to_string(i) + " = 12;"
                                     : contentsOf(i),
                  ZipBuilder::kStored);
    }
    build(zip);
    std::string bytes = TempDir::readFile(zipPath);
    for (size_t at; (at = bytes.find("clockHands")) != std::string::npos;) bytes[at] = 'k';
    TempDir::writeFile(zipPath, bytes);

    for (int repeat = 0; repeat < 10; ++repeat, ++round) {
      const std::string one = dir.file("one" + std::to_string(round)) + "/";
      const std::string two = dir.file("two" + std::to_string(round)) + "/";
      int calls = 0;
      std::vector<std::string> given;
      bool whole = true;
      FirstEntries first{
          [](const std::string& name) {
            return name.size() > 4 && name.compare(name.size() - 4, 4, ".xml") == 0;
          },
          [&](const std::vector<std::string>& names) {
            ++calls;
            given = names;
            for (int i : {30, 45})
              whole = whole && TempDir::readFile(two + nameOf(i)) == contentsOf(i);
          }};
      const Extraction single = extractWith(zipPath, one, 1, nullptr, &first);
      EXPECT_EQ(0, calls) << "one thread";
      const Extraction twice = extractWith(zipPath, two, 2, nullptr, &first);
      EXPECT_TRUE(twice.twoThreads);
      EXPECT_EQ(single.result, twice.result);
      ASSERT_EQ(single.output, twice.output) << "round " << round;
      EXPECT_EQ(single.files, twice.files);
      if (c.said < 0) {
        EXPECT_EQ(0, twice.result);
      } else {
        EXPECT_NE(std::string::npos,
                  twice.output.find("Damaged file in archive: " + nameOf(c.said) + "\n"))
            << twice.output;
      }
      bool chosenDamaged = false;
      for (int i : c.damaged) chosenDamaged = chosenDamaged || i == 30 || i == 45;
      // Entry 40 damaged or not, the chosen ones were written before it.
      EXPECT_EQ(chosenDamaged ? 0 : 1, calls) << "round " << round;
      if (!chosenDamaged) {
        EXPECT_EQ((std::vector<std::string>{"doc30.xml", "doc45.xml"}), given);
        EXPECT_TRUE(whole);
      }
    }
  }
}

TEST_F(ExtractorTest, WriteFailureOnTwoThreadsIsSaidWithItsErrorNumber) {
  ZipBuilder zip;
  addPlainEntries(zip, 30);
  zip.addFile(std::string(300, 'n'), "too long a name");
  addPlainEntries(zip, 10, 30);
  build(zip);
  const Extraction single = extractWith(zipPath, dir.file("one") + "/", 1);
  const Extraction twice = extractWith(zipPath, dir.file("two") + "/", 2);
  EXPECT_EQ(-1, twice.result);
  EXPECT_TRUE(twice.twoThreads);
  EXPECT_EQ(single.output, twice.output);
  EXPECT_EQ(30u, twice.files.size());
  EXPECT_NE(std::string::npos, twice.output.find(openError(ENAMETOOLONG)))
      << twice.output;
}

TEST_F(ExtractorTest, EntriesWhoseOrderDecidesTheResultAreWrittenOnOneThread) {
  struct Case {
    const char* what;
    std::vector<std::pair<std::string, std::string>> entries;  // added last
    std::string file;      // a file whose contents tell the order was kept
    std::string contents;  // what it must hold
  };
  const std::vector<Case> cases = {
      // libzip writes no name twice: "agaim.txt" is renamed below.
      {"a name given twice", {{"again.txt", "first"}, {"agaim.txt", "second"}},
       "again.txt", "second"},
      {"names that differ only in case", {{"Case.txt", "upper"}, {"case.txt", "lower"}},
       "case.txt", "lower"},
      {"a file where a folder is needed", {{"x", "file"}, {"x/y", "below"}}, "x", "file"},
      {"a dot folder", {{"./dot.txt", "dot"}}, "dot.txt", "dot"},
      {"an empty folder name", {{"empty//two.txt", "two"}}, "empty/two.txt", "two"},
  };
  for (const Case& c : cases) {
    ZipBuilder zip;
    addPlainEntries(zip, 20);
    for (const auto& entry : c.entries) zip.addFile(entry.first, entry.second);
    build(zip);
    std::string bytes = TempDir::readFile(zipPath);
    for (size_t at; (at = bytes.find("agaim.txt")) != std::string::npos;) {
      bytes[at + 4] = 'n';
    }
    TempDir::writeFile(zipPath, bytes);
    const std::string into = dir.file("order") + "/";
    const Extraction run = extractWith(zipPath, into, 2);
    EXPECT_FALSE(run.twoThreads) << c.what;
    if (run.result == 0) {
      EXPECT_EQ(c.contents, TempDir::readFile(into + c.file)) << c.what;
    }
  }
}

// Passes when digests holds, for every file below folder and nothing else,
// the digest of what the file holds.
::testing::AssertionResult digestsAreOfTheFiles(const FileDigests& digests,
                                                const std::string& folder) {
  FileDigests now;
  ScopedFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  PackageTree tree;
  std::string reason;
  if (!folderdigests::take(folder, &now, &reason) || !tree.read(fd.get(), &reason))
    return ::testing::AssertionFailure() << reason;
  if (digests.size() != tree.files().size())
    return ::testing::AssertionFailure() << digests.size() << " digests for "
                                         << tree.files().size() << " files";
  for (const auto& file : tree.inodes()) {
    const Sha256::Digest* kept = digests.find(file.second.first, file.second.second);
    if (!kept || *kept != *now.find(file.second.first, file.second.second))
      return ::testing::AssertionFailure() << "wrong digest for " << file.first;
  }
  return ::testing::AssertionSuccess();
}

TEST_F(ExtractorTest, DigestsAreOfTheBytesWrittenOnOneThreadAndOnTwo) {
  ZipBuilder zip;
  addPlainEntries(zip, 60);
  zip.addFile("empty.txt", "");
  build(zip);
  for (int workers : {1, 2}) {
    const std::string into = dir.file("digested" + std::to_string(workers)) + "/";
    FileDigests digests;
    const Extraction run = extractWith(zipPath, into, workers, &digests);
    ASSERT_EQ(0, run.result) << run.output;
    EXPECT_EQ(workers == 2, run.twoThreads);
    EXPECT_TRUE(digestsAreOfTheFiles(digests, into)) << workers;
    // Digesting changes nothing anyone sees.
    EXPECT_EQ(extractWith(zipPath, dir.file("plain") + "/", workers).output, run.output);
  }
}

TEST_F(ExtractorTest, AFileWrittenTwiceKeepsTheDigestOfItsLastBytes) {
  // The entries that reach one file twice, as the order test has them.
  const std::vector<std::vector<std::pair<std::string, std::string>>> cases = {
      {{"Case.txt", "upper"}, {"case.txt", "lower"}},
      {{"dot.txt", "first"}, {"./dot.txt", "second"}},
      {{"empty/two.txt", "first"}, {"empty//two.txt", "second"}},
  };
  for (const auto& entries : cases) {
    ZipBuilder zip;
    addPlainEntries(zip, 20);
    for (const auto& entry : entries) zip.addFile(entry.first, entry.second);
    build(zip);
    const std::string into = dir.file("twice") + "/";
    FileDigests digests;
    const Extraction run = extractWith(zipPath, into, 2, &digests);
    if (run.result != 0) continue;
    EXPECT_TRUE(digestsAreOfTheFiles(digests, into)) << entries[1].first;
  }
}

TEST_F(ExtractorTest, SmallPackageIsWrittenOnTheCallingThread) {
  ZipBuilder zip;
  addPlainEntries(zip, 12);
  build(zip);
  const Extraction run = extractWith(zipPath, dir.file("small") + "/", 2);
  EXPECT_EQ(0, run.result);
  EXPECT_FALSE(run.twoThreads);
  ZipBuilder larger;
  addPlainEntries(larger, 16);
  build(larger);
  EXPECT_TRUE(extractWith(zipPath, dir.file("larger") + "/", 2).twoThreads);
}

TEST_F(ExtractorTest, HostCanKeepUnpackingOnTheCallingThread) {
  ZipBuilder zip;
  addPlainEntries(zip, 40);
  build(zip);
  {
    ScopedEnv one("WIDGETENGINE_UNPACK_THREADS", "1");
    const Extraction run = extractWith(zipPath, dir.file("one") + "/", 0);
    EXPECT_EQ(0, run.result);
    EXPECT_FALSE(run.twoThreads);
  }
  ScopedEnv two("WIDGETENGINE_UNPACK_THREADS", "2");
  EXPECT_TRUE(extractWith(zipPath, dir.file("two") + "/", 0).twoThreads);
}

TEST_F(ExtractorTest, FullDiskOnTwoThreadsFailsAtTheSameEntryAsOnOne) {
  ZipBuilder zip;
  addPlainEntries(zip, 20);
  zip.addFile("big.bin", std::string(3 << 20, 'b'), ZipBuilder::kStored);
  addPlainEntries(zip, 20, 20);
  build(zip);
  int twoResult = 0;
  const std::string two = extractWithFileSizeLimit(zipPath, target, 1 << 20, &twoResult);
  EXPECT_FALSE(TempDir::exists(target));
  int oneResult = 0;
  std::string one;
  {
    ScopedEnv single("WIDGETENGINE_UNPACK_THREADS", "1");
    one = extractWithFileSizeLimit(zipPath, target, 1 << 20, &oneResult);
  }
  EXPECT_EQ(-1, twoResult);
  EXPECT_EQ(-1, oneResult);
  EXPECT_EQ(one, two);
  EXPECT_NE(std::string::npos,
            two.find(trace(target + "big.bin") + openError(EFBIG) +
                     "Extraction cleaned\n"))
      << two;
  EXPECT_FALSE(TempDir::exists(target));
}

}  // namespace
