// SPDX-License-Identifier: Apache-2.0
#include "host/FileStream.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <deque>
#include <utility>

namespace {

// The budget is spent when the process's resident memory has grown by
// kBudgetBytes since the first of the running large responses began. It is
// looked at again after every kCheckEvery bytes read, and, while spent,
// every kWaitMs: what WebKit queued drains to the web process meanwhile.
const size_t kCheckEvery = 1u << 20;
const guint kWaitMs = 5;

struct Budget {
  int running = 0;        // large responses being read
  size_t baseline = 0;    // resident bytes when the first of them began
  size_t readSinceCheck = 0;
  bool spent = false;
  std::deque<std::pair<void (*)(void*), void*>> waiting;
};

Budget& budget() {
  static Budget* shared = new Budget;  // lives as long as the process
  return *shared;
}

size_t residentBytes() {
  FILE* statm = fopen("/proc/self/statm", "re");
  if (statm == nullptr) return 0;
  unsigned long pages = 0, resident = 0;
  const int got = fscanf(statm, "%lu %lu", &pages, &resident);
  fclose(statm);
  return got == 2 ? resident * static_cast<size_t>(sysconf(_SC_PAGESIZE)) : 0;
}

bool budgetSpent() {
  Budget& shared = budget();
  if (!shared.spent && shared.readSinceCheck < kCheckEvery) return false;
  shared.readSinceCheck = 0;
  shared.spent = residentBytes() > shared.baseline + FileStream::kBudgetBytes;
  return shared.spent;
}

void beginLarge() {
  Budget& shared = budget();
  if (shared.running++ == 0) {
    shared.baseline = residentBytes();
    shared.readSinceCheck = 0;
    shared.spent = false;
  }
}

void endLarge() {
  Budget& shared = budget();
  --shared.running;
  while (!shared.waiting.empty() &&
         shared.running < FileStream::kConcurrentLarge) {
    const auto next = shared.waiting.front();
    shared.waiting.pop_front();
    next.first(next.second);
  }
}

}  // namespace

// The GObject side: a GInputStream over a descriptor whose asynchronous
// reads wait while the budget is spent.
G_BEGIN_DECLS
#define WIDGET_TYPE_FILE_STREAM (widget_file_stream_get_type())
G_DECLARE_FINAL_TYPE(WidgetFileStream, widget_file_stream, WIDGET, FILE_STREAM,
                     GInputStream)
G_END_DECLS

struct _WidgetFileStream {
  GInputStream parent;
  int fd;
  bool counted;  // still one of the running large responses
};

G_DEFINE_TYPE(WidgetFileStream, widget_file_stream, G_TYPE_INPUT_STREAM)

namespace {

struct PendingRead {
  void* buffer;
  gsize count;
};

void release(WidgetFileStream* stream) {
  if (!stream->counted) return;
  stream->counted = false;
  endLarge();
}

gssize readSome(WidgetFileStream* stream, void* buffer, gsize count,
                GError** error) {
  gssize got;
  do {
    got = read(stream->fd, buffer, count);
  } while (got < 0 && errno == EINTR);
  if (got < 0) {
    const int saved = errno;
    g_set_error(error, G_IO_ERROR, g_io_error_from_errno(saved),
                "cannot read the file: %s", g_strerror(saved));
    return -1;
  }
  budget().readSinceCheck += static_cast<size_t>(got);
  if (got == 0) release(stream);  // the end: the next response may begin
  return got;
}

void readNow(GTask* task) {
  auto* stream = WIDGET_FILE_STREAM(g_task_get_source_object(task));
  auto* pending = static_cast<PendingRead*>(g_task_get_task_data(task));
  GError* error = nullptr;
  if (g_task_return_error_if_cancelled(task)) {
    g_object_unref(task);
    return;
  }
  const gssize got = readSome(stream, pending->buffer, pending->count, &error);
  if (got < 0)
    g_task_return_error(task, error);
  else
    g_task_return_int(task, got);
  g_object_unref(task);
}

gboolean readWhenAllowed(gpointer data) {
  auto* task = static_cast<GTask*>(data);
  if (!g_task_return_error_if_cancelled(task) && budgetSpent()) {
    return G_SOURCE_CONTINUE;  // again in kWaitMs
  }
  if (g_task_had_error(task)) {
    g_object_unref(task);
    return G_SOURCE_REMOVE;
  }
  readNow(task);
  return G_SOURCE_REMOVE;
}

gssize streamRead(GInputStream* input, void* buffer, gsize count,
                  GCancellable* cancellable, GError** error) {
  if (g_cancellable_set_error_if_cancelled(cancellable, error)) return -1;
  return readSome(WIDGET_FILE_STREAM(input), buffer, count, error);
}

void streamReadAsync(GInputStream* input, void* buffer, gsize count,
                     int priority, GCancellable* cancellable,
                     GAsyncReadyCallback callback, gpointer data) {
  GTask* task = g_task_new(input, cancellable, callback, data);
  g_task_set_priority(task, priority);
  g_task_set_task_data(task, new PendingRead{buffer, count}, [](gpointer p) {
    delete static_cast<PendingRead*>(p);
  });
  if (!budgetSpent()) {
    readNow(task);
    return;
  }
  g_timeout_add(kWaitMs, readWhenAllowed, task);
}

gssize streamReadFinish(GInputStream*, GAsyncResult* result, GError** error) {
  return g_task_propagate_int(G_TASK(result), error);
}

gboolean streamClose(GInputStream* input, GCancellable*, GError**) {
  auto* stream = WIDGET_FILE_STREAM(input);
  release(stream);
  if (stream->fd >= 0) close(stream->fd);
  stream->fd = -1;
  return TRUE;
}

}  // namespace

static void widget_file_stream_finalize(GObject* object) {
  auto* stream = WIDGET_FILE_STREAM(object);
  release(stream);
  if (stream->fd >= 0) close(stream->fd);
  stream->fd = -1;
  G_OBJECT_CLASS(widget_file_stream_parent_class)->finalize(object);
}

static void widget_file_stream_class_init(WidgetFileStreamClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = widget_file_stream_finalize;
  GInputStreamClass* input = G_INPUT_STREAM_CLASS(klass);
  input->read_fn = streamRead;
  input->read_async = streamReadAsync;
  input->read_finish = streamReadFinish;
  input->close_fn = streamClose;
}

static void widget_file_stream_init(WidgetFileStream* stream) {
  stream->fd = -1;
  stream->counted = false;
}

GInputStream* FileStream::create(int fd) {
  auto* stream =
      WIDGET_FILE_STREAM(g_object_new(WIDGET_TYPE_FILE_STREAM, nullptr));
  stream->fd = fd;
  stream->counted = true;
  beginLarge();
  return G_INPUT_STREAM(stream);
}

void FileStream::whenFree(void (*ready)(void* data), void* data) {
  Budget& shared = budget();
  if (shared.running < kConcurrentLarge && shared.waiting.empty()) {
    ready(data);
    return;
  }
  shared.waiting.emplace_back(ready, data);
}
