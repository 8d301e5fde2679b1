// SPDX-License-Identifier: Apache-2.0
// What the engine answers a host about a widget's web data, as strings the
// tests compare: the installation's identity and its folders.
#ifndef WIDGETENGINE_TESTING_WEBDATAFOLDER_H_
#define WIDGETENGINE_TESTING_WEBDATAFOLDER_H_

#include <cstdlib>
#include <string>

#include <widgetengine/WidgetEngineExtensions.h>

namespace webdatatest {

// Takes a string the engine made; "" for none.
inline std::string taken(char* text) {
  const std::string result = text ? text : "";
  free(text);
  return result;
}

inline std::string installationId(const char* name) {
  return taken(widgetengine_installation_id(name));
}

// The folder of kind of the installed widget name.
inline std::string folder(const char* name, int kind) {
  return taken(widgetengine_web_data_folder(name, kind));
}

}  // namespace webdatatest

#endif  // WIDGETENGINE_TESTING_WEBDATAFOLDER_H_
