// SPDX-License-Identifier: Apache-2.0
// The registry's reads: whole Widgets rows, the lookups by launch URL and
// localized file that every page load makes, and localized texts.
#include "registry/SqlLite3.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "base/EngineOutput.h"
#include "base/UrlPath.h"
#include "registry/LocalizedItemKeys.h"
#include "registry/LookupCache.h"
#include "registry/SqlLite3Impl.h"

using namespace sqlite3impl;


namespace {

// Records of the rows of a statement that selects whole Widgets rows. A
// statement with fewer columns yields no record, but still runs to its end
// (it may write); a failing one yields none at all. complete, when given,
// tells whether the statement ran to its end.
std::vector<WidgetsData*> widgetRecords(sqlite3_stmt* stmt,
                                        bool* complete = nullptr) {
  std::vector<WidgetsData*> records;
  if (complete) *complete = false;
  if (!stmt) return records;
  int rc;
  if (sqlite3_column_count(stmt) < kWidgetColumns) {
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
    }
    if (complete) *complete = rc == SQLITE_DONE;
    return records;
  }
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
    WidgetsData* w = new WidgetsData();
    w->setId(cellInt(stmt, 0));
    w->setSourceURL(cellText(stmt, 1));
    w->setName(cellText(stmt, 2));
    w->setLaunchURL(cellText(stmt, 3));
    w->setStoragePath(cellText(stmt, 4));
    w->setWidth(cellInt(stmt, 5));
    w->setHeight(cellInt(stmt, 6));
    w->setVersion(cellText(stmt, 7));
    w->setWidgetName(cellText(stmt, 8));
    w->setWidgetShorName(cellText(stmt, 9));
    w->setViewMode(cellText(stmt, 10));
    w->setIcon(cellText(stmt, 11));
    w->setAuthor(cellText(stmt, 12));
    w->setAuthorEmail(cellText(stmt, 13));
    w->setAuthorHref(cellText(stmt, 14));
    records.push_back(w);
  }
  if (rc != SQLITE_DONE) {
    for (WidgetsData* w : records) delete w;
    records.clear();
  } else if (complete) {
    *complete = true;
  }
  return records;
}

}  // namespace

std::vector<WidgetsData*> SqlLite3::readWidgets(int statement,
                                                const std::string* key,
                                                bool* complete) {
  if (complete) *complete = false;
  if (!impl->db) return {};
  sqlite3_stmt* stmt = impl->statement(static_cast<Statement>(statement));
  if (!stmt) return {};
  ResetOnExit reset(stmt);
  if (key) bindText(stmt, 1, *key);
  return widgetRecords(stmt, complete);
}

std::vector<WidgetsData*> SqlLite3::selectWidgets(std::string sql) {
  if (!impl->db) return {};
  if (sql == statements::kSelectAllWidgets) return selectAllWidgets();
  sqlite3_stmt* stmt = nullptr;
  const char* tail = nullptr;
  if (sqlite3_prepare_v2(impl->db, sql.c_str(), -1, &stmt, &tail) !=
      SQLITE_OK) {
    sqlite3_finalize(stmt);
    return {};
  }
  bool more = false;
  for (const char* p = tail; p && *p; ++p) more = more || !isspace(*p);
  std::vector<WidgetsData*> records;
  if (!more) {
    records = widgetRecords(stmt);
    sqlite3_finalize(stmt);
    return records;
  }
  sqlite3_finalize(stmt);
  // A text of several statements: their rows, read as whole Widgets rows.
  if (query(sql) != SQLITE_OK || impl->columnNames.size() <
                                     static_cast<size_t>(kWidgetColumns)) {
    return records;
  }
  const std::vector<std::string>& v = impl->values;
  size_t step = impl->columnNames.size();
  for (size_t i = 0; i + step <= v.size(); i += step) {
    records.push_back(new WidgetsData(
        atoi(v[i].c_str()), v[i + 1], v[i + 2], v[i + 3], v[i + 4],
        atoi(v[i + 5].c_str()), atoi(v[i + 6].c_str()), v[i + 7], v[i + 8],
        v[i + 9], v[i + 10], v[i + 11], v[i + 12], v[i + 13], v[i + 14]));
  }
  return records;
}

std::vector<WidgetsData*> SqlLite3::selectAllWidgets(bool* ok) {
  if (ok) *ok = false;
  if (!impl->db) return {};
  uint32_t now = 0;
  if (!impl->cache.stamp(impl->db, now)) {
    impl->allWidgetsKept = false;
    return readWidgets(kSelectAllWidgetsStatement, nullptr, ok);
  }
  std::vector<WidgetsData*> records;
  if (impl->allWidgetsKept && now == impl->allWidgetsStamp) {
    // The copies are made before the returned vector is allocated: a block
    // that large makes malloc first merge every small block freed so far
    // (typically the records of the previous listing), after which the
    // copies could no longer take those blocks back as they are.
    std::vector<WidgetsData*>& copies = impl->copies;
    copies.clear();
    copies.reserve(impl->allWidgets.size());
    for (const WidgetsData& row : impl->allWidgets) {
      copies.push_back(new WidgetsData(row));
    }
    records.assign(copies.begin(), copies.end());
    copies.clear();
    if (ok) *ok = true;
    return records;
  }
  // Read under one read lock, taken by the select and held to the commit, so
  // that the counter read before the commit is the one of these rows.
  impl->allWidgetsKept = false;
  if (impl->exec(statements::kBegin) != SQLITE_OK) {
    return readWidgets(kSelectAllWidgetsStatement, nullptr, ok);
  }
  bool read = false;
  records = readWidgets(kSelectAllWidgetsStatement, nullptr, &read);
  uint32_t stamp = 0;
  const bool stamped = impl->cache.stamp(impl->db, stamp, true);
  impl->exec(statements::kCommit);
  if (read && stamped && sqlite3_get_autocommit(impl->db)) {
    impl->allWidgets.clear();
    impl->allWidgets.reserve(records.size());
    for (const WidgetsData* row : records) impl->allWidgets.push_back(*row);
    impl->allWidgetsStamp = stamp;
    impl->allWidgetsKept = true;
  }
  if (ok) *ok = read;
  return records;
}

std::vector<WidgetsData*> SqlLite3::selectWidgetsByName(const std::string& name) {
  if (!quotable(name, '\'')) return {};
  return readWidgets(kSelectWidgetsByNameStatement, &name);
}

bool SqlLite3::isStoragePathTaken(const std::string& storagePath, bool* ok) {
  if (ok) *ok = false;
  if (!impl->db) return false;
  sqlite3_stmt* stmt = impl->statement(kStoragePathTakenStatement);
  if (!stmt) return false;
  ResetOnExit reset(stmt);
  bindText(stmt, 1, storagePath);
  const int rc = sqlite3_step(stmt);
  if (ok) *ok = rc == SQLITE_ROW || rc == SQLITE_DONE;
  return rc == SQLITE_ROW;
}

std::vector<WidgetsData*> SqlLite3::selectWidgetsBySourceURL(
    const std::string& url, bool* ok) {
  // An address holding the quote fails its statement; as no such address can
  // ever be registered (its row would fail the same way), "none" is true.
  if (ok) *ok = !quotable(url, '\'');
  if (!quotable(url, '\'')) return {};
  return readWidgets(kSelectWidgetsBySourceURLStatement, &url, ok);
}

int SqlLite3::getNameByLaunchURL(const std::string& launchURL,
                                 std::string& name) {
  return getNameByLaunchURL(launchURL.data(), launchURL.size(), name);
}

int SqlLite3::getNameByLaunchURL(const char* launchURL, size_t length,
                                 std::string& name) {
  const time_t second = followReplacedFile();
  if (!impl->db || !quotable(launchURL, length, '"')) return 0;
  if (impl->cache.fresh(impl->db, impl->sharedCounter(), second)) {
    return impl->cache.nameByLaunchURL(launchURL, length, name) ? 1 : 0;
  }
  sqlite3_stmt* stmt = impl->statement(kNameByLaunchURLStatement);
  if (!stmt) return 0;
  ResetOnExit reset(stmt);
  sqlite3_bind_text(stmt, 1, launchURL, static_cast<int>(length),
                    SQLITE_STATIC);
  if (sqlite3_step(stmt) != SQLITE_ROW) return 0;
  name = cellText(stmt, 0);
  return 1;
}

// The usual lookup, answered from the cache without editing the address
// until the answer is known: 1 mapped, -1 not (the address then left as the
// statements' way leaves it), 0 when the statements' way must answer.
int SqlLite3::findInCache(std::string& url, const std::vector<std::string>& locales,
                          time_t second) {
  if (!impl->db) return 0;
  const size_t start = std::min<size_t>(7, url.size());
  const size_t question = url.find('?', start);
  const size_t end = question == std::string::npos ? url.size() : question;
  const char* path = url.data() + start;
  const size_t pathLength = end - start;
  if (!impl->cache.fresh(impl->db, impl->sharedCounter(), second)) return 0;
  int64_t widgetId = 0;
  const char* dir = nullptr;
  size_t dirLength = 0;
  LookupCache::Copies copies;
  const int owner =
      impl->cache.fileOwner(path, pathLength, widgetId, dir, dirLength, &copies);
  // A path holding a quote fails the statement, which leaves the address as
  // an unknown one does: only a found path needs the check, and the cache
  // knows it from the texts the path was found equal to.
  if (owner < 0 || (owner > 0 && (!copies || copies.quoted))) return 0;
  // What the statements' way leaves in the address when it finds nothing.
  const auto notMapped = [&](size_t cut) {
    url.resize(end);
    url.erase(0, start + cut);
    return -1;
  };
  if (owner == 0) return notMapped(0);
  const char* rest = path + dirLength;
  const size_t restLength = pathLength - dirLength;
  if (restLength >= 7 && memcmp(rest, "locales", 7) == 0) return notMapped(dirLength);
  for (const std::string& locale : locales) {
    if (!quotable(locale, '\'') || !impl->cache.hasCopy(copies, locale)) continue;
    // "file://" dir "/locales/" locale "/" rest query, written in one go:
    // this is the answer to most of the browser's resource loads.
    static const char kScheme[] = "file://";
    static const char kLocales[] = "/locales/";
    const size_t queryLength = url.size() - end;
    std::string& mapped = impl->localPath;
    mapped.resize(7 + dirLength + 9 + locale.size() + 1 + restLength + queryLength);
    char* out = &mapped[0];
    memcpy(out, kScheme, 7);
    out += 7;
    // An empty directory may come from an arena with no storage at all.
    if (dirLength) memcpy(out, dir, dirLength);
    memcpy(out += dirLength, kLocales, 9);
    memcpy(out += 9, locale.data(), locale.size());
    out += locale.size();
    *out++ = '/';
    memcpy(out, rest, restLength);
    memcpy(out + restLength, url.data() + end, queryLength);
    url.swap(mapped);
    return 1;
  }
  return notMapped(dirLength);
}

int SqlLite3::findLocalizedResource(std::string& url,
                                    std::vector<std::string> locales) {
  const time_t second = followReplacedFile();
  if (int answer = findInCache(url, locales, second)) return answer > 0 ? 1 : 0;
  // The address loses its "file://" and its query part before the lookup.
  url.erase(0, 7);
  std::string& queryPart = impl->queryPart;
  queryPart.clear();
  size_t question = url.find('?');
  if (question != std::string::npos) {
    queryPart.assign(url, question, std::string::npos);
    url.resize(question);
  }
  if (!impl->db || !quotable(url, '\'')) return 0;

  int64_t widgetId = 0;
  const char* dir = nullptr;
  size_t dirLength = 0;
  // The cache answers unless it cannot read a widget's files in step with
  // what it holds; then the statements do, for the whole lookup.
  bool cached = impl->cache.fresh(impl->db, impl->sharedCounter(), second);
  LookupCache::Copies copies;
  if (cached) {
    const int owner = impl->cache.fileOwner(url, widgetId, dir, dirLength, &copies);
    if (owner == 0) return 0;
    cached = owner == 1;
  }
  if (!cached) {
    sqlite3_stmt* owner = impl->statement(kFileOwnerStatement);
    if (!owner) return 0;
    ResetOnExit reset(owner);
    bindText(owner, 1, url);
    int rc;
    bool found = false;
    while ((rc = sqlite3_step(owner)) == SQLITE_ROW) {
      if (!found) widgetId = sqlite3_column_int64(owner, 0);
      impl->directory = cellText(owner, 1);
      found = true;
    }
    if (rc != SQLITE_DONE || !found) return 0;
    dir = impl->directory.data();
    dirLength = impl->directory.size();
  }

  // What is left is the file's path inside the widget; a file inside a
  // locale folder already is not redirected.
  url.erase(0, dirLength);
  if (url.size() >= 7 && memcmp(url.data(), "locales", 7) == 0) return 0;

  std::string& localPath = impl->localPath;
  for (const std::string& locale : locales) {
    if (!quotable(locale, '\'')) continue;
    if (copies && !impl->cache.hasCopy(copies, locale)) continue;
    localPath.assign("locales/");
    localPath.append(locale);
    localPath.push_back('/');
    localPath.append(url);
    int hit = copies ? 1 : cached ? impl->cache.hasFile(widgetId, localPath) : -1;
    if (hit < 0) {
      sqlite3_stmt* local = impl->statement(kLocalizedFileStatement);
      if (!local) continue;
      ResetOnExit reset(local);
      sqlite3_bind_int64(local, 1, widgetId);
      bindText(local, 2, localPath);
      hit = sqlite3_step(local) == SQLITE_ROW;
    }
    // A copy whose address the browser would resolve outside the widget
    // (escaped dots in its path or in the locale) is never answered; the
    // cache's copies were checked when they were read.
    if (hit && (copies || UrlPath::staysInside(localPath))) {
      url.assign("file://");
      url.append(dir, dirLength);
      url.push_back('/');
      url.append(localPath);
      url.append(queryPart);
      return 1;
    }
  }
  return 0;
}

int SqlLite3::getLocalizedItem(int widgetId, const std::string& item,
                               const std::vector<std::string>& locales,
                               std::string& value) {
  if (!impl->db || !quotable(item, '\'')) return 0;
  sqlite3_stmt* stmt = impl->statement(kLocalizedItemStatement);
  if (!stmt) return 0;
  for (const std::string& locale : locales) {
    if (!quotable(locale, '\'')) continue;
    ResetOnExit reset(stmt);
    sqlite3_bind_int(stmt, 1, widgetId);
    bindText(stmt, 2, item);
    bindText(stmt, 3, locale);
    if (sqlite3_step(stmt) == SQLITE_ROW) {
      value = cellText(stmt, 0);
      return 1;
    }
  }
  return 0;
}

void SqlLite3::loadLocalizedItems(WidgetsData* widget,
                                  std::vector<std::string> locales) {
  if (!widget || !impl->db) return;
  locales.push_back(localizeditems::kDefaultLanguage);
  sqlite3_stmt* stmt = impl->statement(kLocalizedItemsOfWidgetStatement);
  if (!stmt) return;

  // One pass over the widget's rows resolves all five items: for each, the
  // earliest locale of the list that has it, and of its rows the last one.
  struct Best {
    size_t rank = SIZE_MAX;
    sqlite3_int64 row = 0;
    std::string text;
  } best[localizeditems::kCount];
  {
    ResetOnExit reset(stmt);
    sqlite3_bind_int(stmt, 1, widget->getId());
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
      const unsigned char* item = sqlite3_column_text(stmt, 0);
      int itemLength = sqlite3_column_bytes(stmt, 0);
      int k = 0;
      while (k < localizeditems::kCount &&
             !(item && sameText(item, itemLength, localizeditems::kAll[k],
                                strlen(localizeditems::kAll[k])))) {
        ++k;
      }
      if (k == localizeditems::kCount) continue;
      const unsigned char* lang = sqlite3_column_text(stmt, 1);
      int langLength = sqlite3_column_bytes(stmt, 1);
      if (!lang) continue;
      size_t rank = 0;
      while (rank < locales.size() &&
             !(sameText(lang, langLength, locales[rank].data(),
                        locales[rank].size()) &&
               quotable(locales[rank], '\''))) {
        ++rank;
      }
      if (rank == locales.size()) continue;
      sqlite3_int64 row = sqlite3_column_int64(stmt, 3);
      if (rank < best[k].rank || (rank == best[k].rank && row > best[k].row)) {
        best[k].rank = rank;
        best[k].row = row;
        best[k].text = cellText(stmt, 2);
      }
    }
    if (rc != SQLITE_DONE) return;
  }
  if (best[0].rank != SIZE_MAX) widget->setWidgetName(best[0].text);
  if (best[1].rank != SIZE_MAX) widget->setWidgetShorName(best[1].text);
  if (best[2].rank != SIZE_MAX) widget->setDescription(best[2].text);
  if (best[3].rank != SIZE_MAX) widget->setLicense(best[3].text);
  if (best[4].rank != SIZE_MAX) widget->setLicenseHref(best[4].text);
}
