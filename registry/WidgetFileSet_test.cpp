// SPDX-License-Identifier: Apache-2.0
// The files of one widget as the lookups hold them: one entry per path with
// the first and last row that has it, and its localized copies, each told
// whether a browser reads its path as inside the widget.
#include "registry/WidgetFileSet.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>

#include "registry/SqlLite3.h"
#include "testing/RegistryTestUtil.h"

using registrytest::Raw;
using registrytest::RegistryTest;

namespace {

const WidgetFileSet::Entry* find(const WidgetFileSet& files, const std::string& path) {
  return files.find(path.data(), path.size());
}

TEST_F(RegistryTest, WidgetFileSetKeepsEachPathOnceWithItsRowsAndCopies) {
  { SqlLite3 create; }
  Raw raw(dbPath());
  ASSERT_EQ(SQLITE_OK,
            raw.exec("INSERT INTO widgetFiles (id, widgetID, path) VALUES "
                     "(10, 1, 'index.html'), (11, 1, 'locales/fr/index.html'),"
                     "(12, 2, 'index.html'), (13, 1, 'index.html'),"
                     "(14, 1, 'locales/de/../../../x/index.html'),"
                     "(15, 1, 'locales/fr-ca/a/index.html'), (16, 1, 'a/index.html'),"
                     "(17, 1, 'q''s.html')"));
  ASSERT_EQ(SQLITE_OK, raw.exec("BEGIN"));
  std::unique_ptr<WidgetFileSet> files = WidgetFileSet::read(raw.handle(), 1);
  ASSERT_EQ(SQLITE_OK, raw.exec("COMMIT"));
  ASSERT_TRUE(files);

  const WidgetFileSet::Entry* index = find(*files, "index.html");
  ASSERT_NE(nullptr, index);
  EXPECT_EQ(10, index->first);
  EXPECT_EQ(13, index->last);
  EXPECT_FALSE(index->quoted);
  EXPECT_TRUE(files->hasCopy(files->number(index), "fr"));
  EXPECT_FALSE(files->hasCopy(files->number(index), "de"));
  EXPECT_FALSE(files->hasCopy(files->number(index), "en"));

  // A language may hold a slash; a copy whose path climbs out of the
  // widget is not answered.
  const WidgetFileSet::Entry* nested = find(*files, "a/index.html");
  ASSERT_NE(nullptr, nested);
  EXPECT_TRUE(files->hasCopy(files->number(nested), "fr-ca"));
  EXPECT_TRUE(files->hasCopy(files->number(index), "fr-ca/a"));
  const WidgetFileSet::Entry* outside = find(*files, "x/index.html");
  EXPECT_EQ(nullptr, outside);
  EXPECT_FALSE(files->hasCopy(files->number(index), "de/../../../x"));

  const WidgetFileSet::Entry* quoted = find(*files, "q's.html");
  ASSERT_NE(nullptr, quoted);
  EXPECT_TRUE(quoted->quoted);
  EXPECT_EQ(nullptr, find(*files, "index.htm"));
  EXPECT_EQ(nullptr, find(*files, ""));
  EXPECT_GT(files->bytes(), sizeof(WidgetFileSet));
}

TEST_F(RegistryTest, WidgetFileSetOfAWidgetWithoutFilesIsEmpty) {
  { SqlLite3 create; }
  Raw raw(dbPath());
  std::unique_ptr<WidgetFileSet> files = WidgetFileSet::read(raw.handle(), 7);
  ASSERT_TRUE(files);
  EXPECT_EQ(nullptr, find(*files, "index.html"));
}

}  // namespace
