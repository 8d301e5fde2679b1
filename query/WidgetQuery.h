// SPDX-License-Identifier: Apache-2.0
// WidgetQuery is the job that answers the browser's read requests: the record
// of one installed widget, by name, with its texts localized for a locale
// list (getInfo), and the records of every installed widget (getAll). It opens
// a registry connection of its own for its life.
//
// It only reads, yet it is not part of registry/: to the browser it is the
// uninstaller's sibling, with the same run-once guard and clean step, and it
// writes the uninstaller's lines, which install/UnInstallerLines.h holds.
// registry/ may not reach up to install/ for them, so the query has a room
// of its own between engine/ and install/, from where that use points down.
#ifndef WIDGETENGINE_WIDGETQUERY_H_
#define WIDGETENGINE_WIDGETQUERY_H_

#include <memory>
#include <string>
#include <vector>

class SqlLite3;
class WidgetsData;

class WidgetQuery {
 public:
  // name is the widget getInfo describes; getAll ignores it.
  explicit WidgetQuery(const std::string& name);
  ~WidgetQuery();

  WidgetQuery(const WidgetQuery&) = delete;
  WidgetQuery& operator=(const WidgetQuery&) = delete;

  // The widget called name with its localized texts resolved for locales (the
  // "default" texts last), or null. The caller deletes the record.
  WidgetsData* getInfo(const std::vector<std::string>& locales);
  // Every registered widget, in the registry's order, without localized
  // texts; empty on failure. The caller deletes the records.
  std::vector<WidgetsData*> getAll();
  void clean();

 private:
  bool alreadyRun;
  std::string name;
  std::unique_ptr<SqlLite3> database;
};

#endif  // WIDGETENGINE_WIDGETQUERY_H_
