// SPDX-License-Identifier: Apache-2.0
#include "query/WidgetQuery.h"

#include <sys/stat.h>

#include <iostream>

#include "base/EngineOutput.h"
#include "install/UnInstallerLines.h"
#include "registry/SqlLite3.h"

namespace {

// The registry connection of the last query job on this thread, kept for the
// next one: opening the registry reads its schema, which costs more than the
// lookups a query makes. SQLite shows every connection what others have
// committed, so a kept connection answers as a new one would, as long as it
// still has the file that the registry path names open.
struct KeptConnection {
  std::unique_ptr<SqlLite3> database;
  std::string path;
  dev_t device = 0;
  ino_t inode = 0;
};

thread_local KeptConnection kept;

bool identify(const std::string& path, dev_t* device, ino_t* inode) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) return false;
  *device = status.st_dev;
  *inode = status.st_ino;
  return true;
}

std::unique_ptr<SqlLite3> openRegistry() {
  std::unique_ptr<SqlLite3> database = std::move(kept.database);
  dev_t device;
  ino_t inode;
  if (database && kept.path == SqlLite3::databasePath() &&
      identify(kept.path, &device, &inode) && device == kept.device &&
      inode == kept.inode) {
    return database;
  }
  database.reset();
  return std::unique_ptr<SqlLite3>(new SqlLite3());
}

// Keeps database for the next job when it is usable; it is identified by
// the file at the registry path now, just after its own job used it.
void keepRegistry(std::unique_ptr<SqlLite3> database) {
  if (!database || !database->isOpen()) return;
  KeptConnection next;
  next.path = SqlLite3::databasePath();
  if (!identify(next.path, &next.device, &next.inode)) return;
  next.database = std::move(database);
  kept = std::move(next);
}

void deleteAll(std::vector<WidgetsData*>& records) {
  for (WidgetsData* record : records) delete record;
  records.clear();
}

}  // namespace

WidgetQuery::WidgetQuery(const std::string& name)
    : alreadyRun(false), name(name), database(openRegistry()) {}

WidgetQuery::~WidgetQuery() {
  clean();
  keepRegistry(std::move(database));
}

void WidgetQuery::clean() { unInstallerLines::clean(&alreadyRun); }

WidgetsData* WidgetQuery::getInfo(const std::vector<std::string>& locales) {
  if (alreadyRun) {
    engineError() << unInstallerLines::kRunTwice << std::endl;
    return nullptr;
  }
  if (database->isOpen() != 1) return nullptr;

  // The row and the texts are read in one transaction: an update that
  // commits in between would otherwise give the new texts to the old row.
  database->beginJob();
  std::vector<WidgetsData*> records = database->selectWidgetsByName(name);
  if (records.size() == 1) database->loadLocalizedItems(records[0], locales);
  database->endJob();
  if (records.size() == 1) return records[0];
  if (records.empty()) {
    engineError() << "No widget with this name" << std::endl;
    return nullptr;
  }
  engineError() << unInstallerLines::kIntegrityProblem << std::endl;
  engineError() << unInstallerLines::kNameMustBeUnique << std::endl;
  deleteAll(records);
  return nullptr;
}

std::vector<WidgetsData*> WidgetQuery::getAll() {
  std::vector<WidgetsData*> result;
  if (alreadyRun) {
    engineError() << unInstallerLines::kRunTwice << std::endl;
    return result;
  }
  if (database->isOpen() != 1) return result;
  result = database->selectAllWidgets();
  return result;
}
