// SPDX-License-Identifier: Apache-2.0
// WidgetBrowserTest is the fixture of widget-browser's end-to-end tests: it
// runs the real browser as a child process on the test's display, in a
// widget sandbox of its own, and reads back what the page showed, as JSON
// the browser prints when WIDGET_BROWSER_FACTS is set.
#ifndef WIDGETENGINE_HOST_WIDGETBROWSERTEST_H_
#define WIDGETENGINE_HOST_WIDGETBROWSERTEST_H_

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <widgetengine/WidgetEngineDelegate.h>

#include "testing/ChildProcess.h"
#include "testing/HttpServer.h"
#include "testing/TempDir.h"
#include "testing/WidgetSandbox.h"
#include "testing/ZipBuilder.h"

constexpr char kBrowser[] = WIDGETENGINE_BINARY_DIR "/widget-browser";
constexpr char kSample[] = WIDGETENGINE_SOURCE_DIR "/tools/sample-widget";
// A browser that has not exited by then is hung: killed, and the test fails.
const auto kBrowserDeadline = std::chrono::seconds(150);

constexpr char kFrenchColour[] = "rgb(255, 204, 77)";
constexpr char kGermanColour[] = "rgb(126, 224, 129)";
constexpr char kDefaultColour[] = "rgb(232, 240, 248)";

// A test page of its own title, with helpers (script text) run first, then
// body, then script. The helpers may note what the page saw in results and
// call showResults() once it is done: it shows results as JSON in
// <pre id="results"> (read back by WidgetBrowserTest::results) and adds
// #done, which the step "wait:#done" waits for.
inline std::string testPage(const std::string& title, const std::string& helpers,
                            const std::string& body, const std::string& script) {
  return "<!DOCTYPE html><html><head><meta charset=\"UTF-8\"><title>" + title +
         "</title><script>const results = {};\n"
         "function showResults() {\n"
         "  const pre = document.createElement('pre');\n"
         "  pre.id = 'results';\n"
         "  pre.textContent = JSON.stringify(results);\n"
         "  document.body.appendChild(pre);\n"
         "  const mark = document.createElement('div');\n"
         "  mark.id = 'done';\n"
         "  document.body.appendChild(mark);\n"
         "}\n" +
         helpers + "</script></head><body><h1>" + title + "</h1>" + body +
         "<script>" + script + "</script></body></html>";
}

struct Browse {
  bool exited = false;  // false: killed by a signal or by the deadline
  bool hung = false;
  int status = -1;
  std::string out;
  std::string err;
  nlohmann::json facts;  // null when the browser printed none
};

inline void addTree(ZipBuilder& zip, const std::string& dir, const std::string& prefix) {
  for (const std::string& name : TempDir::listDirectory(dir)) {
    const std::string path = dir + "/" + name;
    if (TempDir::isDirectory(path)) {
      zip.addFolder(prefix + name + "/");
      addTree(zip, path, prefix + name + "/");
    } else {
      zip.addFile(prefix + name, TempDir::readFile(path));
    }
  }
}

class WidgetBrowserTest : public WidgetSandbox {
 protected:
  // A command that browse() runs the browser through, when not empty.
  std::vector<std::string> wrapper;
  // How long browse() waits for the browser before it takes it as hung.
  std::chrono::seconds deadline = kBrowserDeadline;

  // Runs widget-browser with args and these variables added to the
  // environment, and waits for it (at most deadline).
  Browse browse(const std::vector<std::string>& args,
                const std::map<std::string, std::string>& env = {}) {
    Browse result;
    std::vector<std::string> argv = wrapper;
    argv.push_back(kBrowser);
    argv.insert(argv.end(), args.begin(), args.end());
    ChildProcess browser;
    browser.setEnv("WIDGET_BROWSER_FACTS", "1");
    for (const auto& entry : env) browser.setEnv(entry.first, entry.second);
    if (!browser.start(argv)) return result;
    browser.wait(deadline);
    result.hung = browser.hung();
    result.exited = !result.hung && WIFEXITED(browser.status());
    if (result.exited) result.status = WEXITSTATUS(browser.status());
    result.out = browser.out();
    result.err = browser.err();
    const std::string marker = "widget-browser-facts: ";
    const size_t at = result.out.rfind(marker);
    if (at != std::string::npos) {
      const size_t end = result.out.find('\n', at);
      result.facts = nlohmann::json::parse(
          result.out.substr(at + marker.size(), end - at - marker.size()),
          nullptr, false);
    }
    if (!result.facts.is_object()) result.facts = nlohmann::json::object();
    return result;
  }

  std::string samplePackage() {
    ZipBuilder zip;
    addTree(zip, kSample, "");
    return writePackage("sample-clock.wgt", zip);
  }

  std::string storage() const { return root + "widget_sample-clock"; }
  std::string launchURL() const { return "file://" + storage() + "/index.html"; }

  // Installs the sample widget from its file:// address for a reader of
  // language; what the start page shows.
  Browse install(const std::string& language) {
    Browse run = browse({"--lang", language, "--exit-after-load",
                         "file://" + samplePackage()});
    EXPECT_TRUE(run.exited) << run.err;
    EXPECT_EQ(0, run.status) << run.out << run.err;
    return run;
  }

  // A package of one widget named by its file, with these <access> elements
  // and files (index.html among them).
  std::string widgetPackage(const std::string& name, const std::string& access,
                            const std::map<std::string, std::string>& files) {
    ZipBuilder zip;
    zip.addFile("config.xml",
                "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                "<widget xmlns=\"http://www.w3.org/ns/widgets\" "
                "id=\"http://example.org/" + name + "\" version=\"1.0\">\n"
                "  <name>" + name + "</name>\n"
                "  <content src=\"index.html\"/>\n" + access +
                "</widget>\n");
    std::set<std::string> folders;
    for (const auto& file : files) {
      for (size_t slash = file.first.find('/'); slash != std::string::npos;
           slash = file.first.find('/', slash + 1)) {
        const std::string folder = file.first.substr(0, slash + 1);
        if (folders.insert(folder).second) zip.addFolder(folder);
      }
      zip.addFile(file.first, file.second);
    }
    return writePackage(name + ".wgt", zip);
  }

  // The paths under dir (at any depth) of files whose names begin with one
  // of these, one per line.
  static std::string filesNamed(const std::string& dir,
                                const std::vector<std::string>& names) {
    std::string found;
    for (const std::string& entry : TempDir::listDirectory(dir)) {
      const std::string path = dir + "/" + entry;
      if (TempDir::isDirectory(path)) {
        found += filesNamed(path, names);
        continue;
      }
      for (const std::string& name : names)
        if (entry.compare(0, name.size(), name) == 0) found += path + "\n";
    }
    return found;
  }

  // Installs a package with the engine itself; its launch address.
  std::string installWithEngine(const std::string& package) {
    RefPtr<WebWidgetEngineDelegate> engine =
        WidgetEngineDelegate::createInstance();
    char* launch = engine->receiveWidget(("file://" + package).c_str(), nullptr);
    EXPECT_NE(nullptr, launch) << package;
    const std::string result = launch ? launch : "";
    free(launch);
    return result;
  }

  // What a page that ends its work by showing <pre id="results"> with a
  // JSON object found, after the browser waited for it.
  static nlohmann::json results(const Browse& run) {
    const std::string shown = text(run);
    const size_t start = shown.find("{\"");
    if (start == std::string::npos) return nlohmann::json::object();
    nlohmann::json parsed = nlohmann::json::parse(
        shown.substr(start, shown.rfind('}') - start + 1), nullptr, false);
    if (!parsed.is_object()) return nlohmann::json::object();
    // Every value as text, so that a missing or odd one fails as a
    // mismatch, not as an exception.
    for (auto& entry : parsed.items())
      if (!entry.value().is_string()) entry.value() = entry.value().dump();
    return parsed;
  }

  static std::string text(const Browse& run) {
    return run.facts.value("text", std::string());
  }
  static std::string url(const Browse& run) {
    return run.facts.value("url", std::string());
  }
  static std::string colour(const Browse& run) {
    return run.facts.value("h1Color", std::string());
  }
  static std::string title(const Browse& run) {
    return run.facts.value("windowTitle", std::string());
  }
  static std::pair<int, int> imageSize(const Browse& run) {
    const auto& images = run.facts["images"];
    if (!images.is_array() || images.size() != 1) return {-1, -1};
    return {images[0].value("width", -1), images[0].value("height", -1)};
  }
};

#endif  // WIDGETENGINE_HOST_WIDGETBROWSERTEST_H_
