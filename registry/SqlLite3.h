// SPDX-License-Identifier: Apache-2.0
// SqlLite3 is one connection to the widget registry, the SQLite file
// "widget.db": construction opens it and makes sure its three tables exist,
// isOpen() tells whether it is usable, destruction closes it. Every statement
// that the engine runs against the registry is an operation of this class;
// values are bound, and the two hot lookups are served from a LookupCache.
#ifndef WIDGETENGINE_SQLLITE3_H_
#define WIDGETENGINE_SQLLITE3_H_

#include <time.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "registry/WidgetsData.h"

struct sqlite3;

class SqlLite3 {
 public:
  // Opens (or creates) the registry at databasePath() and checks its tables.
  SqlLite3();
  ~SqlLite3();

  SqlLite3(const SqlLite3&) = delete;
  SqlLite3& operator=(const SqlLite3&) = delete;

  // $YRA_DATA_PATH (or the built-in default directory) + "widget.db", glued
  // without a separator. A relative path stays relative: it is opened from
  // the working directory the process has at the time.
  static std::string databasePath();

  // Removes the shared change counters that killed processes of this user
  // left for registries that are gone; the number removed.
  static int reclaimCounters();

  bool isOpen();
  // Tries again to open a registry that could not be opened (missing,
  // locked, unreadable at the time); true when it is open now.
  bool reopen();
  // SQLite's message and extended code of the last failure, for reason lines.
  std::string lastError() const;

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
  // A job that holds the registry against readers too, from its start:
  // until it ends, every other connection's read waits.
  bool beginExclusiveJob();
  // Inside a job: tells every engine's lookups, before the commit, that the
  // registry is about to change, so that they read it again, waiting for
  // the commit, rather than answer from memory until they notice it.
  void announceChange();
  // Ends the job, undoing its writes.
  void rollbackJob();
  // Inside a job: the widget's Widgets row takes what widget says of its
  // package (its id, name, addresses and directory stay), and its file and
  // text rows go, its new file rows are written. False, the job given up by
  // the caller, when a statement failed.
  bool replaceWidgetRows(int widgetId, const WidgetsData& widget);
  // The highest file row id so far; rows written later have higher ids.
  bool lastFileRow(int64_t* id);
  // Whether a file row of the widget was written after the one numbered
  // mark; *ok tells whether the registry could be read.
  bool hasFilesWrittenAfter(int widgetId, int64_t mark, bool* ok);
  // Deletes the file and text rows left by removed widgets whose ids are
  // about to be given again (see statements::kDeleteFilesOfRemovedWidgets).
  bool forgetRowsOfRemovedWidgets();

  // What an installation under a signature policy learnt of the package's
  // signatures, kept beside the widget's rows.
  struct SignatureRow {
    std::string policy;  // "report" or "require"
    bool isSigned = false;
    bool valid = false;
    std::string authorSubject;
    std::string authorFingerprint;
    std::string anchor;
    std::string record;  // JSON, as widgetengine_signature_info() gives it
  };
  // Writes row for the widget, inside the running job, making the table
  // first when the registry has none; false when it could not.
  bool writeSignatures(int widgetId, const SignatureRow& row);
  // The record kept for the widget called name. -1 when the registry could
  // not be read, 0 when no widget has the name, 1 when one has it but
  // nothing was kept, 2 with *record filled.
  int readSignatures(const std::string& name, std::string* record);
  // Forgets the record kept for the widget called name, inside the running
  // job; true also when there is none.
  bool forgetSignatures(const std::string& name);
  // The last full answer a widget's update description gave: what a
  // conditional request sends back, and what a 304 stands for.
  struct UpdateAnswer {
    std::string etag;
    std::string lastModified;
    std::string document;
  };
  // The answer kept for the widget and href; false when none is.
  bool readUpdateAnswer(int widgetId, const std::string& href,
                        UpdateAnswer* answer);
  // Keeps answer for the widget and href in a transaction of its own,
  // making the table first when the registry has none, and forgets the
  // answers of widgets that are gone; false when it could not.
  bool keepUpdateAnswer(int widgetId, const std::string& href,
                        const UpdateAnswer& answer);

  // Reads. Records are newly allocated; the caller deletes them.
  std::vector<WidgetsData*> selectWidgets(std::string sql);
  // ok, when given, tells whether the read ran to its end: a read that
  // could not run (a lock held too long, an unreadable file) is not "none".
  std::vector<WidgetsData*> selectAllWidgets(bool* ok = nullptr);
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
  // Whether an installation under a signature policy made its table.
  bool hasSignaturesTable();
  // Runs one statement with name bound as ?1; the SQLite result code.
  int runWithName(const char* sql, const std::string& name);
  // Opens a job with begin, a statement that takes a lock at once.
  bool beginLockedJob(const char* begin);
  int insertWidgetRows(WidgetsData* widget, bool ownTransaction);
  std::vector<WidgetsData*> readWidgets(int statement, const std::string* key,
                                        bool* complete = nullptr);
};

#endif  // WIDGETENGINE_SQLLITE3_H_
