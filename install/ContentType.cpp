// SPDX-License-Identifier: Apache-2.0
#include "install/ContentType.h"

#include <cstring>

const char* const ContentType::kUnknown = "unknown";

namespace {

struct ExtensionType {
  const char* extension;
  const char* type;
};

// Tried in order; the match is exact, so "JPG" or "jpeg" are not known.
const ExtensionType kExtensions[] = {
    {"html", "text/html"},
    {"htm", "text/html"},
    {"css", "text/css"},
    {"js", "application/javascript"},
    {"xml", "application/xml"},
    {"txt", "text/plain"},
    {"wav", "audio/x-wav"},
    {"xhtml", "application/xhtml+xml"},
    {"xht", "application/xhtml+xml"},
    {"gif", "image/gif"},
    {"png", "image/png"},
    {"ico", "image/vnd.microsoft.icon"},
    {"svg", "image/svg+xml"},
    {"jpg", "image/jpeg"},
};

}  // namespace

std::string ContentType::fromExtension(const std::string& fileName) {
  // A name without a dot is its own extension, so a file named "html" is
  // taken for an HTML page.
  const size_t dot = fileName.rfind('.');
  const std::string extension =
      dot == std::string::npos ? fileName : fileName.substr(dot + 1);
  for (const ExtensionType& entry : kExtensions) {
    if (extension == entry.extension) return entry.type;
  }
  return kUnknown;
}

std::string ContentType::fromContent(FILE* file) {
  if (!file) return kUnknown;
  rewind(file);
  unsigned char b[8];
  // Every signature is judged on a full eight-byte header; a shorter file is
  // never recognised, even when its first bytes would match.
  if (fread(b, 1, sizeof(b), file) != sizeof(b)) return kUnknown;

  if (b[0] == 0xFF && b[1] == 0xD8) return "image/jpeg";
  if (b[0] == 0x00 && b[1] == 0x00 && b[2] == 0x01 && b[3] == 0x00) {
    return "image/vnd.microsoft.icon";
  }
  if (memcmp(b, "GIF8", 4) == 0 && (b[4] == '7' || b[4] == '9') &&
      b[5] == 'a') {
    return "image/gif";
  }
  static const unsigned char kPng[8] = {0x89, 'P',  'N',  'G',
                                        0x0D, 0x0A, 0x1A, 0x0A};
  if (memcmp(b, kPng, sizeof(kPng)) == 0) return "image/png";
  return kUnknown;
}
