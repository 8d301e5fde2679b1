// SPDX-License-Identifier: Apache-2.0
// What a widget may cost the browser, end to end in the real browser: its
// dialogs and requests are answered without stopping the program, its
// window does not become an empty page, its refusals do not flood standard
// error, a large file read many times at once stays within the memory
// bound, and a name a host cannot hold still gives a valid origin.
#include <unistd.h>

#include <string>

#include "host/WidgetBrowserTest.h"

namespace {

// Shared by the pages below: record(name, value) notes what the page saw,
// done() shows the notes.
const char kRecorder[] = R"JS(
function record(name, value) { results[name] = String(value); }
function settle(promise, ms) {
  return Promise.race([promise,
                       new Promise(r => setTimeout(() => r('no answer'), ms))]);
}
function done() { showResults(); }
)JS";

std::string recorderPage(const std::string& body, const std::string& script) {
  return testPage("Bounds", kRecorder, body, script);
}

class WidgetBoundsTest : public WidgetBrowserTest {};

// Everything a page may ask of the user, asked in one click (a user
// gesture, as some of them need): every answer comes at once, nothing
// waits for a dialog, and the refusals leave their lines.
TEST_F(WidgetBoundsTest, DialogsAndRequestsAreAnsweredWithoutWaiting) {
  const std::string ask =
      "async function ask() {"
      // Full screen and pointer lock first, while the click's activation
      // lasts.
      // (A view without full screen has no requestFullscreen: a TypeError.)
      "  const fullscreen = (async () =>"
      "    document.documentElement.requestFullscreen())()"
      "    .then(() => 'granted', e => e.name);"
      "  const pointerLock = new Promise(r => {"
      "    document.addEventListener('pointerlockchange',"
      "      () => r(document.pointerLockElement ? 'locked' : 'unlocked'));"
      "    document.addEventListener('pointerlockerror', () => r('error'));"
      "    try {"
      "      const p = document.body.requestPointerLock();"
      "      if (p && p.catch) p.catch(() => r('error'));"
      "    } catch (e) { r('error'); }"
      "  });"
      "  record('alert', alert('hello'));"
      "  record('confirm', confirm('sure?'));"
      "  record('prompt', prompt('name?', 'default'));"
      "  window.print();"
      "  record('print', 'returned');"
      "  const file = document.createElement('input');"
      "  file.type = 'file';"
      "  document.body.appendChild(file);"
      "  file.click();"
      "  record('chooser', 'returned');"
      "  record('location', await settle(new Promise(r =>"
      "    navigator.geolocation.getCurrentPosition(() => r('granted'),"
      "                                             e => r('error ' + e.code))),"
      "    5000));"
      "  record('notifications', typeof Notification === 'undefined'"
      "    ? 'absent' : await settle(Notification.requestPermission(), 5000));"
      "  record('media', !navigator.mediaDevices ? 'absent' : await settle("
      "    navigator.mediaDevices.getUserMedia({audio: true, video: true})"
      "      .then(() => 'granted', e => e.name), 5000));"
      "  record('fullscreen', await settle(fullscreen, 5000));"
      "  record('fullscreenElement', document.fullscreenElement);"
      "  record('pointerLock', await settle(pointerLock, 5000));"
      "  done();"
      "}";
  installWithEngine(widgetPackage(
      "dialogs", "",
      {{"index.html",
        recorderPage("<button id=\"ask\" onclick=\"ask()\">ask</button>",
                     ask)}}));
  Browse run = browse({"--exit-after-load", "widget://dialogs/index.html"},
                      {{"WIDGET_BROWSER_STEPS", "#ask wait:#done"}});
  ASSERT_TRUE(run.exited) << run.err;
  ASSERT_EQ(0, run.status) << run.out << run.err;
  const nlohmann::json found = results(run);
  RecordProperty("answers", found.dump());
  EXPECT_EQ("undefined", found.value("alert", "")) << text(run);
  EXPECT_EQ("false", found.value("confirm", "")) << text(run);
  EXPECT_EQ("null", found.value("prompt", "")) << text(run);
  EXPECT_EQ("returned", found.value("print", "")) << text(run);
  EXPECT_EQ("returned", found.value("chooser", "")) << text(run);
  EXPECT_EQ("error 1", found.value("location", "")) << text(run);
  // Asked for its state first, WebKit is told "denied" and does not ask.
  const std::string notifications = found.value("notifications", "");
  EXPECT_TRUE(notifications == "denied" || notifications == "absent")
      << notifications;
  // Without a camera WebKit answers before it asks (OverconstrainedError);
  // with one, the request is denied.
  const std::string media = found.value("media", "");
  EXPECT_NE("granted", media);
  EXPECT_NE("no answer", media);
  EXPECT_NE("granted", found.value("fullscreen", "")) << text(run);
  EXPECT_EQ("null", found.value("fullscreenElement", "")) << text(run);
  EXPECT_NE("locked", found.value("pointerLock", "")) << text(run);
  EXPECT_NE("no answer", found.value("pointerLock", "")) << text(run);
  const std::string page = "widget://dialogs/index.html";
  for (const std::string& line :
       {"refused to print " + page + ": a widget does not print",
        "refused a file chooser to " + page,
        "refused location to " + page + ": a widget is granted no permission",
        "refused pointer lock to " + page})
    EXPECT_NE(std::string::npos, run.err.find(line)) << line << "\n" << run.err;
  if (notifications == "denied") {
    EXPECT_NE(std::string::npos,
              run.err.find("refused notifications to " + page +
                           ": a widget is granted no permission"))
        << run.err;
  }
  if (media == "NotAllowedError") {
    EXPECT_NE(std::string::npos,
              run.err.find("refused camera and microphone to"))
        << run.err;
  }
}

// A page that prints and shows dialogs while it loads, before anyone could
// answer, and asks before it is left: the program still exits by itself.
TEST_F(WidgetBoundsTest, PrintingWhileLoadingDoesNotKeepTheProgram) {
  installWithEngine(widgetPackage(
      "printer", "",
      {{"index.html",
        recorderPage("<a id=\"next\" href=\"next.html\">next</a>",
                     "window.onbeforeunload = e => {"
                     "  e.preventDefault(); e.returnValue = 'stay'; };")},
       {"next.html",
        "<!DOCTYPE html><html><head><title>Next</title><script>"
        "window.print(); alert('loading'); confirm('really?');"
        "</script></head><body><h1>Next</h1></body></html>"}}));
  Browse run = browse({"--exit-after-load", "widget://printer/index.html"},
                      {{"WIDGET_BROWSER_STEPS", "#next"}});
  ASSERT_TRUE(run.exited) << run.err;
  EXPECT_EQ(0, run.status) << run.out << run.err;
  // The page asked to stay; the widget's window left it all the same.
  EXPECT_EQ("widget://printer/next.html", url(run));
  EXPECT_NE(std::string::npos,
            run.err.find("refused to print widget://printer/next.html"))
      << run.err;
}

// A plain page is not a widget, but nobody answers its dialogs either in a
// run that exits by itself.
TEST_F(WidgetBoundsTest, PlainPageThatPrintsStillExits) {
  const std::string page = dir.file("print.html");
  TempDir::writeFile(page,
                     "<!DOCTYPE html><html><head><title>Plain</title><script>"
                     "window.print(); alert('hi');"
                     "</script></head><body><h1>Plain</h1></body></html>");
  Browse run = browse({"--exit-after-load", "file://" + page});
  ASSERT_TRUE(run.exited) << run.err;
  EXPECT_EQ(0, run.status) << run.out << run.err;
  EXPECT_EQ("Plain", text(run));
  EXPECT_NE(std::string::npos,
            run.err.find("refused to print file://" + page +
                         ": nobody is there to answer"))
      << run.err;
}

// The window's own document cannot be made an empty one; frames keep
// theirs.
TEST_F(WidgetBoundsTest, WindowRefusesAnEmptyDocument) {
  const std::string script =
      "window.onload = () => {"
      "  const f = document.getElementById('framed');"
      "  record('srcdocFrame', f.contentDocument.body.textContent);"
      "  record('blankFrame', document.getElementById('empty')"
      "    .contentWindow.location.href);"
      "  done();"
      "};";
  installWithEngine(widgetPackage(
      "empty", "",
      {{"index.html",
        recorderPage(
            "<iframe id=\"framed\" srcdoc=\"<p>framed</p>\"></iframe>"
            "<iframe id=\"empty\" src=\"about:blank\"></iframe>"
            "<a id=\"blank\" href=\"about:blank\">b</a>"
            "<a id=\"srcdoc\" href=\"about:srcdoc\">s</a>"
            "<button id=\"script\" onclick=\"location.href = 'about:blank'\">"
            "x</button>",
            script)}}));
  Browse run = browse(
      {"--exit-after-load", "widget://empty/index.html"},
      {{"WIDGET_BROWSER_STEPS", "wait:#done #blank wait:#done #srcdoc "
                                "wait:#done #script wait:#done"}});
  ASSERT_TRUE(run.exited) << run.err;
  ASSERT_EQ(0, run.status) << run.out << run.err;
  EXPECT_EQ("widget://empty/index.html", url(run));
  const nlohmann::json found = results(run);
  EXPECT_EQ("framed", found.value("srcdocFrame", "")) << text(run);
  EXPECT_EQ("about:blank", found.value("blankFrame", "")) << text(run);
  for (const char* address : {"about:blank", "about:srcdoc"})
    EXPECT_NE(std::string::npos,
              run.err.find(std::string("refused to open ") + address +
                           ": a widget's window stays on the widget"))
        << address << "\n" << run.err;
}

// 100 refused addresses of 1 MiB each: a few lines, each cut, and a count
// of the rest.
TEST_F(WidgetBoundsTest, FloodOfRefusalsStaysSmall) {
  HttpServer remote;  // not granted: must receive nothing
  const std::string script =
      "const long = '" + remote.url("/") + "' + 'a'.repeat(1 << 20);"
      "Promise.all(Array.from({length: 100}, (_, i) =>"
      "  fetch(long + i).then(() => 'leaked', () => 'blocked')))"
      "  .then(all => { record('blocked',"
      "                        all.filter(x => x === 'blocked').length);"
      "                 done(); });";
  installWithEngine(
      widgetPackage("flood", "", {{"index.html", recorderPage("", script)}}));
  Browse run = browse({"--exit-after-load", "widget://flood/index.html"},
                      {{"WIDGET_BROWSER_STEPS", "wait:#done"}});
  ASSERT_TRUE(run.exited) << run.err.substr(0, 4000);
  ASSERT_EQ(0, run.status) << run.out << run.err.substr(0, 4000);
  EXPECT_EQ("100", results(run).value("blocked", "")) << text(run);
  EXPECT_EQ(0, remote.requestCount());
  RecordProperty("stderr_bytes", std::to_string(run.err.size()));
  EXPECT_LT(run.err.size(), 200u * 1024);
  EXPECT_NE(std::string::npos, run.err.find(" more refusals not shown"))
      << run.err.substr(0, 4000);
  EXPECT_NE(std::string::npos, run.err.find("aaaa[... ")) << run.err.substr(0, 4000);
}

// Eight reads at once of a 300 MiB file of the widget: each gets the whole
// file, and the browser's own memory stays within its bound.
TEST_F(WidgetBoundsTest, LargeFileReadEightTimesStaysWithinTheMemoryBound) {
  const std::string script =
      "async function readAll(i) {"
      "  const reader = (await fetch('big.bin?' + i)).body.getReader();"
      "  let n = 0;"
      "  for (;;) {"
      "    const {done, value} = await reader.read();"
      "    if (done) return n;"
      "    n += value.length;"
      "  }"
      "}"
      "Promise.all([0, 1, 2, 3, 4, 5, 6, 7].map(readAll))"
      "  .then(all => record('lengths', all.join(' ')),"
      "        e => record('lengths', 'failed: ' + e))"
      "  .then(done);";
  installWithEngine(widgetPackage(
      "big", "",
      {{"index.html", recorderPage("", script)}, {"big.bin", "placeholder"}}));
  // Sparse: the test's disk holds none of it.
  const std::string big = root + "widget_big/big.bin";
  const off_t size = 300L << 20;
  ASSERT_EQ(0, truncate(big.c_str(), size));
  // 2.4 GB pass from the browser to the page: half a minute on a quiet
  // machine, and more than the usual load time-out on a busy one.
  deadline = std::chrono::seconds(900);
  Browse run = browse({"--exit-after-load", "widget://big/index.html"},
                      {{"WIDGET_BROWSER_STEPS", "wait:#done"},
                       {"WIDGET_BROWSER_PEAK_MEMORY", "1"},
                       {"WIDGET_BROWSER_LOAD_TIMEOUT", "600"}});
  unlink(big.c_str());
  ASSERT_TRUE(run.exited) << run.err;
  ASSERT_EQ(0, run.status) << run.out << run.err;
  const std::string length = std::to_string(size);
  std::string expected;
  for (int i = 0; i < 8; ++i) expected += (i ? " " : "") + length;
  EXPECT_EQ(expected, results(run).value("lengths", "")) << text(run);
  const std::string marker = "peak-memory-kib: ";
  const size_t at = run.out.find(marker);
  ASSERT_NE(std::string::npos, at) << run.out;
  const long peakKib = atol(run.out.c_str() + at + marker.size());
  RecordProperty("peak_memory_kib", std::to_string(peakKib));
  EXPECT_GT(peakKib, 0);
  EXPECT_LT(peakKib, 200L * 1024) << "peak of the browser's process";
}

// A name with "_" takes the hexadecimal authority, which a
// Content-Security-Policy can name: the widget loads its own script and
// files, and WebKit has nothing to say about its policy.
TEST_F(WidgetBoundsTest, NameWithUnderscoreGetsAValidOrigin) {
  // The engine names the widget of my_big_clock.wgt "my_big-clock".
  const std::string name = "my_big-clock";
  const std::string authority = "x-6d795f6269672d636c6f636b";
  const std::string launch = installWithEngine(widgetPackage(
      "my_big_clock", "",
      {{"index.html",
        recorderPage("<script src=\"own.js\"></script>",
                     "fetch('widget://' + location.host + '/data.txt')"
                     "  .then(r => r.text()).then(t => record('fetch', t),"
                     "                            () => record('fetch', 'failed'))"
                     "  .then(() => { record('script', window.ownScript);"
                     "                done(); });")},
       {"own.js", "window.ownScript = 'ran';"},
       {"data.txt", "own data"}}));
  ASSERT_EQ("file://" + root + "widget_" + name + "/index.html", launch);
  Browse run = browse({"--exit-after-load", launch},
                      {{"WIDGET_BROWSER_STEPS", "wait:#done"}});
  ASSERT_EQ(0, run.status) << run.out << run.err;
  EXPECT_EQ("widget://" + authority + "/index.html", url(run));
  const nlohmann::json found = results(run);
  EXPECT_EQ("own data", found.value("fetch", "")) << text(run);
  EXPECT_EQ("ran", found.value("script", "")) << text(run);
  EXPECT_EQ(std::string::npos, run.err.find("Content Security Policy"))
      << run.err;
  EXPECT_EQ(std::string::npos, run.err.find("refused")) << run.err;
}

}  // namespace
