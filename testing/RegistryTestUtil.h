// SPDX-License-Identifier: Apache-2.0
// Helpers shared by the registry's tests: a registry in a fresh directory, a
// plain SQLite connection to look at the file behind the engine's back, and
// a child process whose standard output is collected.
#ifndef WIDGETENGINE_TESTING_REGISTRYTESTUTIL_H_
#define WIDGETENGINE_TESTING_REGISTRYTESTUTIL_H_

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include "registry/ChangeCounter.h"
#include "registry/SqlLite3.h"
#include "registry/WidgetsData.h"
#include "testing/ChildProcess.h"
#include "testing/ScopedEnv.h"
#include "testing/TempDir.h"

namespace registrytest {

// A test whose registry lives in its own directory.
class RegistryTest : public ::testing::Test {
 protected:
  // Statements give up a held lock after a short wait, so that the tests
  // that hold one on purpose end quickly.
  RegistryTest()
      : env_("YRA_DATA_PATH", dir_.path() + "/"),
        busy_("WIDGETENGINE_BUSY_TIMEOUT_MS", "100") {}
  std::string dbPath() const { return dir_.file("widget.db"); }
  const TempDir& dir() const { return dir_; }

 private:
  TempDir dir_;
  ScopedEnv env_;
  ScopedEnv busy_;
};

// A plain connection for looking at (or preparing) the file directly.
class Raw {
 public:
  explicit Raw(const std::string& path) {
    if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) {
      ADD_FAILURE() << "cannot open " << path;
    }
  }
  ~Raw() { sqlite3_close(db_); }
  Raw(const Raw&) = delete;
  Raw& operator=(const Raw&) = delete;

  int exec(const std::string& sql) {
    return sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr);
  }
  // Every cell of the result, row after row; NULL as "<null>".
  std::vector<std::string> cells(const std::string& sql) {
    std::vector<std::string> out;
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
      ADD_FAILURE() << sql << ": " << sqlite3_errmsg(db_);
      return out;
    }
    while (sqlite3_step(stmt) == SQLITE_ROW) {
      for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
        const unsigned char* text = sqlite3_column_text(stmt, i);
        out.push_back(text ? reinterpret_cast<const char*>(text) : "<null>");
      }
    }
    sqlite3_finalize(stmt);
    return out;
  }
  std::string one(const std::string& sql) {
    std::vector<std::string> all = cells(sql);
    return all.empty() ? "<none>" : all[0];
  }
  sqlite3* handle() { return db_; }

 private:
  sqlite3* db_ = nullptr;
};

// A widget record shaped as the installer fills it.
inline WidgetsData makeWidget(const std::string& name,
                              std::vector<std::string> files = {},
                              const std::string& root = "/widgets/") {
  std::string dir = root + "widget_" + name + "/";
  WidgetsData w(0, "http://example.com/" + name + ".wgt", name,
                "file://" + dir + "index.html", dir, 320, 240, "1.0",
                "Widget " + name, "W" + name, "windowed", "icon.png", "Ann",
                "ann@example.com", "http://example.com/ann");
  w.setFiles(std::move(files));
  return w;
}

inline void deleteAll(std::vector<WidgetsData*>& records) {
  for (WidgetsData* w : records) delete w;
  records.clear();
}

// Runs body in a child process and returns its exit status (-1 when it did
// not exit); what the child wrote to its standard output lands in output.
inline int runInChild(const std::function<int()>& body, std::string* output) {
  ChildProcess child;
  child.start([&] {
    const int code = body();
    std::cout.flush();
    return code;
  });
  child.wait();
  if (output) *output = child.out();
  return child.crashed() || child.hung() ? -1 : child.shellStatus();
}

// A child process that holds the database under an exclusive lock from
// construction until destruction.
class ExclusiveLock {
 public:
  explicit ExclusiveLock(const std::string& path) {
    int ready[2];
    if (pipe(ready) != 0 || pipe(release_) != 0) return;
    child_.start([&] {
      close(ready[0]);
      close(release_[1]);
      sqlite3* db = nullptr;
      char ok = 0;
      if (sqlite3_open(path.c_str(), &db) == SQLITE_OK &&
          sqlite3_exec(db, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) ==
              SQLITE_OK) {
        ok = 1;
      }
      if (write(ready[1], &ok, 1) != 1) return 1;
      char c;
      if (read(release_[0], &c, 1) < 0) return 1;
      sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
      sqlite3_close(db);
      return 0;
    });
    close(ready[1]);
    close(release_[0]);
    char ok = 0;
    held_ = read(ready[0], &ok, 1) == 1 && ok == 1;
    close(ready[0]);
  }
  ~ExclusiveLock() {
    if (!child_.running()) return;
    char c = 0;
    if (write(release_[1], &c, 1) != 1) {
      // The child ends on the closed pipe all the same.
    }
    close(release_[1]);
    child_.wait();
  }
  ExclusiveLock(const ExclusiveLock&) = delete;
  ExclusiveLock& operator=(const ExclusiveLock&) = delete;
  bool held() const { return held_; }

 private:
  ChildProcess child_;
  int release_[2] = {-1, -1};
  bool held_ = false;
};

// Rounds of a race test: fewer where every system call is emulated or
// checked, so that the test takes about as long everywhere.
inline int raceRounds(int native) {
#if defined(WIDGETENGINE_TEST_EMULATED)
  return native / 10;
#elif defined(__SANITIZE_ADDRESS__)
  return native / 3;
#else
  return native;
#endif
}

// A child process that attaches the change counter of the file at path and
// lets it go again, over and over, from construction until destruction: the
// counter is removed and made anew all the time.
class CounterChurn {
 public:
  explicit CounterChurn(const std::string& path) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) return;
    // A flag in memory shared with the child: unlike a pipe, nothing that
    // the test forks later holds it open.
    void* memory = mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return;
    stop_ = static_cast<int*>(memory);
    child_.start([&] {
      while (!__atomic_load_n(stop_, __ATOMIC_ACQUIRE)) {
        ChangeCounter counter;
        counter.attach(status.st_dev, status.st_ino, path);
      }
      return 0;
    });
  }
  ~CounterChurn() { stop(); }
  CounterChurn(const CounterChurn&) = delete;
  CounterChurn& operator=(const CounterChurn&) = delete;

  bool running() const { return child_.running(); }
  // Stops the child; true when it ended by itself.
  bool stop() {
    bool ok = false;
    if (child_.running()) {
      __atomic_store_n(stop_, 1, __ATOMIC_RELEASE);
      child_.wait();
      ok = child_.exitedWith(0);
    }
    if (stop_) munmap(stop_, sizeof(int));
    stop_ = nullptr;
    return ok;
  }

 private:
  ChildProcess child_;
  int* stop_ = nullptr;
};

}  // namespace registrytest

#endif  // WIDGETENGINE_TESTING_REGISTRYTESTUTIL_H_
