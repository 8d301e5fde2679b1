// SPDX-License-Identifier: Apache-2.0
// InstallLock gives a widget name, and with it the widget's directory, to one
// installation at a time, whatever runs the others: another thread, another
// engine, another process. It is an flock() on the file
// "<widget root>/.widget_<name>.lock", opened from a descriptor of the root
// and named by the root's real path, so that every spelling of the root (a
// link of the user's own, doubled slashes, a relative path) meets the same
// lock. A link that another user made on the way to the root is refused. While held, the file is the installation's journal: it names
// the package file and the directory the installation is about to create, so
// that when the process dies half-way, the next installation finds what it
// left (the lock is free, the journal is not empty) and removes it. An
// update's journal names the folder it unpacks into beside the widget's
// directory and, before it exchanges the two, what tells the next
// installation whether to exchange them back (see settleUpdate()).
//
//   InstallLock lock(root, name);
//   if (!lock.acquire()) ...;       // waits for a running installation
//   InstallLock::sweep(root, registry);
//   lock.note(packagePath, storagePath);
//   ... download, unpack, register ...
//   lock.clear();                   // registered, or cleaned up already
#ifndef WIDGETENGINE_INSTALLLOCK_H_
#define WIDGETENGINE_INSTALLLOCK_H_

#include <cstdint>
#include <memory>
#include <string>

class SqlLite3;
class WidgetsData;

class InstallLock {
 public:
  InstallLock(const std::string& widgetRoot, const std::string& name);
  // Releases the lock. The lock file goes too once clear() has emptied it.
  ~InstallLock();

  InstallLock(const InstallLock&) = delete;
  InstallLock& operator=(const InstallLock&) = delete;

  // Waits until no other installation holds the name. False, with errno set,
  // when the root or the lock file cannot be had; error() says why. errno is
  // ENOENT when there is no widget root at all, EPERM when the root or the
  // lock file is refused (a link another user made on the way to the root,
  // a root or lock file that another user owns or can write).
  bool acquire();
  const std::string& error() const { return error_; }

  // What a dead installation of this same name left, found when the lock
  // was taken, is removed here (see sweep()). False when some of it is still
  // to be removed.
  bool removeLeftovers(SqlLite3& registry);

  // Records what the installation is about to create. False when the
  // journal cannot be written (then nothing should be created).
  bool note(const std::string& packagePath, const std::string& storagePath);
  // For an update: notes the package file and a new folder of the root
  // (".update-" and eight letters or digits), then makes that folder, empty
  // and exclusively. Its path, "/" at the end; empty when the journal or
  // the folder could not be written (then nothing was made).
  std::string makeStagingFolder(const std::string& packagePath);
  // Notes, just before the update exchanges that folder with the widget's
  // directory storagePath, what tells afterwards whether the exchange was
  // made (the folder's identity) and whether the rows were committed (a
  // file row of widgetId above fileMark). Appended, so that the journal
  // never stands empty in between.
  bool noteSwitch(int widgetId, int64_t fileMark, const std::string& storagePath);

  // The installation has ended: what it created is registered or removed.
  void clear();

  // The root's real path ("/" at the end); empty before acquire().
  const std::string& root() const { return root_; }

  // Removes what dead installations left under widgetRoot: for each lock file
  // that no live installation holds, the
  // package file it names (only a file of the engine's temporary-file form)
  // and the widget directory (only "widget_<name>/" under the root, and only
  // when no registered widget lives there), then the lock file.
  static void sweep(const std::string& widgetRoot, SqlLite3& registry);

  // The registered widget whose directory is the same directory as path:
  // the same text, or the same file on disk under another spelling. Null
  // when there is none; ok tells whether the registry could be read.
  static std::unique_ptr<WidgetsData> ownerOf(const std::string& path,
                                              SqlLite3& registry, bool* ok);

 private:
  static std::string lockFileName(const std::string& name);
  // True when nothing named in the journal is left to remove.
  static bool cleanJournal(int fd, const std::string& root,
                           const std::string& name, SqlLite3& registry);
  // Puts back what a dead update left: the widget's own directory when the
  // exchange was made but the rows were not committed, and removes the
  // update's folder, whichever files it holds then. True when done.
  static bool settleUpdate(const std::string& root, const std::string& name,
                           const std::string& stagingPath,
                           const std::string& switchLine, SqlLite3& registry);
  // Appends text to the journal.
  bool append(const std::string& text);

  std::string widgetRoot_;
  std::string name_;
  std::string root_;
  std::string path_;
  std::string error_;
  int rootFd_;  // the root's own descriptor (O_PATH), from acquire() on
  int fd_;
  bool ended_;
};

#endif  // WIDGETENGINE_INSTALLLOCK_H_
