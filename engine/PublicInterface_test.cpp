// SPDX-License-Identifier: Apache-2.0
// Checks the engine as a browser meets it: the handle, the reference count,
// the slot order of the interface, the exported symbols (the interface and
// the tools' few calls), and a host program built against an installed copy
// of the library.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <widgetengine/WidgetEngineDelegate.h>

#include "testing/CaptureStdout.h"
#include "testing/ChildProcess.h"
#include "testing/LiteralRegistry.h"
#include "testing/ScopedEnv.h"
#include "testing/TempDir.h"
#include "testing/ZipBuilder.h"

namespace {

// Runs a shell command from "/", where cmake and the compiler find nothing
// of the test's by accident; its exit status (-1 when it did not exit), with
// stdout and stderr in *output.
int runCommand(const std::string& command, std::string* output) {
  ChildProcess shell;
  shell.mergeOutput();
  shell.setDirectory("/");
  shell.start({"/bin/sh", "-c", command});
  shell.wait();
  if (output) *output = shell.out();
  return shell.crashed() || shell.hung() ? -1 : shell.shellStatus();
}

std::string shellQuoted(const std::string& text) { return "'" + text + "'"; }

// Slot index of a virtual member function, read from its pointer-to-member
// representation (two words: a pointer and a this-adjustment). The Itanium
// C++ ABI marks a virtual member by an odd pointer, the vtable byte offset
// plus one; ARM's variant of it, where code addresses may be odd (Thumb),
// keeps the plain offset and marks a virtual member in the adjustment's low
// bit, the adjustment itself doubled.
template <typename Member>
long slotOf(Member member) {
  struct Representation {
    uintptr_t ptr;
    ptrdiff_t adjustment;
  };
  static_assert(sizeof(Member) == sizeof(Representation), "two words");
  Representation representation;
  memcpy(&representation, &member, sizeof representation);
#if defined(__arm__) || defined(__aarch64__)
  if ((representation.adjustment & 1) == 0) return -1;  // not virtual
  return static_cast<long>(representation.ptr / sizeof(void*));
#else
  if ((representation.ptr & 1) == 0) return -1;  // not virtual
  return static_cast<long>((representation.ptr - 1) / sizeof(void*));
#endif
}

// A browser-side implementation that records which operation ran.
class Recorder : public WebWidgetEngineDelegate {
 public:
  explicit Recorder(std::string* log) : log_(log) {}
  ~Recorder() override { *log_ += "~"; }
  char* receiveWidget(const char*, WebFrame*) override {
    *log_ += "receiveWidget";
    return nullptr;
  }
  int deleteWidget(const char*, WebFrame*) override {
    *log_ += "deleteWidget";
    return 0;
  }
  WidgetsData* getInfo(const char*, WebFrame*, const char*) override {
    *log_ += "getInfo";
    return nullptr;
  }
  std::vector<WidgetsData*> getAll(WebFrame*) override {
    *log_ += "getAll";
    return {};
  }
  char* mapResource(const char*, const char*) override {
    *log_ += "mapResource";
    return nullptr;
  }
  int isWidget(const char*) override {
    *log_ += "isWidget";
    return 7;
  }

 private:
  std::string* log_;
};

class Probe : public WidgetEngineDelegate {
 public:
  explicit Probe(bool* destroyed) : destroyed_(destroyed) {}
  ~Probe() override { *destroyed_ = true; }

 private:
  bool* destroyed_;
};

void** vtableOf(const void* object) {
  void** table;
  memcpy(&table, object, sizeof table);
  return table;
}

class PublicInterfaceTest : public ::testing::Test {
 protected:
  PublicInterfaceTest() : env_("YRA_DATA_PATH", registry_.path() + "/") {}
  TempDir registry_;
  ScopedEnv env_;
};

}  // namespace

TEST_F(PublicInterfaceTest, HandleIsOnePointerWide) {
  static_assert(sizeof(RefPtr<WebWidgetEngineDelegate>) == sizeof(void*),
                "the handle is one pointer");
  EXPECT_EQ(sizeof(void*), sizeof(RefPtr<WebWidgetEngineDelegate>));
  EXPECT_EQ(sizeof(unsigned), sizeof(SharedObject<WebWidgetEngineDelegate>));
}

TEST_F(PublicInterfaceTest, FactoryCountIsOneAndCopiesRaiseIt) {
  RefPtr<WebWidgetEngineDelegate> engine = WidgetEngineDelegate::createInstance();
  ASSERT_TRUE(engine);
  EXPECT_EQ(1u, engine->refCount());
  {
    RefPtr<WebWidgetEngineDelegate> copy(engine);
    EXPECT_EQ(2u, engine->refCount());
    RefPtr<WebWidgetEngineDelegate> assigned;
    assigned = copy;
    EXPECT_EQ(3u, engine->refCount());
    EXPECT_EQ(engine.get(), assigned.get());
  }
  EXPECT_EQ(1u, engine->refCount());
  RefPtr<WebWidgetEngineDelegate> moved(std::move(engine));
  EXPECT_EQ(1u, moved->refCount());
  EXPECT_FALSE(engine);
}

TEST_F(PublicInterfaceTest, LastReleaseDeletesThroughVirtualDestructor) {
  bool destroyed = false;
  RefPtr<WebWidgetEngineDelegate> first(new Probe(&destroyed));
  RefPtr<WebWidgetEngineDelegate> second(first);
  first = RefPtr<WebWidgetEngineDelegate>();
  EXPECT_FALSE(destroyed);
  EXPECT_EQ(1u, second->refCount());
  second = RefPtr<WebWidgetEngineDelegate>();
  EXPECT_TRUE(destroyed);
}

TEST_F(PublicInterfaceTest, OperationsSitInTheirSlotsAfterTheTwoDestructors) {
  EXPECT_EQ(2, slotOf(&WebWidgetEngineDelegate::receiveWidget));
  EXPECT_EQ(3, slotOf(&WebWidgetEngineDelegate::deleteWidget));
  EXPECT_EQ(4, slotOf(&WebWidgetEngineDelegate::getInfo));
  EXPECT_EQ(5, slotOf(&WebWidgetEngineDelegate::getAll));
  EXPECT_EQ(6, slotOf(&WebWidgetEngineDelegate::mapResource));
  EXPECT_EQ(7, slotOf(&WebWidgetEngineDelegate::isWidget));
  EXPECT_EQ(2, slotOf(&WidgetEngineDelegate::receiveWidget));
  EXPECT_EQ(3, slotOf(&WidgetEngineDelegate::deleteWidget));
  EXPECT_EQ(4, slotOf(&WidgetEngineDelegate::getInfo));
  EXPECT_EQ(5, slotOf(&WidgetEngineDelegate::getAll));
  EXPECT_EQ(6, slotOf(&WidgetEngineDelegate::mapResource));
  EXPECT_EQ(7, slotOf(&WidgetEngineDelegate::isWidget));
  // The reference count is not virtual and adds no slot.
  EXPECT_EQ(-1, slotOf(&WebWidgetEngineDelegate::ref));
}

TEST_F(PublicInterfaceTest, SlotsCalledByIndexReachTheirOperations) {
  using Receive = char* (*)(WebWidgetEngineDelegate*, const char*, WebFrame*);
  using Delete = int (*)(WebWidgetEngineDelegate*, const char*, WebFrame*);
  using Info = WidgetsData* (*)(WebWidgetEngineDelegate*, const char*,
                                WebFrame*, const char*);
  using All = std::vector<WidgetsData*> (*)(WebWidgetEngineDelegate*, WebFrame*);
  using Map = char* (*)(WebWidgetEngineDelegate*, const char*, const char*);
  using Is = int (*)(WebWidgetEngineDelegate*, const char*);
  using Destroy = void (*)(WebWidgetEngineDelegate*);

  std::string log;
  Recorder* recorder = new Recorder(&log);
  WebWidgetEngineDelegate* object = recorder;
  void** table = vtableOf(object);
  reinterpret_cast<Receive>(table[2])(object, "u", nullptr);
  reinterpret_cast<Delete>(table[3])(object, "n", nullptr);
  reinterpret_cast<Info>(table[4])(object, "n", nullptr, "en");
  reinterpret_cast<All>(table[5])(object, nullptr);
  reinterpret_cast<Map>(table[6])(object, "u", "en");
  EXPECT_EQ(7, reinterpret_cast<Is>(table[7])(object, "u"));
  EXPECT_EQ("receiveWidgetdeleteWidgetgetInfogetAllmapResourceisWidget", log);

  // Slot 1 destroys and frees the object.
  log.clear();
  reinterpret_cast<Destroy>(table[1])(object);
  EXPECT_EQ("~", log);

  // Slot 0 destroys without freeing.
  alignas(Recorder) unsigned char storage[sizeof(Recorder)];
  WebWidgetEngineDelegate* placed = new (storage) Recorder(&log);
  log.clear();
  reinterpret_cast<Destroy>(vtableOf(placed)[0])(placed);
  EXPECT_EQ("~", log);
}

TEST_F(PublicInterfaceTest, EngineAnswersThroughItsSlots) {
  using Is = int (*)(WebWidgetEngineDelegate*, const char*);
  using All = std::vector<WidgetsData*> (*)(WebWidgetEngineDelegate*, WebFrame*);
  RefPtr<WebWidgetEngineDelegate> engine = WidgetEngineDelegate::createInstance();
  void** table = vtableOf(engine.get());
  CaptureStdout out;
  EXPECT_EQ(0, reinterpret_cast<Is>(table[7])(engine.get(), "file:///x"));
  EXPECT_TRUE(reinterpret_cast<All>(table[5])(engine.get(), nullptr).empty());
  EXPECT_EQ("Nothing to clean\n", out.text());
}

TEST_F(PublicInterfaceTest, LibraryExportsOnlyTheEngineInterface) {
  const std::string library =
      std::string(WIDGETENGINE_BINARY_DIR) + "/libwidgetengine.so";
  ASSERT_EQ(0, access(library.c_str(), R_OK)) << library;
  std::string listing;
  ASSERT_EQ(0, runCommand("nm -D --defined-only -C " + shellQuoted(library), &listing))
      << listing;

  const std::set<std::string> allowedWhole = {
      "vtable for WidgetEngineDelegate",
      "typeinfo for WidgetEngineDelegate",
      "typeinfo name for WidgetEngineDelegate",
      "vtable for WebWidgetEngineDelegate",
      "typeinfo for WebWidgetEngineDelegate",
      "typeinfo name for WebWidgetEngineDelegate",
      "vtable for SharedObject<WebWidgetEngineDelegate>",
      "typeinfo for SharedObject<WebWidgetEngineDelegate>",
      "typeinfo name for SharedObject<WebWidgetEngineDelegate>",
      // WidgetEngineExtensions.h
      "widgetengine_set_log_destination",
      "widgetengine_set_log_sink",
      "widgetengine_last_refusal",
      "widgetengine_accept_language",
      "widgetengine_set_progress_callback",
      "widgetengine_set_verify_entries",
      "widgetengine_set_signature_policy",
      "widgetengine_set_trust_anchors",
      "widgetengine_signature_info",
      "widgetengine_check_update",
      "widgetengine_check_updates",
      "widgetengine_update_widget",
      "widgetengine_installation_id",
      "widgetengine_web_data_folder",
      "widgetengine_sweep_web_data",
  };
  // The tools' facade (engine/ToolsFacade.h), the one surface exported for
  // the tools built from this tree, by the name before its parameters. A
  // new call is added here on purpose, with its WIDGETENGINE_TOOLS_EXPORT.
  const std::set<std::string> toolCalls = {
      "toolsfacade::OrphanDirectory::OrphanDirectory",
      "toolsfacade::OrphanDirectory::claim",
      "toolsfacade::OrphanDirectory::remove",
      "toolsfacade::OrphanDirectory::~OrphanDirectory",
      "toolsfacade::checkSignatures",
      "toolsfacade::deadInstallationLeftovers",
      "toolsfacade::download",
      "toolsfacade::environmentPath[abi:cxx11]",
      "toolsfacade::environmentText",
      "toolsfacade::install",
      "toolsfacade::installationRunning",
      "toolsfacade::isInRoot",
      "toolsfacade::lastRefusal",
      "toolsfacade::lint",
      "toolsfacade::nameFromURL",
      "toolsfacade::readRegistry",
      "toolsfacade::reclaimCounters",
      "toolsfacade::registryPath[abi:cxx11]",
      "toolsfacade::removeTree",
      "toolsfacade::schemaPath[abi:cxx11]",
      "toolsfacade::signFolder",
      "toolsfacade::signaturePolicy[abi:cxx11]",
      "toolsfacade::signatureDocuments",
      "toolsfacade::signatureDocumentsInFolder",
      "toolsfacade::sweepLeftovers",
      "toolsfacade::trustedDirectory",
      "toolsfacade::unpack",
      "toolsfacade::widgetRoot[abi:cxx11]",
  };
  std::set<std::string> toolCallsSeen;
  std::istringstream lines(listing);
  std::string line;
  std::vector<std::string> strangers;
  bool sawFactory = false;
  bool sawRecord = false;
  while (std::getline(lines, line)) {
    // "<address> <type> <demangled name>"
    const size_t first = line.find(' ');
    if (first == std::string::npos) continue;
    const size_t second = line.find(' ', first + 1);
    if (second == std::string::npos) continue;
    const std::string name = line.substr(second + 1);
    if (name.rfind("WidgetEngineDelegate::", 0) == 0) {
      if (name == "WidgetEngineDelegate::createInstance()") sawFactory = true;
      continue;
    }
    if (name.rfind("WidgetsData::", 0) == 0) {
      sawRecord = true;
      continue;
    }
    if (allowedWhole.count(name)) continue;
    const std::string callName = name.substr(0, name.find('('));
    if (toolCalls.count(callName)) {
      toolCallsSeen.insert(callName);
      continue;
    }
    strangers.push_back(line);
  }
  EXPECT_TRUE(sawFactory) << listing;
  EXPECT_TRUE(sawRecord) << listing;
  std::string report;
  for (const std::string& stranger : strangers) report += stranger + "\n";
  EXPECT_TRUE(strangers.empty()) << "exported beyond the interface:\n" << report;
  // widgetctl links this library: every call it needs is there.
  EXPECT_EQ(toolCalls, toolCallsSeen) << listing;
}

// The extension functions are plain C: a C program includes the header,
// links the shared library and calls them.
TEST_F(PublicInterfaceTest, AProgramInCUsesTheExtensions) {
  TempDir work;
  const std::string source = work.path() + "/host.c";
  FILE* file = fopen(source.c_str(), "w");
  ASSERT_NE(nullptr, file);
  fputs(R"(#include <widgetengine/WidgetEngineExtensions.h>
#include <stdio.h>
#include <stdlib.h>
static void sink(int level, const char* line, void* data) { (void)level; (void)line; (void)data; }
static void progress(int stage, uint64_t done, uint64_t total, void* data) {
  (void)stage; (void)done; (void)total; (void)data;
}
int main(void) {
  const char* reason = NULL;
  char* list = widgetengine_accept_language("en-US, de;q=0.8, fr;q=0.9");
  int code = widgetengine_last_refusal(&reason);
  widgetengine_set_log_sink(sink, NULL);
  widgetengine_set_progress_callback(progress, NULL);
  widgetengine_set_trust_anchors(NULL);
  printf("%s %d [%s] %d %d %d %d\n", list, code, reason,
         widgetengine_set_log_destination(WIDGETENGINE_LOG_TO_QUIET),
         widgetengine_set_signature_policy(WIDGETENGINE_SIGNATURES_REPORT),
         widgetengine_signature_info(NULL) == NULL,
         widgetengine_check_update(NULL, NULL) == NULL);
  free(list);
  return 0;
}
)", file);
  fclose(file);
  const std::string program = work.path() + "/host";
#if defined(__SANITIZE_ADDRESS__)
  const std::string flags = "-fsanitize=address,undefined ";
#else
  const std::string flags;
#endif
  std::string output;
  // The configured compiler (a cross compiler in a cross build), told that
  // the source is C.
  ASSERT_EQ(0, runCommand(std::string(WIDGETENGINE_TEST_CXX) +
                              " -x c -std=c99 -Wall -Wextra -Werror " + flags + "-I" +
                              shellQuoted(WIDGETENGINE_BINARY_DIR "/include") + " " +
                              shellQuoted(source) + " -o " + shellQuoted(program) +
                              " -L" + shellQuoted(WIDGETENGINE_BINARY_DIR) +
                              " -lwidgetengine -Wl,-rpath," +
                              shellQuoted(WIDGETENGINE_BINARY_DIR),
                          &output))
      << output;
  ASSERT_EQ(0, runCommand(shellQuoted(program), &output)) << output;
  EXPECT_EQ("en-US,fr,de 0 [] 0 0 1 1\n", output);
}

namespace {

const char kHostProgram[] = R"(#include <widgetengine/WidgetEngineDelegate.h>
#include <cstdio>
int main(int argc, char** argv) {
  RefPtr<WebWidgetEngineDelegate> engine = WidgetEngineDelegate::createInstance();
  if (!engine || engine->refCount() != 1 || argc < 2) return 2;
  int known = engine->isWidget(argv[1]);
  std::vector<WidgetsData*> all = engine->getAll(nullptr);
  std::printf("host: %d %zu %s\n", known, all.size(), all.empty() ? "-" : all[0]->getName().c_str());
  for (WidgetsData* widget : all) delete widget;
  return 0;
}
)";

const char kHostProject[] = R"(cmake_minimum_required(VERSION 3.16)
project(host LANGUAGES CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(widgetengine REQUIRED)
add_executable(host host.cpp)
target_link_libraries(host PRIVATE widgetengine::widgetengine)
)";

#if defined(__SANITIZE_ADDRESS__)
// The library of this build needs the sanitizer runtime first in line.
const char kHostFlags[] =
    "-fsanitize=address,undefined -fno-omit-frame-pointer";
#else
const char kHostFlags[] = "";
#endif

// The build's own compiler and CMake settings (a cross build's toolchain
// file and sysroot); a cross-built host runs under qemu through binfmt_misc.
const char kHostCompiler[] = WIDGETENGINE_TEST_CXX;
const char kHostCMakeArgs[] = WIDGETENGINE_TEST_CMAKE_ARGS;

class InstalledPackageTest : public PublicInterfaceTest {
 protected:
  // Installs the build tree into a fresh prefix. The schema and the registry
  // directory go to absolute places; a build that points them outside the
  // source tree gets a staging root so that nothing lands on the system.
  void SetUp() override {
    const std::string schema = WIDGETENGINE_TEST_SCHEMA_PATH;
    const std::string source = WIDGETENGINE_SOURCE_DIR;
    std::string destdir;
    if (schema.rfind(source + "/", 0) != 0) {
      destdir = "DESTDIR=" + shellQuoted(work_.file("stage")) + " ";
      prefix_ = work_.file("stage") + "/opt/widgetengine";
      installPrefix_ = "/opt/widgetengine";
    } else {
      prefix_ = work_.file("prefix");
      installPrefix_ = prefix_;
    }
    std::string output;
    ASSERT_EQ(0, runCommand(destdir + "cmake --install " +
                                shellQuoted(WIDGETENGINE_BINARY_DIR) + " --prefix " +
                                shellQuoted(installPrefix_),
                            &output))
        << output;
    ASSERT_EQ(0, access((prefix_ + "/include/widgetengine/WidgetEngineDelegate.h")
                            .c_str(),
                        R_OK));
    TempDir::writeFile(work_.file("host.cpp"), kHostProgram);

    // One registered widget for the host to find, in the registry that an
    // engine made.
    WidgetEngineDelegate::createInstance();
    LiteralRegistry db(registry_.path() + "/widget.db");
    ASSERT_TRUE(db.isOpen());
    ASSERT_EQ(SQLITE_OK,
              db.query("INSERT INTO Widgets VALUES(NULL,"
                       "'http://127.0.0.1/clock.wgt','clock',"
                       "'file:///w/widget_clock/index.html','/w/widget_clock/',"
                       "1,1,'1','Clock','C','','','','','')"));
  }

  std::string libraryPath() const {
    return "LD_LIBRARY_PATH=" + shellQuoted(prefix_ + "/lib") + " ";
  }

  void expectHostAnswers(const std::string& host) {
    std::string output;
    ASSERT_EQ(0, runCommand(libraryPath() + shellQuoted(host) +
                                " file:///w/widget_clock/index.html",
                            &output))
        << output;
    EXPECT_NE(std::string::npos, output.find("host: 1 1 clock\n")) << output;
  }

  TempDir work_;
  std::string prefix_;
  std::string installPrefix_;
};

}  // namespace

TEST_F(InstalledPackageTest, HostBuildsWithPkgConfig) {
  std::string output;
  const std::string flags =
      "PKG_CONFIG_PATH=" + shellQuoted(prefix_ + "/lib/pkgconfig") +
      " pkg-config --cflags --libs widgetengine";
  ASSERT_EQ(0, runCommand(flags, &output)) << output;
  EXPECT_NE(std::string::npos, output.find("-lwidgetengine")) << output;
  const std::string host = work_.file("host-pc");
  ASSERT_EQ(0, runCommand(std::string(kHostCompiler) + " -std=c++17 " +
                              std::string(kHostFlags) + " " +
                              shellQuoted(work_.file("host.cpp")) + " -o " +
                              shellQuoted(host) + " $(" + flags + ")",
                          &output))
      << output;
  expectHostAnswers(host);
}

TEST_F(InstalledPackageTest, HostBuildsWithFindPackage) {
  TempDir::writeFile(work_.file("CMakeLists.txt"), kHostProject);
  std::string output;
  ASSERT_EQ(0, runCommand("cmake -S " + shellQuoted(work_.path()) + " -B " +
                              shellQuoted(work_.file("build")) +
                              " -DCMAKE_PREFIX_PATH=" + shellQuoted(prefix_) +
                              // A toolchain file confines the search to the
                              // sysroot and the roots named here.
                              " -DCMAKE_FIND_ROOT_PATH=" + shellQuoted(prefix_) +
                              " -DCMAKE_CXX_FLAGS=" + shellQuoted(kHostFlags) +
                              " " + kHostCMakeArgs,
                          &output))
      << output;
  ASSERT_EQ(0, runCommand("cmake --build " + shellQuoted(work_.file("build")), &output))
      << output;
  expectHostAnswers(work_.file("build/host"));
}

namespace {

// The host example that README.md shows integrators: the first C++ block
// after the comment that says this test compiles it.
std::string readmeHostExample() {
  const std::string readme =
      TempDir::readFile(std::string(WIDGETENGINE_SOURCE_DIR) + "/README.md");
  const size_t section = readme.find("This example is compiled and run by");
  if (section == std::string::npos) return "";
  const std::string fence = "```cpp\n";
  const size_t begin = readme.find(fence, section);
  if (begin == std::string::npos) return "";
  const size_t end = readme.find("```\n", begin + fence.size());
  if (end == std::string::npos) return "";
  return readme.substr(begin + fence.size(), end - begin - fence.size());
}

}  // namespace

TEST_F(InstalledPackageTest, ReadmeHostExampleBuildsAndInstallsAWidget) {
  const std::string example = readmeHostExample();
  ASSERT_NE("", example);
  TempDir::writeFile(work_.file("readme-host.cpp"), example);
  std::string output;
  const std::string flags =
      "PKG_CONFIG_PATH=" + shellQuoted(prefix_ + "/lib/pkgconfig") +
      " pkg-config --cflags --libs widgetengine";
  const std::string host = work_.file("readme-host");
  ASSERT_EQ(0, runCommand(std::string(kHostCompiler) +
                              " -std=c++17 -Wall -Wextra -Werror " +
                              std::string(kHostFlags) + " " +
                              shellQuoted(work_.file("readme-host.cpp")) +
                              " -o " + shellQuoted(host) + " $(" + flags + ")",
                          &output))
      << output;

  const std::string root = work_.file("widgets") + "/";
  ASSERT_EQ(0, mkdir(root.c_str(), 0755));
  ASSERT_EQ(0, mkdir((root + "tmp").c_str(), 0755));
  ZipBuilder zip;
  zip.addFile("config.xml",
              "<widget xmlns=\"http://www.w3.org/ns/widgets\">"
              "<name>Readme</name></widget>")
      .addFile("index.html", "<html></html>")
      .addFile("locales/fr/index.html", "<html lang=fr></html>");
  ASSERT_TRUE(zip.write(work_.file("readme.wgt")));

  ASSERT_EQ(0, runCommand(libraryPath() + "WIDGET_PATH=" + shellQuoted(root) +
                              " " + shellQuoted(host) + " " +
                              shellQuoted("file://" + work_.file("readme.wgt")),
                          &output))
      << output;
  const std::string start = "file://" + root + "widget_readme/index.html";
  EXPECT_NE(std::string::npos,
            output.find("start " + start + " (widget: 1), French reader: file://" +
                        root + "widget_readme//locales/fr/index.html\n"))
      << output;
  EXPECT_NE(std::string::npos, output.find("installed: clock\n")) << output;
  EXPECT_NE(std::string::npos, output.find("installed: readme\n")) << output;
}
