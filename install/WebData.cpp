// SPDX-License-Identifier: Apache-2.0
#include "install/WebData.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include <widgetengine/WidgetEngineExtensions.h>

#include "base/EngineOutput.h"
#include "base/ScopedFd.h"
#include "base/Settings.h"
#include "base/TreeRemover.h"
#include "base/TrustedPath.h"
#include "registry/SqlLite3.h"

namespace {

// Below each of the user's homes; the token's folder is the last step.
const char* const kPlace[] = {"widgetengine", "web-data"};

std::string placeIn(const std::string& home) {
  return home + "/" + kPlace[0] + "/" + kPlace[1];
}

// The folders leading to home, made (0700) where missing, as the XDG rules
// ask of a home that is not there yet.
void makeHome(const std::string& home) {
  for (size_t slash = home.find('/', 1); ; slash = home.find('/', slash + 1)) {
    mkdir(home.substr(0, slash).c_str(), 0700);
    if (slash == std::string::npos) break;
  }
}

// One step down from the folder open at parent: the folder name, made when
// missing, never a link, and trusted. -1, with *reason, otherwise.
int stepInto(int parent, const std::string& name, const std::string& path,
             std::string* reason) {
  if (mkdirat(parent, name.c_str(), 0700) != 0 && errno != EEXIST) {
    *reason = "cannot make " + path + ": " + strerror(errno);
    return -1;
  }
  const int fd = openat(parent, name.c_str(),
                        O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    *reason = path + " is not a folder: " + strerror(errno);
    return -1;
  }
  if (!TrustedPath::opened(fd, path, reason)) {
    close(fd);
    return -1;
  }
  return fd;
}

bool prepareUnder(const std::string& home, const std::string& token,
                  std::string* reason) {
  makeHome(home);
  int fd = TrustedPath::openDirectory(home, reason);
  if (fd < 0) return false;
  std::string path = home;
  for (const std::string& name : {std::string(kPlace[0]),
                                  std::string(kPlace[1]), token}) {
    path += "/" + name;
    const int next = stepInto(fd, name, path, reason);
    close(fd);
    if (next < 0) return false;
    fd = next;
  }
  close(fd);
  return true;
}

// Removes the folder token in the place below home; see WebData::remove.
bool removeUnder(const std::string& home, const std::string& token,
                 bool* removed, std::string* reason) {
  const std::string place = placeIn(home);
  const int fd = TrustedPath::openDirectory(place, reason);
  if (fd < 0) return errno == ENOENT;
  ScopedFd parent(fd);
  const std::string path = place + "/" + token;
  const int folder = openat(parent.get(), token.c_str(),
                            O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (folder < 0 && errno == ENOENT) return true;
  if (folder < 0 && (errno == ELOOP || errno == ENOTDIR)) {
    // A link or a file in the folder's place goes itself.
    if (unlinkat(parent.get(), token.c_str(), 0) == 0) {
      *removed = true;
      return true;
    }
  }
  if (folder < 0) {
    *reason = "cannot open " + path + ": " + strerror(errno);
    return false;
  }
  int failure = 0;
  const TreeRemover remover([&failure](int error) { failure = error; });
  if (!remover.removeContents(folder) && failure == 0) failure = errno;
  close(folder);
  if (unlinkat(parent.get(), token.c_str(), AT_REMOVEDIR) != 0) {
    *reason = "cannot remove " + path + ": " +
              strerror(failure != 0 ? failure : errno);
    return false;
  }
  *removed = true;
  return true;
}

}  // namespace

bool WebData::isToken(const std::string& text) {
  if (text.size() != 32) return false;
  for (char c : text)
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  return true;
}

bool WebData::locate(const std::string& token, Folders* folders) {
  const std::string data = settings::userDataHome();
  const std::string cache = settings::userCacheHome();
  if (!isToken(token) || data.empty() || cache.empty()) return false;
  folders->data = placeIn(data) + "/" + token + "/";
  folders->cache = placeIn(cache) + "/" + token + "/";
  return true;
}

bool WebData::prepare(const std::string& token, Folders* folders,
                      std::string* reason) {
  if (!locate(token, folders)) {
    *reason = "the user has no data and cache folders (HOME is not set)";
    return false;
  }
  return prepareUnder(settings::userDataHome(), token, reason) &&
         prepareUnder(settings::userCacheHome(), token, reason);
}

bool WebData::remove(const std::string& token, bool* removed,
                     std::string* reason) {
  *removed = false;
  Folders folders;
  if (!locate(token, &folders)) return true;  // nothing of ours to remove
  const bool data =
      removeUnder(settings::userDataHome(), token, removed, reason);
  const bool cache =
      removeUnder(settings::userCacheHome(), token, removed, reason);
  return data && cache;
}

int WebData::sweep(SqlLite3& database, bool forget) {
  int forgotten = 0;
  for (const std::string& token : database.retiredInstallations()) {
    bool removed = false;
    std::string reason;
    if (!remove(token, &removed, &reason)) {
      engineError() << "Cannot remove the web data of a removed widget: "
                    << reason << std::endl;
      continue;
    }
    if (forget && !removed && database.forgetInstallation(token)) ++forgotten;
  }
  return forgotten;
}

namespace {

char* copyOf(const std::string& text) {
  char* copy = static_cast<char*>(malloc(text.size() + 1));
  if (copy != nullptr) memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

}  // namespace

extern "C" char* widgetengine_installation_id(const char* name) {
  if (name == nullptr) return nullptr;
  try {
    SqlLite3 database;
    if (!database.isOpen()) return nullptr;
    const std::string token = database.installationToken(name, true);
    return token.empty() ? nullptr : copyOf(token);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

extern "C" char* widgetengine_web_data_folder(const char* name, int kind) {
  if (name == nullptr ||
      (kind != WIDGETENGINE_WEB_DATA && kind != WIDGETENGINE_WEB_CACHE))
    return nullptr;
  try {
    std::string reason = "the widget registry cannot be opened";
    std::string token;
    WebData::Folders folders;
    {
      SqlLite3 database;
      if (database.isOpen()) {
        token = database.installationToken(name, true);
        reason = "no widget named " + std::string(name) +
                 " is installed, or the registry cannot be written";
      }
    }
    if (!token.empty() && WebData::prepare(token, &folders, &reason))
      return copyOf(kind == WIDGETENGINE_WEB_DATA ? folders.data
                                                  : folders.cache);
    engineError() << "No web data folder for widget " << name << ": "
                  << reason << std::endl;
    return nullptr;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

extern "C" int widgetengine_sweep_web_data(void) {
  try {
    // No registry, no installations: one is not made just to be looked at.
    struct stat status;
    if (stat(SqlLite3::databasePath().c_str(), &status) != 0) return 0;
    SqlLite3 database;
    if (!database.isOpen()) return -1;
    return WebData::sweep(database, true);
  } catch (const std::bad_alloc&) {
    return -1;
  }
}
