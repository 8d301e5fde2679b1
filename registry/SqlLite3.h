// SPDX-License-Identifier: Apache-2.0
// SqlLite3 is one connection to the widget registry, the SQLite file
// "widget.db": construction opens it and makes sure its three tables exist,
// isOpen() tells whether it is usable, destruction closes it. Every statement
// that the engine runs against the registry is an operation of this class;
// values are bound, and the two hot lookups are served from a LookupCache.
#ifndef WIDGETENGINE_SQLLITE3_H_
#define WIDGETENGINE_SQLLITE3_H_

#include <time.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/ToolsExport.h"
#include "registry/WidgetsData.h"

struct sqlite3;

class SqlLite3 {
 public:
  // Opens (or creates) the registry at databasePath() and checks its tables.
  WIDGETENGINE_TOOLS_EXPORT SqlLite3();
  WIDGETENGINE_TOOLS_EXPORT ~SqlLite3();

  SqlLite3(const SqlLite3&) = delete;
  SqlLite3& operator=(const SqlLite3&) = delete;

  // $YRA_DATA_PATH (or the built-in default directory) + "widget.db", glued
  // without a separator. A relative path stays relative: it is opened from
  // the working directory the process has at the time.
  WIDGETENGINE_TOOLS_EXPORT static std::string databasePath();

  // Removes the shared change counters that killed processes of this user
  // left for registries that are gone; the number removed.
  WIDGETENGINE_TOOLS_EXPORT static int reclaimCounters();

  WIDGETENGINE_TOOLS_EXPORT bool isOpen();
  // Tries again to open a registry that could not be opened (missing,
  // locked, unreadable at the time); true when it is open now.
  bool reopen();
  // SQLite's message and extended code of the last failure, for reason lines.
  WIDGETENGINE_TOOLS_EXPORT std::string lastError() const;

  // Runs one statement text; the SQLite result code (0 = success). The result
  // is left in getColumnNames() and getValues() (row after row).
  int query(std::string sql);
  const std::vector<std::string>& getColumnNames() const;
  const std::vector<std::string>& getValues() const;

  bool checkStructure();
  bool checkTable(const std::string& table, const std::string& createSql);

  // Writes. insertWidget: the new id (> 0), -1 when the Widgets row was
  // refused, 0 when the id could not be read.
  int insertWidget(WidgetsData* widget);
  int insertLocalizedItems(int widgetId, const std::string& item,
                           const std::map<std::string, std::string>& texts);
  // Removes the Widgets row called name; the SQLite result code.
  int deleteWidgetByName(const std::string& name);

  // The identity of the installation of the widget called name (see
  // SqlLite3Installations.cpp); with create, made for an installed widget
  // that has none yet. Empty when there is none, or it cannot be made.
  std::string installationToken(const std::string& name, bool create);
  // The tokens of installations whose widget is gone.
  std::vector<std::string> retiredInstallations();
  // Forgets a removed installation once nothing of it is left.
  bool forgetInstallation(const std::string& token);

  // Groups a job's writes into one transaction. A statement that fails inside
  // still fails alone. endJob() commits; false when nothing was committed
  // (the commit failed, or SQLite had already given the transaction up).
  void beginJob();
  bool endJob();
  // A job that holds the write lock from its start; false when it could not
  // be had within the busy timeout.
  bool beginWriteJob();
  // Ends the job, undoing its writes.
  void rollbackJob();
  // Deletes the file and text rows left by removed widgets whose ids are
  // about to be given again (see statements::kDeleteFilesOfRemovedWidgets).
  bool forgetRowsOfRemovedWidgets();

  // Reads. Records are newly allocated; the caller deletes them.
  std::vector<WidgetsData*> selectWidgets(std::string sql);
  // ok, when given, tells whether the read ran to its end: a read that
  // could not run (a lock held too long, an unreadable file) is not "none".
  WIDGETENGINE_TOOLS_EXPORT std::vector<WidgetsData*> selectAllWidgets(bool* ok = nullptr);
  std::vector<WidgetsData*> selectWidgetsByName(const std::string& name);
  std::vector<WidgetsData*> selectWidgetsBySourceURL(const std::string& url,
                                                     bool* ok = nullptr);
  // Whether a registered widget has this directory.
  bool isStoragePathTaken(const std::string& storagePath, bool* ok = nullptr);

  int getNameByLaunchURL(const std::string& launchURL, std::string& name);
  // The same lookup for an address held as bytes, so that a caller holding
  // a C string need not copy it first.
  int getNameByLaunchURL(const char* launchURL, size_t length,
                         std::string& name);
  int findLocalizedResource(std::string& url, std::vector<std::string> locales);
  int getLocalizedItem(int widgetId, const std::string& item,
                       const std::vector<std::string>& locales,
                       std::string& value);
  void loadLocalizedItems(WidgetsData* widget, std::vector<std::string> locales);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;

  void open();
  // Returns the monotonic second it read.
  time_t followReplacedFile();
  int findInCache(std::string& url, const std::vector<std::string>& locales,
                  time_t second);
  void ensureIndexes();
  int insertWidgetRows(WidgetsData* widget, bool ownTransaction);
  std::vector<WidgetsData*> readWidgets(int statement, const std::string* key,
                                        bool* complete = nullptr);
};

#endif  // WIDGETENGINE_SQLLITE3_H_
