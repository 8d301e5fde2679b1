// SPDX-License-Identifier: Apache-2.0
// DatabaseHeader reads the change counter from the header of a connection's
// database file, which every commit of any program moves (outside WAL mode),
// through a descriptor of its own kept open between reads.
#ifndef WIDGETENGINE_DATABASEHEADER_H_
#define WIDGETENGINE_DATABASEHEADER_H_

#include <sqlite3.h>

#include <cstdint>

class DatabaseHeader {
 public:
  DatabaseHeader() = default;
  ~DatabaseHeader();

  DatabaseHeader(const DatabaseHeader&) = delete;
  DatabaseHeader& operator=(const DatabaseHeader&) = delete;

  // The counter of db's main file, opening it at the first call; false when
  // the file cannot be read, is shorter than the header, or is in WAL mode
  // (where commits leave the counter alone).
  bool readCounter(sqlite3* db, uint32_t& value);

  // Closes the file; the next read opens the file of the connection given.
  void close();

 private:
  int fd_ = -1;
};

#endif  // WIDGETENGINE_DATABASEHEADER_H_
