// SPDX-License-Identifier: Apache-2.0
// Every statement text that the engine runs against the registry. Nothing
// outside registry/ holds SQL; values are always bound to the numbered
// parameters, never pasted into these texts.
#ifndef WIDGETENGINE_STATEMENTS_H_
#define WIDGETENGINE_STATEMENTS_H_

namespace statements {

// The three tables, created exactly so on a fresh file.
constexpr const char kCreateWidgets[] =
    "CREATE TABLE Widgets(id INTEGER NOT NULL,sourceURL VARCHAR(255),"
    "name VARCHAR(255),launchURL VARCHAR(255),storagePath VARCHAR(255),"
    "width INTEGER,height INTEGER,version VARCHAR(255),"
    "widgetName VARCHAR(255),widgetShorName VARCHAR(255),"
    "viewMode VARCHAR(255),icon VARCHAR(255),author VARCHAR(255),"
    "authorEmail VARCHAR(255),authorHref VARCHAR(255),PRIMARY KEY (id),"
    "UNIQUE (name),UNIQUE (launchURL),UNIQUE(sourceURL),UNIQUE(storagePath))";
constexpr const char kCreateWidgetFiles[] =
    "CREATE TABLE widgetFiles (id INTEGER PRIMARY KEY AUTOINCREMENT NOT NULL,"
    "widgetID INTEGER NOT NULL,path VARCHAR(255) NOT NULL)";
constexpr const char kCreateLocalizedItem[] =
    "CREATE TABLE localizedItem (id INTEGER PRIMARY KEY AUTOINCREMENT NOT "
    "NULL,widgetID INTEGER NOT NULL,item TEXT NOT NULL,lang TEXT NOT NULL,"
    "value TEXT NOT NULL)";

// Table names as probed by the structure check (the first one in lower case;
// SQLite names are case-insensitive).
constexpr const char kWidgetsTable[] = "widgets";
constexpr const char kWidgetFilesTable[] = "widgetFiles";
constexpr const char kLocalizedItemTable[] = "localizedItem";

// Existence probe of a table: prefix + table name + suffix. Preparing needs
// the schema and stepping takes the read lock, so it fails exactly when a
// row count would, without reading a row.
constexpr const char kProbePrefix[] = "SELECT 1 FROM ";
constexpr const char kProbeSuffix[] = " LIMIT 0";
// All three at once: when this succeeds every single probe would, so the
// usual opening of a complete registry costs one statement.
constexpr const char kProbeAllTables[] =
    "SELECT 1 FROM widgets, widgetFiles, localizedItem LIMIT 0";
// The same probe, which can only be prepared when both indexes below exist
// too: a registry opened before costs one statement in all.
constexpr const char kProbeAllTablesAndIndexes[] =
    "SELECT 1 FROM widgets, "
    "widgetFiles INDEXED BY widgetFiles_widgetID_path, "
    "localizedItem INDEXED BY localizedItem_widgetID_item_lang "
    "WHERE widgetFiles.widgetID=0 AND localizedItem.widgetID=0 LIMIT 0";

// Indexes that serve the per-widget lookups. Preparing the check statement
// fails when the index is missing; then it is created (failure ignored).
constexpr const char kHasFilesIndex[] =
    "SELECT 1 FROM widgetFiles INDEXED BY widgetFiles_widgetID_path "
    "WHERE widgetID=0";
constexpr const char kCreateFilesIndex[] =
    "CREATE INDEX IF NOT EXISTS widgetFiles_widgetID_path "
    "ON widgetFiles(widgetID, path)";
constexpr const char kHasItemsIndex[] =
    "SELECT 1 FROM localizedItem INDEXED BY localizedItem_widgetID_item_lang "
    "WHERE widgetID=0";
constexpr const char kCreateItemsIndex[] =
    "CREATE INDEX IF NOT EXISTS localizedItem_widgetID_item_lang "
    "ON localizedItem(widgetID, item, lang)";

// Job transactions.
constexpr const char kBegin[] = "BEGIN";
constexpr const char kBeginImmediate[] = "BEGIN IMMEDIATE";
constexpr const char kCommit[] = "COMMIT";
constexpr const char kRollback[] = "ROLLBACK";
// An update's: readers of every connection wait while the widget's rows
// and its directory change together.
constexpr const char kBeginExclusive[] = "BEGIN EXCLUSIVE";

// Writes.
constexpr const char kInsertWidget[] =
    "INSERT INTO Widgets VALUES(NULL,?1,?2,?3,?4,?5,?6,?7,?8,?9,?10,?11,?12,"
    "?13,?14)";
constexpr const char kInsertWidgetFile[] =
    "INSERT INTO widgetFiles (widgetID, path) VALUES (?1,?2)";
constexpr const char kInsertLocalizedItem[] =
    "INSERT INTO localizedItem (widgetId, item, lang, value) VALUES "
    "(?1, ?2, ?3, ?4)";
constexpr const char kDeleteWidgetByName[] =
    "DELETE FROM Widgets WHERE name=?1";
// A removed widget's file and text rows stay until its id is given again,
// which is always above every id in use: an installation clears them before
// it takes that id, so that nothing of the removed widget shows through.
constexpr const char kDeleteFilesOfRemovedWidgets[] =
    "DELETE FROM widgetFiles WHERE widgetID > "
    "(SELECT IFNULL(MAX(id), 0) FROM Widgets)";
constexpr const char kDeleteItemsOfRemovedWidgets[] =
    "DELETE FROM localizedItem WHERE widgetID > "
    "(SELECT IFNULL(MAX(id), 0) FROM Widgets)";

// What installations under a signature policy learnt of each widget's
// signatures. The table is made by the first such installation, so a
// registry that never saw one keeps its three tables; every statement on it
// first asks whether it is there.
constexpr const char kHasSignaturesTable[] =
    "SELECT 1 FROM sqlite_master WHERE type='table' AND "
    "name='widgetSignatures'";
constexpr const char kCreateWidgetSignatures[] =
    "CREATE TABLE IF NOT EXISTS widgetSignatures (widgetID INTEGER PRIMARY "
    "KEY NOT NULL,policy TEXT NOT NULL,signed INTEGER NOT NULL,"
    "valid INTEGER NOT NULL,authorSubject TEXT NOT NULL,"
    "authorFingerprint TEXT NOT NULL,anchor TEXT NOT NULL,"
    "record TEXT NOT NULL)";
constexpr const char kInsertWidgetSignatures[] =
    "INSERT OR REPLACE INTO widgetSignatures VALUES (?1,?2,?3,?4,?5,?6,?7,?8)";
constexpr const char kDeleteSignaturesByName[] =
    "DELETE FROM widgetSignatures WHERE widgetID IN "
    "(SELECT id FROM Widgets WHERE name=?1)";
constexpr const char kDeleteSignaturesOfRemovedWidgets[] =
    "DELETE FROM widgetSignatures WHERE widgetID > "
    "(SELECT IFNULL(MAX(id), 0) FROM Widgets)";
constexpr const char kSignaturesOfWidget[] =
    "SELECT Widgets.id, widgetSignatures.record FROM Widgets LEFT JOIN "
    "widgetSignatures ON widgetSignatures.widgetID=Widgets.id "
    "WHERE Widgets.name=?1";
constexpr const char kWidgetIdByName[] =
    "SELECT id FROM Widgets WHERE name=?1";
// The last answer each widget's update description gave, kept for the
// conditional request of the next check (its ETag and Last-Modified) and
// for answering a 304 (the document). The table is made by the first check
// that keeps an answer, so a registry never checked keeps its three tables;
// every statement on it first asks whether it is there. Rows of removed
// widgets go at the next check that keeps one.
constexpr const char kHasUpdateChecksTable[] =
    "SELECT 1 FROM sqlite_master WHERE type='table' AND "
    "name='updateChecks'";
constexpr const char kCreateUpdateChecks[] =
    "CREATE TABLE IF NOT EXISTS updateChecks (widgetID INTEGER NOT NULL,"
    "href TEXT NOT NULL,etag TEXT NOT NULL,lastModified TEXT NOT NULL,"
    "document BLOB NOT NULL,PRIMARY KEY (widgetID, href))";
constexpr const char kInsertUpdateCheck[] =
    "INSERT OR REPLACE INTO updateChecks VALUES (?1,?2,?3,?4,?5)";
constexpr const char kDeleteUpdateChecksOfRemovedWidgets[] =
    "DELETE FROM updateChecks WHERE widgetID NOT IN (SELECT id FROM Widgets)";
constexpr const char kUpdateCheckOfWidget[] =
    "SELECT etag, lastModified, document FROM updateChecks "
    "WHERE widgetID=?1 AND href=?2";
// An update's writes: the widget keeps its id, name, addresses and
// directory; what its package says, its file rows and its texts are new.
constexpr const char kUpdateWidget[] =
    "UPDATE Widgets SET width=?2,height=?3,version=?4,widgetName=?5,"
    "widgetShorName=?6,viewMode=?7,icon=?8,author=?9,authorEmail=?10,"
    "authorHref=?11 WHERE id=?1";
constexpr const char kDeleteFilesOfWidget[] =
    "DELETE FROM widgetFiles WHERE widgetID=?1";
constexpr const char kDeleteItemsOfWidget[] =
    "DELETE FROM localizedItem WHERE widgetID=?1";
// File rows are AUTOINCREMENT: every row written later has a higher id, so
// an update that noted this value before its writes knows afterwards, from
// the widget's rows alone, whether they were committed.
constexpr const char kLastFileRow[] = "SELECT IFNULL(MAX(id), 0) FROM widgetFiles";
constexpr const char kFilesWrittenAfter[] =
    "SELECT 1 FROM widgetFiles WHERE widgetID=?1 AND id>?2 LIMIT 1";
// Installations: what stays of a widget across updates in place (which
// keep its Widgets row) and is new after removal and a new installation
// under the same name. The table is made only when a host first asks for an
// installation's identity; a row whose name is NULL is an installation that
// was removed and whose web data may still be on disk. Whatever deletes a
// Widgets row (a removal, in any process, of any version of the engine)
// retires its installation in the same statement.
constexpr const char kCreateInstallations[] =
    "CREATE TABLE IF NOT EXISTS widgetInstallations("
    "token TEXT PRIMARY KEY NOT NULL,name TEXT UNIQUE)";
constexpr const char kCreateInstallationsTrigger[] =
    "CREATE TRIGGER IF NOT EXISTS widgetInstallations_retire "
    "AFTER DELETE ON Widgets BEGIN "
    "UPDATE widgetInstallations SET name=NULL WHERE name=old.name; END";
constexpr const char kHasInstallations[] =
    "SELECT 1 FROM sqlite_master WHERE type='table' AND "
    "name='widgetInstallations'";
constexpr const char kInstallationOfWidget[] =
    "SELECT token FROM widgetInstallations WHERE name=?1";
// Only a widget that is installed gets one.
constexpr const char kInsertInstallation[] =
    "INSERT INTO widgetInstallations(token,name) "
    "SELECT ?1,name FROM Widgets WHERE name=?2";
// Rows whose widget went before the trigger was there (a registry restored
// from an older copy, say).
constexpr const char kRetireOrphanInstallations[] =
    "UPDATE widgetInstallations SET name=NULL WHERE name IS NOT NULL AND "
    "name NOT IN (SELECT name FROM Widgets WHERE name IS NOT NULL)";
constexpr const char kRetiredInstallations[] =
    "SELECT token FROM widgetInstallations WHERE name IS NULL";
constexpr const char kForgetInstallation[] =
    "DELETE FROM widgetInstallations WHERE token=?1 AND name IS NULL";

// Reads of whole Widgets rows.
constexpr const char kSelectAllWidgets[] = "SELECT * FROM Widgets";
constexpr const char kSelectWidgetsByName[] =
    "SELECT * FROM Widgets WHERE name = ?1";
constexpr const char kSelectWidgetsBySourceURL[] =
    "SELECT * FROM Widgets WHERE sourceURL=?1";
// Whether a registered widget lives in a directory.
constexpr const char kStoragePathTaken[] =
    "SELECT 1 FROM Widgets WHERE storagePath=?1 LIMIT 1";

// Lookups. The join keeps the file rows in the order they were written, so
// that with several matches the first row's id and the last row's directory
// are the ones used.
constexpr const char kNameByLaunchURL[] =
    "SELECT  widgets.Name FROM widgets WHERE launchURL = ?1";
constexpr const char kFileOwner[] =
    "SELECT  widgets.ID, widgets.storagePath from widgetFiles LEFT JOIN "
    "widgets ON widgetFiles.widgetID=widgets.ID where storagePath || path = ?1 "
    "ORDER BY widgetFiles.id";
constexpr const char kLocalizedFile[] =
    "SELECT path FROM widgetfiles WHERE widgetID=?1 AND PATH=?2 "
    "ORDER BY id DESC LIMIT 1";
constexpr const char kLocalizedItem[] =
    "SELECT value FROM localizedItem WHERE widgetId=?1 AND item=?2 AND "
    "lang=?3 ORDER BY id DESC LIMIT 1";
constexpr const char kLocalizedItemsOfWidget[] =
    "SELECT item, lang, value, id FROM localizedItem WHERE widgetID=?1";

// The in-memory lookup index is loaded with these, each inside a read
// transaction. The schema rows tell whether the tables are the ones this
// engine creates, for which the index answers exactly like the lookups.
constexpr const char kSchemaTables[] =
    "SELECT name, sql FROM sqlite_master WHERE type='table'";
constexpr const char kIndexWidgets[] =
    "SELECT id, storagePath, launchURL, name FROM Widgets ORDER BY id";
// The file rows of one widget, through the index on (widgetID, path).
constexpr const char kIndexFilesOfWidget[] =
    "SELECT id, path FROM widgetFiles WHERE widgetID=?1";

}  // namespace statements

#endif  // WIDGETENGINE_STATEMENTS_H_
