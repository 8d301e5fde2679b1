#include "registry/SqlLite3.h"

// Placeholder until the registry lands.
struct SqlLite3::Impl {};
SqlLite3::SqlLite3() {}
SqlLite3::~SqlLite3() {}
std::string SqlLite3::databasePath() { return ""; }
bool SqlLite3::isOpen() { return false; }
int SqlLite3::query(std::string) { return 1; }
static const std::vector<std::string> kNothing;
const std::vector<std::string>& SqlLite3::getColumnNames() const { return kNothing; }
const std::vector<std::string>& SqlLite3::getValues() const { return kNothing; }
bool SqlLite3::checkStructure() { return false; }
bool SqlLite3::checkTable(const std::string&, const std::string&) { return false; }
int SqlLite3::insertWidget(WidgetsData*) { return -1; }
int SqlLite3::insertLocalizedItems(int, const std::string&,
                                   const std::map<std::string, std::string>&) {
  return 0;
}
int SqlLite3::deleteWidgetByName(const std::string&) { return 1; }
void SqlLite3::beginJob() {}
void SqlLite3::endJob() {}
std::vector<WidgetsData*> SqlLite3::selectWidgets(std::string) { return {}; }
std::vector<WidgetsData*> SqlLite3::selectAllWidgets() { return {}; }
std::vector<WidgetsData*> SqlLite3::selectWidgetsByName(const std::string&) { return {}; }
std::vector<WidgetsData*> SqlLite3::selectWidgetsBySourceURL(const std::string&) { return {}; }
int SqlLite3::getNameByLaunchURL(const std::string&, std::string&) { return 0; }
int SqlLite3::findLocalizedResource(std::string&, std::vector<std::string>) { return 0; }
int SqlLite3::getLocalizedItem(int, const std::string&,
                               const std::vector<std::string>&, std::string&) {
  return 0;
}
void SqlLite3::loadLocalizedItems(WidgetsData*, std::vector<std::string>) {}
