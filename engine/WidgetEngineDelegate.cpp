// SPDX-License-Identifier: Apache-2.0
#include "engine/WidgetEngineDelegate.h"

#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>

#include <widgetengine/WidgetEngineExtensions.h>

#include "base/Refusal.h"
#include "engine/UserAgentLocales.h"
#include "install/WidgetInstaller.h"
#include "install/WidgetUnInstaller.h"
#include "query/WidgetQuery.h"
#include "registry/SqlLite3.h"

// Every operation below is a boundary with the host: whatever goes wrong
// inside (an allocation that fails, a library that throws) ends as the
// operation's failure answer, never as an exception in the browser.

RefPtr<WebWidgetEngineDelegate> WidgetEngineDelegate::createInstance() {
  try {
    return RefPtr<WebWidgetEngineDelegate>(new WidgetEngineDelegate());
  } catch (...) {
    return RefPtr<WebWidgetEngineDelegate>();
  }
}

WidgetEngineDelegate::WidgetEngineDelegate()
    : userAgentLocales(new UserAgentLocales()), database(new SqlLite3()) {}

WidgetEngineDelegate::~WidgetEngineDelegate() {
  // The locale list goes first, then the connection is closed.
  userAgentLocales.reset();
  database.reset();
}

char* WidgetEngineDelegate::receiveWidget(const char* url, WebFrame*) {
  refusal::begin();
  if (!url) {
    refusal::settle(
        Outcome(WIDGETENGINE_REFUSAL_BAD_ARGUMENT, "no package address"));
    return nullptr;
  }
  try {
    WidgetInstaller installer(url);
    installer.run();
    // An URL installed before answers its existing launch URL, as a fresh
    // installation would.
    if (!installer.outcome().ok()) return nullptr;
    return strdup(installer.getLaunchURL().c_str());
  } catch (...) {
    refusal::settle(Outcome(WIDGETENGINE_REFUSAL_INTERNAL, "out of memory"));
    return nullptr;
  }
}

int WidgetEngineDelegate::deleteWidget(const char* name, WebFrame*) {
  refusal::begin();
  if (!name) {
    refusal::settle(Outcome(WIDGETENGINE_REFUSAL_BAD_ARGUMENT, "no widget name"));
    return -1;
  }
  try {
    WidgetUnInstaller uninstaller(name);
    return uninstaller.run();
  } catch (...) {
    refusal::settle(Outcome(WIDGETENGINE_REFUSAL_INTERNAL, "out of memory"));
    return -1;
  }
}

WidgetsData* WidgetEngineDelegate::getInfo(const char* name, WebFrame*,
                                           const char* language) {
  if (!name || !language) return nullptr;
  try {
    WidgetQuery query(name);
    buildUserAgentLocalesIfNeeded(language);
    return query.getInfo(userAgentLocales->getLocales());
  } catch (...) {
    return nullptr;
  }
}

std::vector<WidgetsData*> WidgetEngineDelegate::getAll(WebFrame*) {
  try {
    WidgetQuery query("");
    return query.getAll();
  } catch (...) {
    return std::vector<WidgetsData*>();
  }
}

char* WidgetEngineDelegate::mapResource(const char* url,
                                        const char* language) {
  if (!url || !language) return nullptr;
  try {
    if (database->isOpen() != 1 && !database->reopen()) return nullptr;
    // Only an address that starts with the scheme is a widget file; anything
    // else is answered before the locale list is looked at.
    if (strncmp(url, "file://", 7) != 0) return nullptr;
    buildUserAgentLocalesIfNeeded(language);
    // The lookup rewrites its argument even when it finds nothing.
    std::string mapped(url);
    if (database->findLocalizedResource(mapped,
                                        userAgentLocales->getLocales()) != 0) {
      return strdup(mapped.c_str());
    }
    return nullptr;
  } catch (...) {
    return nullptr;
  }
}

int WidgetEngineDelegate::isWidget(const char* url) {
  if (!url) return 0;
  try {
    // A registry that was missing or locked when the engine was created is
    // tried again, so that the engine recovers once it is usable.
    if (database->isOpen() != 1 && !database->reopen()) return 0;
    // The browser asks this for every page it loads: the address is looked
    // up as it is, and the name goes to a buffer kept between calls, so a
    // call allocates nothing.
    thread_local std::string name;
    return database->getNameByLaunchURL(url, strlen(url), name) != 0 ? 1 : 0;
  } catch (...) {
    return 0;
  }
}

void WidgetEngineDelegate::buildUserAgentLocalesIfNeeded(
    const std::string& language) {
  if (!userAgentLocales->isComputedFrom(language)) {
    userAgentLocales->compute(language);
  }
}
