#include "install/WidgetInstaller.h"

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdlib>
#include <iostream>

#include "config/WidgetConfig.h"
#include "config/WidgetConfigParser.h"
#include "install/ContentType.h"
#include "install/Downloader.h"
#include "install/Extractor.h"
#include "registry/SqlLite3.h"

namespace {

// True when name, taken as a path relative to a widget's directory, has a
// ".." component and so could lead out of that directory.
bool leavesDirectory(const std::string& name) {
  size_t start = 0;
  while (start <= name.size()) {
    size_t end = name.find('/', start);
    if (end == std::string::npos) end = name.size();
    if (name.compare(start, end - start, "..") == 0) return true;
    start = end + 1;
  }
  return false;
}

}  // namespace

WidgetInstaller::WidgetInstaller(const std::string& sourceURL)
    : sourceURL(sourceURL), basePath(getWidgetBasePath()), installed(false) {
  buildStoragePath(sourceURL);
  config.reset(new WidgetConfig(this));
  database.reset(new SqlLite3());
}

WidgetInstaller::~WidgetInstaller() {
  clean();
  config.reset();
  database.reset();
}

std::string WidgetInstaller::getWidgetBasePath() {
  const char* value = getenv("WIDGET_PATH");
  std::string path = value ? value : WIDGETENGINE_WIDGET_ROOT;
  // An existing directory is the normal case; the result is not needed.
  mkdir(path.c_str(), 0755);
  return path;
}

void WidgetInstaller::buildStoragePath(const std::string& url) {
  const size_t slash = url.rfind('/');
  const size_t dot = url.rfind('.');
  const size_t start = slash == std::string::npos ? 0 : slash + 1;
  // Unsigned on purpose: without a dot after the last slash the length wraps
  // and the name runs to the end of the URL.
  const size_t length = dot - slash - 1;
  name = url.substr(start, length);

  const long underscore = static_cast<long>(name.rfind('_'));
  if (underscore > 0) name[underscore] = '-';

  storagePath = basePath + "widget_" + name + "/";
}

std::string WidgetInstaller::getLaunchURL() { return launchURL; }

std::string WidgetInstaller::getMimeTypeFromExtension(
    const std::string& fileName) {
  return ContentType::fromExtension(fileName);
}

std::string WidgetInstaller::getMimeTypeFromContent(FILE* file) {
  return ContentType::fromContent(file);
}

FILE* WidgetInstaller::openWidgetFile(const std::string& fileName) {
  if (leavesDirectory(fileName)) return nullptr;
  return fopen((storagePath + fileName).c_str(), "r");
}

bool WidgetInstaller::widgetFileExists(const std::string& fileName) {
  FILE* file = openWidgetFile(fileName);
  if (!file) return false;
  fclose(file);
  return true;
}

// run() and clean() live below.
int WidgetInstaller::run() { return 3; }

void WidgetInstaller::clean() {
  if (installed) {
    std::cout << std::endl << "[Cleaning...]" << std::endl << std::endl;
    parser.reset();
    extractor.reset();
    downloader.reset();
    installed = false;
  } else {
    std::cout << "Nothing to clean" << std::endl;
  }
}
