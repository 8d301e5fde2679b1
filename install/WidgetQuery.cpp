#include "install/WidgetQuery.h"

#include <iostream>

#include "registry/SqlLite3.h"

namespace {

void deleteAll(std::vector<WidgetsData*>& records) {
  for (WidgetsData* record : records) delete record;
  records.clear();
}

}  // namespace

WidgetQuery::WidgetQuery(const std::string& name)
    : alreadyRun(false), name(name), database(new SqlLite3()) {}

WidgetQuery::~WidgetQuery() {
  clean();
  database.reset();
}

void WidgetQuery::clean() {
  if (alreadyRun) {
    std::cout << std::endl << "[Cleaning...]" << std::endl << std::endl;
    alreadyRun = false;
  } else {
    std::cout << "Nothing to clean" << std::endl;
  }
}

WidgetsData* WidgetQuery::getInfo(const std::vector<std::string>& locales) {
  // The query job shares the uninstaller's texts, this one included.
  if (alreadyRun) {
    std::cout << "WidgetUnInstaller cannot be run twice" << std::endl;
    return nullptr;
  }
  if (database->isOpen() != 1) return nullptr;

  std::vector<WidgetsData*> records = database->selectWidgetsByName(name);
  if (records.size() == 1) {
    database->loadLocalizedItems(records[0], locales);
    return records[0];
  }
  if (records.empty()) {
    std::cout << "No widget with this name" << std::endl;
    return nullptr;
  }
  std::cout << "It's not possible to see this log. Database integrity problem"
            << std::endl;
  std::cout << "'name' Field in 'Widgets' Table must be unique" << std::endl;
  deleteAll(records);
  return nullptr;
}

std::vector<WidgetsData*> WidgetQuery::getAll() {
  std::vector<WidgetsData*> result;
  if (alreadyRun) {
    std::cout << "WidgetUnInstaller cannot be run twice" << std::endl;
    return result;
  }
  if (database->isOpen() != 1) return result;
  result = database->selectAllWidgets();
  return result;
}

std::string joinStrings(const std::vector<std::string>& items) {
  std::string joined;
  for (size_t i = 0; i < items.size(); ++i) {
    if (i > 0) joined += ',';
    joined += items[i];
  }
  return joined;
}
