// SPDX-License-Identifier: Apache-2.0
// engine_driver runs one engine in a process of its own for the fault tests,
// through the library's public interface only, so that tests can race
// processes against each other, kill them at any moment and hold locks
// against them.
//
//   engine_driver install URL            prints the launch URL or "null"
//   engine_driver remove NAME            prints the status
//   engine_driver is-widget URL N [STOP] calls isWidget at least N times (and
//                                        until the file STOP exists), prints
//                                        "calls=C wrong=W" (W: answers not 1)
//   engine_driver cycle URL NAME N       installs and removes N times
//   engine_driver watch URL MS [READY]   calls isWidget, mapResource and
//                                        getAll for MS milliseconds after a
//                                        first round, and makes the file
//                                        READY once that round is done
//
// The engine's own lines go to standard output first; the answer is the last
// line. Exit status 0 when the engine answered as hoped, 1 otherwise.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <widgetengine/WidgetEngineDelegate.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

bool exists(const char* path) {
  struct stat status;
  return path && stat(path, &status) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  const std::string command = argv[1];
  RefPtr<WebWidgetEngineDelegate> engine = WidgetEngineDelegate::createInstance();
  if (!engine) return 3;

  if (command == "install") {
    char* launch = engine->receiveWidget(argv[2], nullptr);
    std::printf("%s\n", launch ? launch : "null");
    const bool ok = launch != nullptr;
    std::free(launch);
    return ok ? 0 : 1;
  }
  if (command == "remove") {
    const int status = engine->deleteWidget(argv[2], nullptr);
    std::printf("%d\n", status);
    return status == 1 ? 0 : 1;
  }
  if (command == "is-widget" && argc >= 4) {
    const long wanted = std::atol(argv[3]);
    const char* stop = argc >= 5 ? argv[4] : nullptr;
    long calls = 0;
    long wrong = 0;
    while (calls < wanted || (stop && !exists(stop))) {
      if (engine->isWidget(argv[2]) != 1) ++wrong;
      ++calls;
    }
    std::printf("calls=%ld wrong=%ld\n", calls, wrong);
    return wrong == 0 ? 0 : 1;
  }
  if (command == "cycle" && argc >= 5) {
    const int rounds = std::atoi(argv[4]);
    int failures = 0;
    for (int i = 0; i < rounds; ++i) {
      char* launch = engine->receiveWidget(argv[2], nullptr);
      if (!launch) ++failures;
      std::free(launch);
      if (engine->deleteWidget(argv[3], nullptr) != 1) ++failures;
    }
    std::printf("rounds=%d failures=%d\n", rounds, failures);
    return failures == 0 ? 0 : 1;
  }
  if (command == "watch" && argc >= 4) {
    const auto round = [&] {
      engine->isWidget(argv[2]);
      std::free(engine->mapResource(argv[2], "fr-FR,fr;q=0.8"));
      for (WidgetsData* widget : engine->getAll(nullptr)) delete widget;
    };
    round();
    long calls = 1;
    if (argc >= 5) {
      const int ready = open(argv[4], O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
      if (ready < 0) return 3;
      close(ready);
    }
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::milliseconds(std::atol(argv[3]));
    while (std::chrono::steady_clock::now() < end) {
      round();
      ++calls;
    }
    std::printf("calls=%ld\n", calls);
    return 0;
  }
  return 2;
}
