// SPDX-License-Identifier: Apache-2.0
// Cost of an update check that the server answers 304, as a fleet pays it
// on most days: widgetengine_check_update() of an installed widget (the
// registry opened, config.xml read, one conditional GET, the kept
// description read again) against its twin in the same run, a bare libcurl
// GET of the same description with the same If-None-Match, also answered
// 304, on a connection of its own each time as the check's is.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <sys/stat.h>
#include <widgetengine/WidgetEngineDelegate.h>
#include <widgetengine/WidgetEngineExtensions.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench/BenchReport.h"
#include "testing/HttpServer.h"
#include "testing/TempDir.h"
#include "testing/ZipBuilder.h"

namespace {

const char kDescriptionPath[] = "/u/clock.xml";
const char kEtag[] = "\"clock-1.1\"";

HttpServer* server = nullptr;

size_t discard(char*, size_t size, size_t count, void*) { return size * count; }

void BM_UpdateCheck304(benchmark::State& state) {
  for (auto _ : state) {
    char* answer = widgetengine_check_update("clock", "en");
    if (answer == nullptr || strstr(answer, "\"notModified\":true") == nullptr) {
      state.SkipWithError(answer ? answer : "no answer");
      free(answer);
      break;
    }
    free(answer);
  }
}

void BM_CurlConditionalGet(benchmark::State& state) {
  const std::string url = server->url(kDescriptionPath);
  const std::string ifNoneMatch = std::string("If-None-Match: ") + kEtag;
  for (auto _ : state) {
    CURL* curl = curl_easy_init();
    curl_slist* headers = curl_slist_append(nullptr, ifNoneMatch.c_str());
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, discard);
    long status = 0;
    if (curl_easy_perform(curl) == CURLE_OK)
      curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    if (status != 304) {
      state.SkipWithError("the twin was not answered 304");
      break;
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  TempDir dir;
  const std::string root = dir.path() + "/widgets/";
  const std::string conf = dir.path() + "/conf/";
  mkdir(root.c_str(), 0755);
  mkdir((root + "tmp").c_str(), 0755);
  mkdir(conf.c_str(), 0755);
  setenv("WIDGET_PATH", root.c_str(), 1);
  setenv("YRA_DATA_PATH", conf.c_str(), 1);
  widgetengine_set_log_destination(WIDGETENGINE_LOG_TO_QUIET);

  HttpServer httpServer;
  server = &httpServer;
  HttpServer::Resource description;
  description.body =
      "<update-info xmlns=\"http://www.w3.org/ns/widgets\" version=\"1.1\" "
      "src=\"clock-1.1.wgt\"><details>Faster start.</details>"
      "<details xml:lang=\"fr\">Démarrage plus rapide.</details></update-info>";
  description.etag = kEtag;
  httpServer.serveResource(kDescriptionPath, description);

  ZipBuilder zip;
  zip.addFile("config.xml",
              "<widget xmlns=\"http://www.w3.org/ns/widgets\" version=\"1.0\">"
              "<name>Clock</name><update-description href=\"" +
                  httpServer.url(kDescriptionPath) + "\"/></widget>");
  zip.addFile("index.html", "<p>clock</p>");
  const std::string package = dir.path() + "/clock.wgt";
  if (!zip.write(package)) return 1;
  httpServer.serveFile("/w/clock.wgt", package);
  RefPtr<WebWidgetEngineDelegate> engine = WidgetEngineDelegate::createInstance();
  char* launch = engine->receiveWidget(httpServer.url("/w/clock.wgt").c_str(), nullptr);
  if (launch == nullptr) {
    fprintf(stderr, "the widget could not be installed\n");
    return 1;
  }
  free(launch);
  // The first check fetches the description and keeps it; every later one
  // is answered 304.
  free(widgetengine_check_update("clock", "en"));

  for (int round = 0; round < 5; ++round) {
    benchmark::RegisterBenchmark("BM_UpdateCheck304", BM_UpdateCheck304)
        ->MinTime(0.3)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("BM_CurlConditionalGet", BM_CurlConditionalGet)
        ->MinTime(0.3)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchreport::MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  printf("\nMedians of 5 rounds (real time); the server sent %d description bodies:\n",
         httpServer.bodiesSent(kDescriptionPath));
  const bool met = benchreport::printAtMost(reporter, "BM_UpdateCheck304",
                                            "BM_CurlConditionalGet", 5.0);
  return met && httpServer.bodiesSent(kDescriptionPath) == 1 ? 0 : 1;
}
