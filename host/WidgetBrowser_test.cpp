// SPDX-License-Identifier: Apache-2.0
// widget-browser end to end: each test installs or opens a widget in a real
// WebKit view (the program runs as a child process on the display the test
// runs on, Xvfb in ctest) and reads back what the page shows, as JSON the
// browser prints when WIDGET_BROWSER_FACTS is set.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <gdk-pixbuf/gdk-pixbuf.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "testing/HttpServer.h"
#include "testing/ManualPage.h"
#include "testing/TempDir.h"
#include "testing/WidgetSandbox.h"
#include "testing/ZipBuilder.h"

extern char** environ;

namespace {

const char kBrowser[] = WIDGETENGINE_BINARY_DIR "/widget-browser";
const char kSample[] = WIDGETENGINE_SOURCE_DIR "/tools/sample-widget";
// A browser that has not exited by then is hung: killed, and the test fails.
const auto kBrowserDeadline = std::chrono::seconds(150);

const char kFrenchColour[] = "rgb(255, 204, 77)";
const char kGermanColour[] = "rgb(126, 224, 129)";
const char kDefaultColour[] = "rgb(232, 240, 248)";

struct Browse {
  bool exited = false;  // false: killed by a signal or by the deadline
  bool hung = false;
  int status = -1;
  std::string out;
  std::string err;
  nlohmann::json facts;  // null when the browser printed none
};

void addTree(ZipBuilder& zip, const std::string& dir, const std::string& prefix) {
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
  // Runs widget-browser with args and these variables added to the
  // environment, and waits for it (at most kBrowserDeadline).
  Browse browse(const std::vector<std::string>& args,
                const std::map<std::string, std::string>& env = {}) {
    Browse result;
    const std::string outPath = dir.file("browser.out");
    const std::string errPath = dir.file("browser.err");
    std::vector<std::string> argStore = {kBrowser};
    argStore.insert(argStore.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& arg : argStore) argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    std::map<std::string, std::string> vars = {{"WIDGET_BROWSER_FACTS", "1"}};
    for (const auto& entry : env) vars[entry.first] = entry.second;
    std::vector<std::string> envStore;
    for (char** e = environ; *e; ++e) {
      const std::string entry = *e;
      if (vars.count(entry.substr(0, entry.find('='))) == 0)
        envStore.push_back(entry);
    }
    for (const auto& entry : vars)
      envStore.push_back(entry.first + "=" + entry.second);
    std::vector<char*> envp;
    for (std::string& entry : envStore) envp.push_back(&entry[0]);
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, kBrowser, &actions, nullptr,
                                    argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
      ADD_FAILURE() << "cannot start " << kBrowser;
      return result;
    }
    const auto deadline = std::chrono::steady_clock::now() + kBrowserDeadline;
    int wstatus = 0;
    while (waitpid(pid, &wstatus, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
        kill(pid, SIGKILL);
        waitpid(pid, &wstatus, 0);
        result.hung = true;
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    result.exited = !result.hung && WIFEXITED(wstatus);
    if (result.exited) result.status = WEXITSTATUS(wstatus);
    result.out = TempDir::readFile(outPath);
    result.err = TempDir::readFile(errPath);
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

TEST_F(WidgetBrowserTest, FrenchReaderSeesTheFrenchCopies) {
  Browse run = install("fr");
  ASSERT_TRUE(run.facts.is_object()) << run.out << run.err;
  EXPECT_EQ("file://" + storage() + "/locales/fr/index.html", url(run));
  EXPECT_NE(std::string::npos, text(run).find("Heure locale")) << text(run);
  EXPECT_EQ(kFrenchColour, colour(run));
  EXPECT_EQ(std::make_pair(60, 40), imageSize(run));
  EXPECT_EQ("Horloge exemple", title(run));
}

TEST_F(WidgetBrowserTest, FrenchLinkLeadsToTheFrenchSecondPage) {
  install("fr");
  Browse run = browse({"--lang", "fr", "--exit-after-load", launchURL()},
                      {{"WIDGET_BROWSER_STEPS", "#next"}});
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("file://" + storage() + "/locales/fr/about.html", url(run));
  EXPECT_NE(std::string::npos, text(run).find("Retour à l’horloge")) << text(run);
  EXPECT_EQ(kFrenchColour, colour(run));
  // Still the same widget: its localized name stays the window's title.
  EXPECT_EQ("Horloge exemple", title(run));
}

TEST_F(WidgetBrowserTest, BackAndForwardKeepTheFrenchCopiesAndTheTitle) {
  install("fr");
  Browse back = browse({"--lang", "fr", "--exit-after-load", launchURL()},
                       {{"WIDGET_BROWSER_STEPS", "#next back"}});
  EXPECT_EQ(0, back.status) << back.err;
  EXPECT_EQ("file://" + storage() + "/locales/fr/index.html", url(back));
  EXPECT_NE(std::string::npos, text(back).find("Heure locale")) << text(back);
  EXPECT_EQ(kFrenchColour, colour(back));
  EXPECT_EQ("Horloge exemple", title(back));

  Browse forward = browse({"--lang", "fr", "--exit-after-load", launchURL()},
                          {{"WIDGET_BROWSER_STEPS", "#next back forward"}});
  EXPECT_EQ("file://" + storage() + "/locales/fr/about.html", url(forward));
  EXPECT_EQ(kFrenchColour, colour(forward));
  EXPECT_EQ("Horloge exemple", title(forward));
}

TEST_F(WidgetBrowserTest, GermanReaderSeesTheGermanCopies) {
  Browse run = install("de-DE,en;q=0.5");
  EXPECT_EQ("file://" + storage() + "/locales/de/index.html", url(run));
  EXPECT_NE(std::string::npos, text(run).find("Ortszeit")) << text(run);
  EXPECT_EQ(kGermanColour, colour(run));
  EXPECT_EQ(std::make_pair(50, 30), imageSize(run));
  EXPECT_EQ("Beispieluhr", title(run));

  Browse next = browse({"--lang", "de", "--exit-after-load", launchURL()},
                       {{"WIDGET_BROWSER_STEPS", "#next"}});
  EXPECT_EQ("file://" + storage() + "/locales/de/about.html", url(next));
  EXPECT_NE(std::string::npos, text(next).find("Zurück zur Uhr")) << text(next);
  EXPECT_EQ(kGermanColour, colour(next));
}

TEST_F(WidgetBrowserTest, ReaderWithoutACopyGetsTheDefaultFiles) {
  Browse run = install("ja");
  EXPECT_EQ(launchURL(), url(run));
  EXPECT_NE(std::string::npos, text(run).find("Local time")) << text(run);
  EXPECT_EQ(kDefaultColour, colour(run));
  EXPECT_EQ(std::make_pair(48, 32), imageSize(run));
  EXPECT_EQ("Sample Clock", title(run));

  Browse next = browse({"--lang", "ja", "--exit-after-load", launchURL()},
                       {{"WIDGET_BROWSER_STEPS", "#next"}});
  EXPECT_EQ("file://" + storage() + "/about.html", url(next));
  EXPECT_NE(std::string::npos, text(next).find("Back to the clock"));
}

TEST_F(WidgetBrowserTest, FramesAndRequestsGetTheFrenchCopiesInsideThePage) {
  ZipBuilder zip;
  zip.addFile("config.xml",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<widget xmlns=\"http://www.w3.org/ns/widgets\" "
              "id=\"http://example.org/frames\" version=\"1.0\">\n"
              "  <name>Frames</name>\n  <content src=\"index.html\"/>\n"
              "</widget>\n");
  // The page reads its frame and a file (with XHR, synchronous so that it is
  // done when the load is) once all is loaded, and shows both in its title.
  zip.addFile("index.html",
              "<!DOCTYPE html><html><head><meta charset=\"UTF-8\">"
              "<title>Top</title></head><body><h1>Top</h1>"
              "<iframe id=\"f\" src=\"frame.html\"></iframe><script>"
              "window.addEventListener('load', () => {"
              " const frame = document.getElementById('f')"
              ".contentDocument.body.innerText.trim();"
              " const request = new XMLHttpRequest();"
              " request.open('GET', 'data.txt', false); request.send();"
              " document.title = frame + '|' + request.responseText.trim();"
              "});</script></body></html>");
  const std::string head = "<!DOCTYPE html><html><head><meta charset=\"UTF-8\">"
                           "</head><body>";
  zip.addFile("frame.html", head + "default frame</body></html>");
  zip.addFile("data.txt", "default data\n");
  zip.addFolder("locales/").addFolder("locales/fr/");
  zip.addFile("locales/fr/frame.html", head + "cadre français</body></html>");
  zip.addFile("locales/fr/data.txt", "données\n");
  Browse run = browse({"--lang", "fr", "--exit-after-load",
                       "file://" + writePackage("frames.wgt", zip)});
  ASSERT_EQ(0, run.status) << run.err;
  // The frame's document did not replace the page.
  EXPECT_EQ("file://" + root + "widget_frames/index.html", url(run));
  EXPECT_EQ("cadre français|données",
            run.facts.value("documentTitle", std::string()));
  EXPECT_EQ("Frames", title(run));
}

TEST_F(WidgetBrowserTest, WidgetRootWhoseNameNeedsEscaping) {
  const std::string spaced = dir.file("my widgets") + "/";
  ASSERT_EQ(0, mkdir(spaced.c_str(), 0755));
  ASSERT_EQ(0, mkdir((spaced + "tmp").c_str(), 0755));
  Browse run = browse({"--lang", "fr", "--exit-after-load", samplePackage()},
                      {{"WIDGET_PATH", spaced}});
  ASSERT_EQ(0, run.status) << run.out << run.err;
  EXPECT_EQ("file://" + dir.file("my%20widgets") +
                "/widget_sample-clock/locales/fr/index.html",
            url(run));
  EXPECT_EQ(kFrenchColour, colour(run));
  EXPECT_EQ(std::make_pair(60, 40), imageSize(run));
  EXPECT_EQ("Horloge exemple", title(run));
}

TEST_F(WidgetBrowserTest, LanguageComesFromTheLocaleWithoutLang) {
  install("ja");
  Browse run = browse({"--exit-after-load", launchURL()},
                      {{"LANGUAGE", "de_AT:fr"}, {"LANG", "ja_JP.UTF-8"}});
  EXPECT_EQ("file://" + storage() + "/locales/de/index.html", url(run));
  EXPECT_EQ("Beispieluhr", title(run));
}

TEST_F(WidgetBrowserTest, FrenchAndGermanScreenshotsAreDistinctPictures) {
  install("fr");
  std::vector<GdkPixbuf*> shots;
  for (const char* language : {"fr", "de"}) {
    const std::string png = dir.file(std::string("shot-") + language + ".png");
    Browse run = browse({"--lang", language, "--size", "480x360",
                         "--screenshot", png, launchURL()});
    ASSERT_TRUE(run.exited) << run.err;
    ASSERT_EQ(0, run.status) << run.err;
    ASSERT_EQ("\x89PNG", TempDir::readFile(png).substr(0, 4));
    GError* error = nullptr;
    GdkPixbuf* picture = gdk_pixbuf_new_from_file(png.c_str(), &error);
    ASSERT_NE(nullptr, picture) << (error ? error->message : "");
    EXPECT_EQ(480, gdk_pixbuf_get_width(picture));
    EXPECT_EQ(360, gdk_pixbuf_get_height(picture));
    shots.push_back(picture);
  }
  // Not blank: the flag, the heading and the background are all there.
  for (GdkPixbuf* picture : shots) {
    const guchar* pixels = gdk_pixbuf_get_pixels(picture);
    const int stride = gdk_pixbuf_get_rowstride(picture);
    const int channels = gdk_pixbuf_get_n_channels(picture);
    std::map<uint32_t, int> colours;
    for (int y = 0; y < gdk_pixbuf_get_height(picture); ++y)
      for (int x = 0; x < gdk_pixbuf_get_width(picture); ++x) {
        const guchar* p = pixels + y * stride + x * channels;
        colours[(p[0] << 16) | (p[1] << 8) | p[2]]++;
      }
    EXPECT_GT(colours.size(), 20u);
  }
  size_t differing = 0;
  const size_t bytes = gdk_pixbuf_get_byte_length(shots[0]);
  ASSERT_EQ(bytes, gdk_pixbuf_get_byte_length(shots[1]));
  const guchar* a = gdk_pixbuf_get_pixels(shots[0]);
  const guchar* b = gdk_pixbuf_get_pixels(shots[1]);
  for (size_t i = 0; i < bytes; ++i) differing += a[i] != b[i];
  // The backgrounds alone differ everywhere.
  EXPECT_GT(differing, bytes / 2);
  for (GdkPixbuf* picture : shots) g_object_unref(picture);
}

TEST_F(WidgetBrowserTest, RefusedPackageShowsTheEngineReason) {
  ZipBuilder zip;
  zip.addFile("config.xml",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<widget xmlns=\"http://www.w3.org/ns/widgets\" "
              "id=\"http://example.org/empty\" version=\"1.0\">\n"
              "  <name>Empty</name>\n</widget>\n");
  zip.addFile("notes.txt", "no start page here\n");
  Browse run = browse({"--exit-after-load",
                       "file://" + writePackage("empty.wgt", zip)});
  ASSERT_TRUE(run.exited) << run.err;
  EXPECT_NE(0, run.status);
  EXPECT_TRUE(run.facts.value("refused", false));
  EXPECT_NE(std::string::npos, text(run).find("No start file found")) << text(run);
  // The engine's lines still reach standard output.
  EXPECT_NE(std::string::npos, run.out.find("No start file found\n"));
  EXPECT_TRUE(nothingLeft());
}

TEST_F(WidgetBrowserTest, PackageThatCannotBeFetchedIsRefused) {
  HttpServer server;
  server.serve("/missing.wgt", 404, "not here");
  Browse run = browse({"--exit-after-load", server.url("/missing.wgt")});
  ASSERT_TRUE(run.exited) << run.err;
  EXPECT_NE(0, run.status);
  EXPECT_TRUE(run.facts.value("refused", false));
  EXPECT_FALSE(text(run).empty());

  RefusingPort nobody;
  Browse refused = browse({"--exit-after-load", nobody.url("/clock.wgt")});
  ASSERT_TRUE(refused.exited) << refused.err;
  EXPECT_NE(0, refused.status);
  EXPECT_NE(std::string::npos, text(refused).find("Error while downloading"))
      << text(refused);
}

TEST_F(WidgetBrowserTest, WidgetRemovedBehindTheEngineFailsWithoutHanging) {
  const std::string package = "file://" + samplePackage();
  Browse first = browse({"--lang", "fr", "--exit-after-load", package});
  ASSERT_EQ(0, first.status) << first.err;
  TempDir::removeTree(storage());
  // Both by its launch address and by its package, which the engine still
  // answers with the launch address of the files that are gone.
  for (const std::string& address : {launchURL(), package}) {
    SCOPED_TRACE(address);
    Browse run = browse({"--lang", "fr", "--exit-after-load", address});
    EXPECT_FALSE(run.hung);
    ASSERT_TRUE(run.exited) << run.err;
    EXPECT_EQ(1, run.status) << run.out << run.err;
    EXPECT_TRUE(run.facts.value("loadFailed", false));
  }
}

TEST_F(WidgetBrowserTest, PageOutsideTheWidgetRootIsLoadedUntouched) {
  // A folder laid out like a widget, but never installed.
  const std::string site = dir.file("site");
  for (const char* folder : {"", "/locales", "/locales/fr"})
    ASSERT_EQ(0, mkdir((site + folder).c_str(), 0755));
  TempDir::writeFile(site + "/index.html",
                     "<!DOCTYPE html><html><head><title>Plain page</title>"
                     "<link rel=\"stylesheet\" href=\"style.css\"></head>"
                     "<body><h1>Plain text</h1></body></html>");
  TempDir::writeFile(site + "/style.css", "h1 { color: rgb(1, 2, 3); }");
  TempDir::writeFile(site + "/locales/fr/index.html",
                     "<html><body><h1>Texte localisé</h1></body></html>");
  TempDir::writeFile(site + "/locales/fr/style.css",
                     "h1 { color: rgb(9, 9, 9); }");
  install("fr");  // an engine that does know a widget with such files
  Browse run = browse({"--lang", "fr", "--exit-after-load",
                       "file://" + site + "/index.html"});
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("file://" + site + "/index.html", url(run));
  EXPECT_EQ("Plain text", text(run));
  EXPECT_EQ("rgb(1, 2, 3)", colour(run));
  EXPECT_EQ("Plain page", title(run));
}

TEST(WidgetBrowserManualPage, NamesEveryOptionExitCodeVariableAndFile) {
  const std::string path = WIDGETENGINE_SOURCE_DIR "/host/widget-browser.1";
  const std::string page = TempDir::readFile(path);
  ASSERT_FALSE(page.empty());
  // The options the program itself lists.
  std::string help;
  FILE* pipe = popen((std::string(kBrowser) + " --help 2>&1").c_str(), "r");
  ASSERT_TRUE(pipe);
  char buffer[512];
  while (fgets(buffer, sizeof buffer, pipe)) help += buffer;
  EXPECT_EQ(0, pclose(pipe));
  for (const char* option :
       {"--lang", "--screenshot", "--exit-after-load", "--size", "--help"}) {
    EXPECT_NE(std::string::npos, help.find(option)) << option;
    EXPECT_NE(std::string::npos, page.find(roffDashes(option))) << option;
  }
  for (const char* code : {".B 0\n", ".B 1\n", ".B 2\n"})
    EXPECT_NE(std::string::npos, page.find(code)) << code;
  EXPECT_EQ(std::vector<std::string>(), missingEngineEntries(page));
  EXPECT_NE(std::string::npos, page.find(".B WIDGET_BROWSER_EXTENSION_DIR\n"));
  EXPECT_EQ("", manualWarnings(path));
}

}  // namespace
