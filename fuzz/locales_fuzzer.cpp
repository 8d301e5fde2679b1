// SPDX-License-Identifier: Apache-2.0
// Arbitrary bytes as the host's two strings: the part before the first NUL
// (or all of it) as an address, the rest as accept-language. The locale list
// is computed from the second, and mapResource and isWidget answer both
// against an installed localized widget.
#include <widgetengine/WidgetEngineDelegate.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "engine/UserAgentLocales.h"
#include "fuzz/FuzzSandbox.h"
#include "testing/ZipBuilder.h"

namespace {

std::string installSample(FuzzSandbox& sandbox, WebWidgetEngineDelegate* engine) {
  ZipBuilder zip;
  zip.addFile("config.xml",
              "<widget xmlns=\"http://www.w3.org/ns/widgets\"><name>S</name>"
              "<name xml:lang=\"fr\">F</name></widget>")
      .addFile("index.html", "<p>x</p>")
      .addFile("style.css", "p{}")
      .addFile("locales/fr/index.html", "<p>fr</p>")
      .addFile("locales/fr-ca/style.css", "p{}")
      .addFile("locales/de/index.html", "<p>de</p>");
  const std::string package = sandbox.path() + "/sample.wgt";
  if (!zip.write(package)) abort();
  char* launch = engine->receiveWidget(("file://" + package).c_str(), nullptr);
  if (!launch) abort();
  std::string url = launch;
  free(launch);
  return url;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static FuzzSandbox sandbox;
  static RefPtr<WebWidgetEngineDelegate> engine =
      WidgetEngineDelegate::createInstance();
  static const std::string launch = installSample(sandbox, engine.get());
  static const std::string base = launch.substr(0, launch.rfind('/') + 1);

  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const size_t nul = bytes.find('\0');
  std::string url = bytes.substr(0, nul);
  const std::string language =
      nul == std::string::npos ? std::string() : bytes.substr(nul + 1);
  const std::string languageText = language.substr(0, language.find('\0'));

  UserAgentLocales locales(languageText);
  if (locales.getLocales().size() >
      UserAgentLocales::kMostTags * (UserAgentLocales::kLongestTag + 1)) {
    abort();
  }
  // The address as given, and inside the widget's directory.
  for (const std::string& address : {url, base + url}) {
    engine->isWidget(address.c_str());
    char* mapped = engine->mapResource(address.c_str(), languageText.c_str());
    if (mapped && std::string(mapped).compare(0, base.size(), base) != 0) abort();
    free(mapped);
  }
  return 0;
}
