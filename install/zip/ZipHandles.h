// SPDX-License-Identifier: Apache-2.0
// Owning handles for libzip's archive and entry readers. An archive handle
// that goes without zip_close() is discarded: nothing is ever written back
// to a package.
#ifndef WIDGETENGINE_ZIP_ZIPHANDLES_H_
#define WIDGETENGINE_ZIP_ZIPHANDLES_H_

#include <zip.h>

#include <memory>

struct ArchiveDiscarder {
  void operator()(zip_t* archive) const { zip_discard(archive); }
};
using ArchivePtr = std::unique_ptr<zip_t, ArchiveDiscarder>;

struct EntryCloser {
  void operator()(zip_file_t* entry) const { zip_fclose(entry); }
};
using EntryPtr = std::unique_ptr<zip_file_t, EntryCloser>;

#endif  // WIDGETENGINE_ZIP_ZIPHANDLES_H_
