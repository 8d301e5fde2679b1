// SPDX-License-Identifier: Apache-2.0
// The stream the widget:// scheme serves large files from, read as WebKit
// reads it (asynchronously, from the main loop) on real files.
#include "host/FileStream.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "testing/TempDir.h"

namespace {

std::string pattern(size_t size) {
  std::string text(size, '\0');
  for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 7 + i / 251);
  return text;
}

struct AsyncReader {
  GMainLoop* loop = nullptr;
  GInputStream* stream = nullptr;
  char buffer[8192];
  std::string got;
  std::string error;
};

void readNext(AsyncReader* reader);

void onRead(GObject* source, GAsyncResult* result, gpointer data) {
  auto* reader = static_cast<AsyncReader*>(data);
  GError* error = nullptr;
  const gssize n =
      g_input_stream_read_finish(G_INPUT_STREAM(source), result, &error);
  if (n < 0) {
    reader->error = error->message;
    g_error_free(error);
  }
  if (n <= 0) {
    g_main_loop_quit(reader->loop);
    return;
  }
  reader->got.append(reader->buffer, static_cast<size_t>(n));
  readNext(reader);
}

void readNext(AsyncReader* reader) {
  g_input_stream_read_async(reader->stream, reader->buffer,
                            sizeof reader->buffer, G_PRIORITY_DEFAULT,
                            nullptr, onRead, reader);
}

class FileStreamTest : public ::testing::Test {
 public:
  int openFile(const std::string& content) {
    const std::string path = dir.file("file" + std::to_string(files++));
    TempDir::writeFile(path, content);
    return open(path.c_str(), O_RDONLY | O_CLOEXEC);
  }

  TempDir dir;
  int files = 0;
};

TEST_F(FileStreamTest, ReadsTheWholeFileAsynchronously) {
  const std::string content = pattern(3 * FileStream::kLargeFile + 12345);
  AsyncReader reader;
  reader.loop = g_main_loop_new(nullptr, FALSE);
  reader.stream = FileStream::create(openFile(content));
  readNext(&reader);
  g_main_loop_run(reader.loop);
  EXPECT_EQ("", reader.error);
  EXPECT_TRUE(reader.got == content) << reader.got.size();
  g_object_unref(reader.stream);
  g_main_loop_unref(reader.loop);
}

TEST_F(FileStreamTest, ReadsTheWholeFileSynchronously) {
  const std::string content = pattern(FileStream::kLargeFile + 1);
  GInputStream* stream = FileStream::create(openFile(content));
  std::string got;
  char buffer[65536];
  gssize n;
  while ((n = g_input_stream_read(stream, buffer, sizeof buffer, nullptr,
                                  nullptr)) > 0)
    got.append(buffer, static_cast<size_t>(n));
  EXPECT_EQ(0, n);
  EXPECT_TRUE(got == content) << got.size();
  EXPECT_TRUE(g_input_stream_close(stream, nullptr, nullptr));
  g_object_unref(stream);
}

// Large responses take turns: those beyond the bound wait until a running
// one ends, by its end of file or by being dropped unread.
TEST_F(FileStreamTest, LargeResponsesTakeTurns) {
  struct Responses {
    FileStreamTest* test;
    std::vector<GInputStream*> streams;
  } responses{this, {}};
  // What the scheme does once it is a response's turn.
  auto begin = [](void* data) {
    auto* r = static_cast<Responses*>(data);
    r->streams.push_back(FileStream::create(r->test->openFile("x")));
  };
  const size_t bound = FileStream::kConcurrentLarge;
  for (size_t i = 0; i < bound + 2; ++i) FileStream::whenFree(begin, &responses);
  ASSERT_EQ(bound, responses.streams.size());
  // A read to its end lets one waiting response begin.
  char buffer[16];
  EXPECT_EQ(1, g_input_stream_read(responses.streams[0], buffer, sizeof buffer,
                                   nullptr, nullptr));
  EXPECT_EQ(bound, responses.streams.size());
  EXPECT_EQ(0, g_input_stream_read(responses.streams[0], buffer, sizeof buffer,
                                   nullptr, nullptr));
  ASSERT_EQ(bound + 1, responses.streams.size());
  // One dropped unread lets the last one begin.
  g_object_unref(responses.streams[1]);
  responses.streams[1] = nullptr;
  ASSERT_EQ(bound + 2, responses.streams.size());
  for (GInputStream* stream : responses.streams)
    if (stream != nullptr) g_object_unref(stream);
}

}  // namespace
