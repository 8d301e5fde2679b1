// SPDX-License-Identifier: Apache-2.0
#include "config/WidgetConfig.h"

#include <iostream>

#include "base/EngineOutput.h"
#include "config/PackageFiles.h"

namespace {

// Allocates the optional string on first use and assigns into it afterwards.
void assign(std::unique_ptr<std::string>& field, const std::string& text) {
  if (field) {
    *field = text;
  } else {
    field.reset(new std::string(text));
  }
}

void assignPositive(std::unique_ptr<int32_t>& field, int32_t n) {
  if (n <= 0) return;
  if (field) {
    *field = n;
  } else {
    field.reset(new int32_t(n));
  }
}

bool isAsciiLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isAsciiDigit(char c) { return c >= '0' && c <= '9'; }

// Writes "<label><language>(lang=<text>)" per entry: the key comes first.
void printLocalized(const char* label, const WidgetConfig::LocalizedMap& map) {
  for (const auto& entry : map) {
    engineOut() << label << entry.first << "(lang=" << entry.second << ")"
              << std::endl;
  }
}

}  // namespace

WidgetConfig::WidgetConfig(PackageFiles* files)
    : installer(nullptr),
      files(files),
      contentEncoding(new std::string("UTF-8")),
      contentType(new std::string("text/html")) {}

WidgetConfig::~WidgetConfig() {}

void WidgetConfig::setAuthorEmail(const std::string& text) {
  assign(authorEmail, text);
}

void WidgetConfig::setAuthor(const std::string& text) { assign(author, text); }

void WidgetConfig::setContentEncoding(const std::string& text) {
  assign(contentEncoding, text);
}

void WidgetConfig::setConfigPath(const std::string& text) {
  assign(configPath, text);
}

void WidgetConfig::setSpareText(const std::string& text) {
  assign(spareText, text);
}

void WidgetConfig::setVersion(const std::string& text) {
  assign(version, text);
}

void WidgetConfig::setId(const std::string& text) {
  if (isValidIRI(text)) assign(id, text);
}

void WidgetConfig::setAuthorHref(const std::string& text) {
  if (isValidIRI(text)) assign(authorHref, text);
}

void WidgetConfig::setUpdateDescription(const std::string& text) {
  if (!updateDescription && isValidIRI(text)) assign(updateDescription, text);
}

void WidgetConfig::setWidth(int32_t n) { assignPositive(width, n); }

void WidgetConfig::setHeight(int32_t n) { assignPositive(height, n); }

void WidgetConfig::setName(const std::string& language,
                           const std::string& text) {
  names.insert(std::make_pair(language, text));
}

void WidgetConfig::setShortName(const std::string& language,
                                const std::string& text) {
  shortNames.insert(std::make_pair(language, text));
}

void WidgetConfig::setDescription(const std::string& language,
                                  const std::string& text) {
  descriptions.insert(std::make_pair(language, text));
}

void WidgetConfig::setLicense(const std::string& language,
                              const std::string& text) {
  licenses.insert(std::make_pair(language, text));
}

void WidgetConfig::setLicenseHref(const std::string& language,
                                  const std::string& text) {
  licenseHrefs.insert(std::make_pair(language, text));
}

int WidgetConfig::addFeature(const WidgetFeatureInfo& feature) {
  features.push_back(feature);
  return 1;
}

int WidgetConfig::addPreference(const WidgetPreferenceInfo& preference) {
  preferences.push_back(preference);
  return 1;
}

int WidgetConfig::addViewMode(const std::string& mode) {
  static const char* const kModes[] = {"application", "floating",
                                       "fullscreen", "mini", "all"};
  for (const char* known : kModes) {
    if (mode == known) {
      viewModes.push_back(mode);
      return 1;
    }
  }
  return 0;
}

int WidgetConfig::addIcon(const WidgetIconInfo& icon) {
  for (const WidgetIconInfo& present : icons) {
    if (present.getSrc() == icon.getSrc()) return 0;
  }
  const std::string declared =
      files->getMimeTypeFromExtension(icon.getSrc());
  // A file whose name says nothing about its type is taken on trust, without
  // even checking that it exists.
  if (declared == "unknown") {
    icons.push_back(icon);
    return 1;
  }
  FILE* file = files->openWidgetFile(icon.getSrc());
  if (!file) return 0;
  // SVG has no signature to check; an SVG file that opens is enough.
  if (declared == "image/svg+xml") {
    fclose(file);
    icons.push_back(icon);
    return 1;
  }
  const std::string sniffed = files->getMimeTypeFromContent(file);
  fclose(file);
  if (sniffed != declared) return 0;
  icons.push_back(icon);
  return 1;
}

int WidgetConfig::setStartFile(const std::string& name) {
  if (!files->widgetFileExists(name)) return 0;
  assign(startFile, name);
  return 1;
}

int WidgetConfig::trySniffedStartFile(const std::string& name) {
  if (files->getMimeTypeFromExtension(name) == "unknown") return 0;
  return setStartFile(name);
}

bool WidgetConfig::isValidIRI(const std::string& text) {
  const size_t colon = text.find(':');
  if (colon == std::string::npos || colon == 0) return false;
  if (!isAsciiLetter(text[0])) return false;
  for (size_t i = 1; i < colon; ++i) {
    const char c = text[i];
    if (!isAsciiLetter(c) && !isAsciiDigit(c) && c != '+' && c != '-' &&
        c != '.') {
      return false;
    }
  }
  return true;
}

void WidgetConfig::print() const {
  if (id) engineOut() << "Id: " << *id << std::endl;
  if (version) engineOut() << "Version: " << *version << std::endl;
  if (height) engineOut() << "Height: " << *height << std::endl;
  if (width) engineOut() << "Width: " << *width << std::endl;
  if (startFile) engineOut() << "Start file: " << *startFile << std::endl;

  printLocalized("Short name: ", shortNames);
  printLocalized("Name : ", names);
  printLocalized("Description : ", descriptions);

  if (author) engineOut() << "Author: " << *author << std::endl;
  if (authorHref) engineOut() << "\tHref: " << *authorHref << std::endl;
  if (authorEmail) engineOut() << "\tEmail: " << *authorEmail << std::endl;

  printLocalized("Licence : ", licenses);
  printLocalized("Licence Href : ", licenseHrefs);

  engineOut() << "View modes: ";
  for (const std::string& mode : viewModes) engineOut() << mode << " ";
  engineOut() << std::endl;
  engineOut() << "Icons: ";
  for (const WidgetIconInfo& icon : icons) engineOut() << icon.getSrc() << " ";
  engineOut() << std::endl;

  engineOut() << "Preferences:" << std::endl;
  for (const WidgetPreferenceInfo& preference : preferences) {
    engineOut() << "\t" << preference.getName() << ": " << preference.getValue()
              << std::endl;
  }
  engineOut() << "Features:" << std::endl;
  for (const WidgetFeatureInfo& feature : features) {
    engineOut() << "\t" << feature.getName() << ": "
              << (feature.isRequired() ? "required" : "not required")
              << std::endl;
    for (const auto& param : feature.getParams()) {
      engineOut() << "\t\t" << param.first << ": " << param.second << std::endl;
    }
  }
}
