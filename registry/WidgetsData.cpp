// SPDX-License-Identifier: Apache-2.0
#include "registry/WidgetsData.h"

#include <utility>

WidgetsData::WidgetsData() : id_(0), width_(0), height_(0) {}

WidgetsData::WidgetsData(int id, const std::string& sourceURL,
                         const std::string& name, const std::string& launchURL,
                         const std::string& storagePath, int width, int height,
                         const std::string& version,
                         const std::string& widgetName,
                         const std::string& widgetShorName,
                         const std::string& viewMode, const std::string& icon,
                         const std::string& author,
                         const std::string& authorEmail,
                         const std::string& authorHref)
    : id_(id),
      width_(width),
      height_(height),
      sourceURL_(sourceURL),
      name_(name),
      launchURL_(launchURL),
      storagePath_(storagePath),
      version_(version),
      widgetName_(widgetName),
      widgetShorName_(widgetShorName),
      viewMode_(viewMode),
      icon_(icon),
      author_(author),
      authorEmail_(authorEmail),
      authorHref_(authorHref) {}

WidgetsData::~WidgetsData() {}

int WidgetsData::getId() const { return id_; }
int WidgetsData::getWidth() const { return width_; }
int WidgetsData::getHeight() const { return height_; }
const std::string& WidgetsData::getSourceURL() const { return sourceURL_; }
const std::string& WidgetsData::getName() const { return name_; }
const std::string& WidgetsData::getLaunchURL() const { return launchURL_; }
const std::string& WidgetsData::getStoragePath() const { return storagePath_; }
const std::string& WidgetsData::getVersion() const { return version_; }
const std::string& WidgetsData::getWidgetName() const { return widgetName_; }
const std::string& WidgetsData::getWidgetShorName() const { return widgetShorName_; }
const std::string& WidgetsData::getViewMode() const { return viewMode_; }
const std::string& WidgetsData::getIcon() const { return icon_; }
const std::string& WidgetsData::getAuthor() const { return author_; }
const std::string& WidgetsData::getAuthorEmail() const { return authorEmail_; }
const std::string& WidgetsData::getAuthorHref() const { return authorHref_; }
const std::string& WidgetsData::getDescription() const { return description_; }
const std::string& WidgetsData::getLicense() const { return license_; }
const std::string& WidgetsData::getLicenseHref() const { return licenseHref_; }
const std::vector<std::string>& WidgetsData::getFiles() const { return files_; }

void WidgetsData::setId(int id) { id_ = id; }
void WidgetsData::setWidth(int width) { width_ = width; }
void WidgetsData::setHeight(int height) { height_ = height; }
void WidgetsData::setSourceURL(std::string sourceURL) {
  sourceURL_ = std::move(sourceURL);
}
void WidgetsData::setName(std::string name) {
  name_ = std::move(name);
}
void WidgetsData::setLaunchURL(std::string launchURL) {
  launchURL_ = std::move(launchURL);
}
void WidgetsData::setStoragePath(std::string storagePath) {
  storagePath_ = std::move(storagePath);
}
void WidgetsData::setVersion(std::string version) {
  version_ = std::move(version);
}
void WidgetsData::setWidgetName(std::string widgetName) {
  widgetName_ = std::move(widgetName);
}
void WidgetsData::setWidgetShorName(std::string widgetShorName) {
  widgetShorName_ = std::move(widgetShorName);
}
void WidgetsData::setViewMode(std::string viewMode) {
  viewMode_ = std::move(viewMode);
}
void WidgetsData::setIcon(std::string icon) {
  icon_ = std::move(icon);
}
void WidgetsData::setAuthor(std::string author) {
  author_ = std::move(author);
}
void WidgetsData::setAuthorEmail(std::string authorEmail) {
  authorEmail_ = std::move(authorEmail);
}
void WidgetsData::setAuthorHref(std::string authorHref) {
  authorHref_ = std::move(authorHref);
}
void WidgetsData::setDescription(std::string description) {
  description_ = std::move(description);
}
void WidgetsData::setLicense(std::string license) {
  license_ = std::move(license);
}
void WidgetsData::setLicenseHref(std::string licenseHref) {
  licenseHref_ = std::move(licenseHref);
}
void WidgetsData::setFiles(std::vector<std::string> files) {
  files_ = std::move(files);
}
