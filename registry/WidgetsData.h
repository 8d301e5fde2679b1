// SPDX-License-Identifier: Apache-2.0
// WidgetsData is one row of the registry's Widgets table in memory, with the
// widget's file list and its localized texts. The engine hands these records
// to the browser (getInfo, getAll), which deletes them when done.
#ifndef WIDGETENGINE_WIDGETSDATA_H_
#define WIDGETENGINE_WIDGETSDATA_H_

#include <string>
#include <vector>

#include <widgetengine/Export.h>

class WIDGETENGINE_EXPORT WidgetsData {
 public:
  // Every string and the file list empty, the three integers 0.
  WidgetsData();
  WidgetsData(int id, const std::string& sourceURL, const std::string& name,
              const std::string& launchURL, const std::string& storagePath,
              int width, int height, const std::string& version,
              const std::string& widgetName, const std::string& widgetShorName,
              const std::string& viewMode, const std::string& icon,
              const std::string& author, const std::string& authorEmail,
              const std::string& authorHref);
  ~WidgetsData();

  int getId() const;
  int getWidth() const;
  int getHeight() const;
  const std::string& getSourceURL() const;
  const std::string& getName() const;
  const std::string& getLaunchURL() const;
  const std::string& getStoragePath() const;
  const std::string& getVersion() const;
  const std::string& getWidgetName() const;
  const std::string& getWidgetShorName() const;
  const std::string& getViewMode() const;
  const std::string& getIcon() const;
  const std::string& getAuthor() const;
  const std::string& getAuthorEmail() const;
  const std::string& getAuthorHref() const;
  const std::string& getDescription() const;
  const std::string& getLicense() const;
  const std::string& getLicenseHref() const;
  const std::vector<std::string>& getFiles() const;

  void setId(int id);
  void setWidth(int width);
  void setHeight(int height);
  void setSourceURL(std::string sourceURL);
  void setName(std::string name);
  void setLaunchURL(std::string launchURL);
  void setStoragePath(std::string storagePath);
  void setVersion(std::string version);
  void setWidgetName(std::string widgetName);
  void setWidgetShorName(std::string widgetShorName);
  void setViewMode(std::string viewMode);
  void setIcon(std::string icon);
  void setAuthor(std::string author);
  void setAuthorEmail(std::string authorEmail);
  void setAuthorHref(std::string authorHref);
  void setDescription(std::string description);
  void setLicense(std::string license);
  void setLicenseHref(std::string licenseHref);
  void setFiles(std::vector<std::string> files);

 private:
  int id_;
  int width_;
  int height_;
  std::string sourceURL_;
  std::string name_;
  std::string launchURL_;
  std::string storagePath_;
  std::string version_;
  std::string widgetName_;
  std::string widgetShorName_;
  std::string viewMode_;
  std::string icon_;
  std::string author_;
  std::string authorEmail_;
  std::string authorHref_;
  std::string description_;
  std::string license_;
  std::string licenseHref_;
  std::vector<std::string> files_;
};

#endif  // WIDGETENGINE_WIDGETSDATA_H_
