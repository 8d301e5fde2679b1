// SPDX-License-Identifier: Apache-2.0
// WidgetConfig is a widget's config.xml in memory: identity, size, localized
// texts, author, icons, preferences, features and the start file. The parser
// fills it; the installer reads it. Absent optional values are null pointers.
// What it needs to know about the widget's files it asks a PackageFiles.
#ifndef WIDGETENGINE_WIDGETCONFIG_H_
#define WIDGETENGINE_WIDGETCONFIG_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "config/WidgetFeatureInfo.h"
#include "config/WidgetIconInfo.h"
#include "config/WidgetPreferenceInfo.h"

class PackageFiles;
class WidgetInstaller;

class WidgetConfig {
 public:
  typedef std::map<std::string, std::string> LocalizedMap;

  // files opens and types the widget's files for the record; the record
  // has no installer.
  explicit WidgetConfig(PackageFiles* files);
  // The installer of the widget, which hands over its PackageFiles. Defined
  // beside the installer, so that this room needs nothing from the rooms
  // that use it.
  explicit WidgetConfig(WidgetInstaller* installer);
  ~WidgetConfig();

  WidgetConfig(const WidgetConfig&) = delete;
  WidgetConfig& operator=(const WidgetConfig&) = delete;

  WidgetInstaller* getInstaller() const { return installer; }
  PackageFiles* getFiles() const { return files; }
  const std::string* getAuthorEmail() const { return authorEmail.get(); }
  const std::string* getAuthorHref() const { return authorHref.get(); }
  const std::string* getAuthor() const { return author.get(); }
  const std::string* getContentEncoding() const { return contentEncoding.get(); }
  const std::string* getContentType() const { return contentType.get(); }
  const std::string* getConfigPath() const { return configPath.get(); }
  const std::string* getId() const { return id.get(); }
  const std::string* getSpareText() const { return spareText.get(); }
  const std::string* getVersion() const { return version.get(); }
  const std::string* getStartFile() const { return startFile.get(); }
  // Where the widget's update description document is (update-description's
  // href); null when config.xml names none.
  const std::string* getUpdateDescription() const {
    return updateDescription.get();
  }
  const LocalizedMap& getNames() const { return names; }
  const LocalizedMap& getShortNames() const { return shortNames; }
  const LocalizedMap& getDescriptions() const { return descriptions; }
  const LocalizedMap& getLicenses() const { return licenses; }
  const LocalizedMap& getLicenseHrefs() const { return licenseHrefs; }
  const int32_t* getWidth() const { return width.get(); }
  const int32_t* getHeight() const { return height.get(); }
  const std::vector<WidgetFeatureInfo>& getFeatures() const { return features; }
  const std::vector<WidgetIconInfo>& getIcons() const { return icons; }
  const std::vector<WidgetPreferenceInfo>& getPreferences() const {
    return preferences;
  }
  const std::vector<std::string>& getViewModes() const { return viewModes; }
  const std::vector<std::string>& getSpareList() const { return spareList; }

  void setAuthorEmail(const std::string& text);
  void setAuthor(const std::string& text);
  void setContentEncoding(const std::string& text);
  void setConfigPath(const std::string& text);
  void setSpareText(const std::string& text);
  void setVersion(const std::string& text);
  // Stored only when the text is a valid IRI.
  void setId(const std::string& text);
  void setAuthorHref(const std::string& text);
  // Stored only when the text is a valid IRI; the first one stored is kept.
  void setUpdateDescription(const std::string& text);
  // Stored only when n > 0.
  void setWidth(int32_t n);
  void setHeight(int32_t n);

  // The first text stored for a language is kept.
  void setName(const std::string& language, const std::string& text);
  void setShortName(const std::string& language, const std::string& text);
  void setDescription(const std::string& language, const std::string& text);
  void setLicense(const std::string& language, const std::string& text);
  void setLicenseHref(const std::string& language, const std::string& text);

  int addFeature(const WidgetFeatureInfo& feature);
  int addPreference(const WidgetPreferenceInfo& preference);
  int addViewMode(const std::string& mode);
  // 1 when the icon was added, 0 when refused.
  int addIcon(const WidgetIconInfo& icon);
  // 1 when the file exists in the widget and was stored as start file.
  int setStartFile(const std::string& name);
  // As setStartFile, for a name whose extension has a known media type.
  int trySniffedStartFile(const std::string& name);

  static bool isValidIRI(const std::string& text);
  void print() const;

 private:
  WidgetInstaller* installer;
  PackageFiles* files;
  std::unique_ptr<std::string> authorEmail;
  std::unique_ptr<std::string> authorHref;
  std::unique_ptr<std::string> author;
  std::unique_ptr<std::string> contentEncoding;
  std::unique_ptr<std::string> contentType;
  std::unique_ptr<std::string> configPath;
  std::unique_ptr<std::string> id;
  std::unique_ptr<std::string> spareText;
  std::unique_ptr<std::string> version;
  std::unique_ptr<std::string> startFile;
  std::unique_ptr<std::string> updateDescription;
  LocalizedMap names;
  LocalizedMap shortNames;
  LocalizedMap descriptions;
  LocalizedMap licenses;
  LocalizedMap licenseHrefs;
  std::unique_ptr<int32_t> width;
  std::unique_ptr<int32_t> height;
  std::vector<WidgetFeatureInfo> features;
  std::vector<WidgetIconInfo> icons;
  std::vector<WidgetPreferenceInfo> preferences;
  std::vector<std::string> viewModes;
  std::vector<std::string> spareList;
};

#endif  // WIDGETENGINE_WIDGETCONFIG_H_
