// SPDX-License-Identifier: Apache-2.0
// PackageFiles is what a WidgetConfig asks about the widget's own files while
// it is filled: whether a file is there, its content to look at, and the
// content type its name or its first bytes say. The installer answers for
// the widget it is unpacking; the record never reaches a file by itself.
#ifndef WIDGETENGINE_PACKAGEFILES_H_
#define WIDGETENGINE_PACKAGEFILES_H_

#include <cstdio>
#include <string>

class PackageFiles {
 public:
  // The media type the file name's extension stands for, or "unknown".
  virtual std::string getMimeTypeFromExtension(const std::string& fileName) = 0;
  // The media type an open file's first bytes show, or "unknown".
  virtual std::string getMimeTypeFromContent(FILE* file) = 0;
  // The widget's file opened for reading; null when it is not there or the
  // name would lead out of the widget. The caller closes it.
  virtual FILE* openWidgetFile(const std::string& fileName) = 0;
  // Whether openWidgetFile would give the file.
  virtual bool widgetFileExists(const std::string& fileName) = 0;

 protected:
  // Whoever answers owns itself; no one deletes it through this interface.
  ~PackageFiles() = default;
};

#endif  // WIDGETENGINE_PACKAGEFILES_H_
