// SPDX-License-Identifier: Apache-2.0
// WebData is where a host keeps the web data of one widget installation
// (local storage, IndexedDB, cookies, caches): a folder named by the
// installation's token under the user's data home and one under their cache
// home, made for the user alone, and removed once the installation is gone.
#ifndef WIDGETENGINE_WEBDATA_H_
#define WIDGETENGINE_WEBDATA_H_

#include <string>

class SqlLite3;

class WebData {
 public:
  // The two folders of one installation.
  struct Folders {
    std::string data;   // ends with "/"
    std::string cache;  // ends with "/"
  };

  // Where the folders of installation token are: below
  // settings::userDataHome() and userCacheHome(), in widgetengine/web-data/.
  // False when the user has no such homes or token is not one.
  static bool locate(const std::string& token, Folders* folders);

  // Makes the folders (0700) where they are missing, and checks that they
  // and the folders they are in belong to the user (or root) and that
  // nobody else can write them. False, with *reason, otherwise.
  static bool prepare(const std::string& token, Folders* folders,
                      std::string* reason);

  // Removes both folders and everything in them, following no link (a link
  // in a folder's place goes itself). *removed tells whether there was
  // anything to remove. False, with *reason, when something is left.
  static bool remove(const std::string& token, bool* removed,
                     std::string* reason);

  // Removes the folders of every installation the registry holds as
  // removed. With forget, an installation whose folders were found already
  // gone is forgotten: a browser that still showed it may have written them
  // again after an earlier sweep, and this one took that too. A removal
  // does not forget: the user who removes a widget need not be the one who
  // showed it, whose next browser still has to find the installation. The
  // number of installations forgotten; a line for each folder that could
  // not be removed.
  static int sweep(SqlLite3& database, bool forget);

  // Whether text is a token: 32 lower-case hex digits.
  static bool isToken(const std::string& text);
};

#endif  // WIDGETENGINE_WEBDATA_H_
