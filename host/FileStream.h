// SPDX-License-Identifier: Apache-2.0
// FileStream is what the widget:// scheme hands WebKit to read a large file
// from. WebKit reads a response's stream as fast as the stream answers and
// queues what it read for the web process without waiting for it to be
// consumed, so a widget that reads a large file several times at once would
// have the browser hold every copy. These streams share one budget of the
// browser's own memory and wait, instead of reading, while it is spent.
#ifndef WIDGETENGINE_HOST_FILESTREAM_H_
#define WIDGETENGINE_HOST_FILESTREAM_H_

#include <gio/gio.h>

#include <cstddef>

class FileStream {
 public:
  // Files smaller than this are handed to WebKit as they are: they fit in
  // the budget many times over, and most of a page is made of them.
  static constexpr goffset kLargeFile = 1 << 20;
  // How far the browser's resident memory may grow above what it was when
  // the first of the current large responses began.
  static constexpr size_t kBudgetBytes = 32u << 20;
  // At most this many large responses are read at a time; the others wait
  // for one to end (FileStream::whenFree).
  static constexpr int kConcurrentLarge = 2;

  // A new stream that reads fd from its start (and closes it); the caller
  // owns the reference. Only main-thread callers.
  static GInputStream* create(int fd);

  // Runs ready(data) once fewer than kConcurrentLarge large responses are
  // being read: now, or when one of them ends.
  static void whenFree(void (*ready)(void* data), void* data);
};

#endif  // WIDGETENGINE_HOST_FILESTREAM_H_
