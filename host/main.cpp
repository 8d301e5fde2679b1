// SPDX-License-Identifier: Apache-2.0
// widget-browser: a small browser that shows packaged widgets through
// libwidgetengine, and the example of where a browser calls the engine.
//
//   widget-browser [--lang TAGS] [--screenshot FILE.png] [--exit-after-load]
//                  [--size WxH] URL
//
// URL is a widget package (http://, file:// or a plain path), which is
// installed and then opened at the launch address the engine answers, or any
// other address, which is opened as it is. A widget is shown from the
// browser's widget:// scheme, confined to its own files and the network
// origins its config.xml grants (BrowserWindow.cpp, WidgetScheme.cpp).
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>

#include <gtk/gtk.h>

#include <widgetengine/WidgetEngineDelegate.h>
#include <widgetengine/WidgetEngineExtensions.h>

#include "base/Environment.h"
#include "host/BrowserWindow.h"
#include "host/OutputCapture.h"
#include "host/RefusalLines.h"
#include "host/ResourceMapper.h"

#ifndef WIDGET_BROWSER_EXTENSION_DIR
#define WIDGET_BROWSER_EXTENSION_DIR "/usr/lib/widget-browser"
#endif

namespace {

// The accept-language a desktop browser derives from the locale: LANGUAGE
// ("fr:de_DE") first, then LC_ALL, LC_MESSAGES and LANG ("fr_FR.UTF-8"),
// each entry without its codeset or modifier, "_" written as "-".
std::string languageFromEnvironment() {
  std::string list;
  for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) {
    list = environment::text(name, "");
    if (!list.empty()) break;
  }
  std::string out;
  size_t start = 0;
  while (start <= list.size()) {
    size_t end = list.find(':', start);
    if (end == std::string::npos) end = list.size();
    std::string tag = list.substr(start, end - start);
    tag = tag.substr(0, tag.find_first_of(".@"));
    std::replace(tag.begin(), tag.end(), '_', '-');
    if (!tag.empty() && tag != "C" && tag != "POSIX") {
      if (!out.empty()) out += ",";
      out += tag;
    }
    start = end + 1;
  }
  return out;
}

std::string lowerPath(const std::string& url) {
  std::string path = url.substr(0, url.find_first_of("?#"));
  std::transform(path.begin(), path.end(), path.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  return path;
}

bool endsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool isZipFile(const std::string& path) {
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  char magic[4] = {0, 0, 0, 0};
  const size_t got = fread(magic, 1, sizeof magic, file);
  fclose(file);
  return got == 4 && memcmp(magic, "PK\3\4", 4) == 0;
}

// A package is what a widget package's address looks like: a .wgt (or .zip)
// name, or a local file that is a zip archive whatever its name.
bool looksLikePackage(const std::string& url) {
  const std::string path = lowerPath(url);
  if (endsWith(path, ".wgt") || endsWith(path, ".zip")) return true;
  if (url.compare(0, 7, "file://") == 0) {
    char* file = g_filename_from_uri(url.c_str(), nullptr, nullptr);
    const bool zip = file != nullptr && isZipFile(file);
    g_free(file);
    return zip;
  }
  return false;
}

std::string extensionDirectory(const char* argv0) {
  const std::string fromEnv = environment::text("WIDGET_BROWSER_EXTENSION_DIR", "");
  if (!fromEnv.empty()) return fromEnv;
  // Run from the build tree, the extension is built beside the program.
  char self[PATH_MAX];
  const ssize_t size = readlink("/proc/self/exe", self, sizeof self - 1);
  if (size > 0) {
    self[size] = '\0';
    char* dir = g_path_get_dirname(self);
    std::string local = std::string(dir) + "/widget-browser-extensions";
    g_free(dir);
    if (g_file_test(local.c_str(), G_FILE_TEST_IS_DIR)) return local;
  }
  (void)argv0;
  return WIDGET_BROWSER_EXTENSION_DIR;
}

// A measuring switch: the most memory the browser held resident, as the
// kernel counted it ("peak-memory-kib: N").
void printPeakMemory() {
  FILE* status = fopen("/proc/self/status", "re");
  if (status == nullptr) return;
  char line[256];
  while (fgets(line, sizeof line, status) != nullptr) {
    unsigned long kib = 0;
    if (sscanf(line, "VmHWM: %lu kB", &kib) == 1) {
      printf("peak-memory-kib: %lu\n", kib);
      fflush(stdout);
    }
  }
  fclose(status);
}

}  // namespace

int main(int argc, char** argv) {
  // A package whose entries do not match their checksums is not shown.
  widgetengine_set_verify_entries(1);
  gchar* lang = nullptr;
  gchar* screenshot = nullptr;
  gchar* size = nullptr;
  gboolean exitAfterLoad = FALSE;
  const GOptionEntry entries[] = {
      {"lang", 0, 0, G_OPTION_ARG_STRING, &lang,
       "The reader's languages, as an accept-language list (default: from "
       "LANGUAGE or LANG)", "TAGS"},
      {"screenshot", 0, 0, G_OPTION_ARG_FILENAME, &screenshot,
       "Write the loaded page as PNG to FILE, then exit", "FILE.png"},
      {"exit-after-load", 0, 0, G_OPTION_ARG_NONE, &exitAfterLoad,
       "Exit once the page has loaded (non-zero when it was refused or "
       "failed)", nullptr},
      {"size", 0, 0, G_OPTION_ARG_STRING, &size,
       "Window size (default 800x600)", "WxH"},
      {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr}};
  GOptionContext* parser = g_option_context_new("URL");
  g_option_context_set_summary(
      parser,
      "Installs the widget package at URL with the widget engine and shows it,\n"
      "or opens URL as it is when it is not a package. A widget is shown from\n"
      "widget://NAME/, confined to its own files and to the network origins\n"
      "its config.xml grants; its window stays on it.");
  g_option_context_add_main_entries(parser, entries, nullptr);
  g_option_context_add_group(parser, gtk_get_option_group(FALSE));
  GError* error = nullptr;
  const gboolean parsed = g_option_context_parse(parser, &argc, &argv, &error);
  g_option_context_free(parser);
  if (!parsed || argc != 2) {
    std::cerr << "widget-browser: "
              << (error ? error->message : "expected one URL") << "\n"
              << "usage: widget-browser [--lang TAGS] [--screenshot FILE.png] "
                 "[--exit-after-load] [--size WxH] URL"
              << std::endl;
    if (error) g_error_free(error);
    return 2;
  }

  BrowserOptions options;
  // --lang may be a browser's Accept-Language header; the engine reads a
  // plain list.
  char* languages =
      widgetengine_accept_language(lang ? lang : languageFromEnvironment().c_str());
  options.language = languages ? languages : "";
  free(languages);
  if (screenshot) options.screenshot = screenshot;
  options.exitAfterLoad = exitAfterLoad;
  if (size && sscanf(size, "%dx%d", &options.width, &options.height) != 2) {
    std::cerr << "widget-browser: --size wants WxH, as 800x600" << std::endl;
    return 2;
  }
  options.width = std::clamp(options.width, 1, 10000);
  options.height = std::clamp(options.height, 1, 10000);
  options.extensionDir = extensionDirectory(argv[0]);
  options.mapping = !environment::flag("WIDGET_BROWSER_NO_MAPPING");
  options.gate = !environment::flag("WIDGET_BROWSER_NO_GATE");
  options.automation.printFacts = environment::flag("WIDGET_BROWSER_FACTS");
  std::istringstream steps(environment::text("WIDGET_BROWSER_STEPS", ""));
  for (std::string step; steps >> step;) options.automation.steps.push_back(step);
  options.automation.repeat = static_cast<int>(environment::clamped(
      "WIDGET_BROWSER_REPEAT", 0, 1000, options.automation.repeat));
  options.loadTimeoutSeconds = static_cast<int>(environment::clamped(
      "WIDGET_BROWSER_LOAD_TIMEOUT", 1, 3600, options.loadTimeoutSeconds));
  const bool timing = environment::flag("WIDGET_BROWSER_TIMING");
  g_free(lang);
  g_free(screenshot);
  g_free(size);

  if (!gtk_init_check(&argc, &argv)) {
    std::cerr << "widget-browser: cannot open a display (run it under "
                 "xvfb-run when there is none)" << std::endl;
    return 2;
  }

  std::string url = argv[1];
  if (url.find("://") == std::string::npos) {
    char* absolute = realpath(url.c_str(), nullptr);
    if (absolute == nullptr) {
      std::cerr << "widget-browser: " << url << ": " << strerror(errno)
                << std::endl;
      return 2;
    }
    // A file:// address, escaped: a path with a blank, "%" or "#" in it
    // would otherwise name another file, or none.
    char* uri = g_filename_to_uri(absolute, nullptr, nullptr);
    free(absolute);
    if (uri == nullptr) {
      std::cerr << "widget-browser: " << url << ": not a file name"
                << std::endl;
      return 2;
    }
    url = uri;
    g_free(uri);
  }

  // The engine reads YRA_DATA_PATH and WIDGET_PATH itself; the browser only
  // passes them on to its web processes (BrowserWindow.cpp).
  RefPtr<WebWidgetEngineDelegate> engine = WidgetEngineDelegate::createInstance();
  // The web data of widgets that another host removed goes now; the window's
  // own widget keeps its data in folders of its installation (WidgetData).
  widgetengine_sweep_web_data();
  int status = 0;
  {
    BrowserWindow window(engine.get(), options);

    if (engine->isWidget(ResourceMapper::engineAddress(url).c_str()) == 1 ||
        !looksLikePackage(url)) {
      window.open(url);
    } else {
      const auto start = std::chrono::steady_clock::now();
      // The engine's lines are caught here to be shown in the page if it
      // refuses the package, and passed on to standard output.
      OutputCapture capture(STDOUT_FILENO);
      char* launch = engine->receiveWidget(url.c_str(), nullptr);
      const std::string lines = capture.finish();
      if (timing) {
        printf("receive-ms: %.3f\n",
               std::chrono::duration<double, std::milli>(
                   std::chrono::steady_clock::now() - start)
                   .count());
        fflush(stdout);
        window.measureFirstFrameFrom(start);
      }
      if (launch == nullptr) {
        window.showRefusal(url, lines);
      } else {
        window.open(launch);
        free(launch);
      }
    }
    status = window.run();
  }
  // A widget removed while it was shown: what WebKit wrote since goes too.
  widgetengine_sweep_web_data();
  RefusalLines::flush();
  if (environment::flag("WIDGET_BROWSER_PEAK_MEMORY")) printPeakMemory();
  return status;
}
