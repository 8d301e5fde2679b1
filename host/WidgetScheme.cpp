// SPDX-License-Identifier: Apache-2.0
#include "host/WidgetScheme.h"

#include <fcntl.h>
#include <gio/gunixinputstream.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "host/FileStream.h"
#include "host/RefusalLines.h"

namespace {

const char kPrefix[] = "widget://";

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// The media types a widget's pages are made of, by file name extension.
// GIO's guess depends on the shared MIME database being installed and names
// scripts differently from release to release; pages must not depend on it.
struct MediaType {
  const char* extension;
  const char* type;
};
const MediaType kMediaTypes[] = {
    {"html", "text/html"},
    {"htm", "text/html"},
    {"xhtml", "application/xhtml+xml"},
    {"xht", "application/xhtml+xml"},
    {"css", "text/css"},
    {"js", "text/javascript"},
    {"mjs", "text/javascript"},
    {"json", "application/json"},
    {"xml", "application/xml"},
    {"svg", "image/svg+xml"},
    {"txt", "text/plain"},
    {"png", "image/png"},
    {"jpg", "image/jpeg"},
    {"jpeg", "image/jpeg"},
    {"gif", "image/gif"},
    {"webp", "image/webp"},
    {"ico", "image/x-icon"},
    {"bmp", "image/bmp"},
    {"woff", "font/woff"},
    {"woff2", "font/woff2"},
    {"ttf", "font/ttf"},
    {"otf", "font/otf"},
    {"wasm", "application/wasm"},
    {"mp3", "audio/mpeg"},
    {"ogg", "audio/ogg"},
    {"oga", "audio/ogg"},
    {"wav", "audio/wav"},
    {"mp4", "video/mp4"},
    {"webm", "video/webm"},
    {"ogv", "video/ogg"},
};

std::string mediaType(const std::string& path) {
  const size_t slash = path.rfind('/');
  const size_t dot = path.rfind('.');
  if (dot != std::string::npos && (slash == std::string::npos || dot > slash)) {
    const std::string extension = path.substr(dot + 1);
    for (const MediaType& known : kMediaTypes)
      if (g_ascii_strcasecmp(known.extension, extension.c_str()) == 0)
        return known.type;
  }
  std::string type = "application/octet-stream";
  gboolean uncertain = TRUE;
  char* guessed = g_content_type_guess(path.c_str(), nullptr, 0, &uncertain);
  if (guessed != nullptr && !uncertain) {
    char* mime = g_content_type_get_mime_type(guessed);
    if (mime != nullptr) type = mime;
    g_free(mime);
  }
  g_free(guessed);
  return type;
}

// The path of a widget:// address, unescaped and checked: "/a/b.html", or ""
// and why. WebKit resolves dot segments before a request is made, so one
// that is still there, escaped separators and back slashes are someone
// trying to climb out of the widget's directory.
std::string requestPath(const std::string& url, std::string* why) {
  const size_t start = url.find('/', sizeof kPrefix - 1);
  if (start == std::string::npos) {
    *why = "a directory, not a file";
    return std::string();
  }
  const std::string raw =
      url.substr(start, url.find_first_of("?#", start) - start);
  std::string lowered = raw;
  for (char& c : lowered) c = g_ascii_tolower(c);
  if (raw.find('\\') != std::string::npos ||
      lowered.find("%5c") != std::string::npos ||
      lowered.find("%2f") != std::string::npos ||
      lowered.find("%00") != std::string::npos) {
    *why = "a path that climbs out of the widget's directory";
    return std::string();
  }
  char* plain = g_uri_unescape_string(raw.c_str(), nullptr);
  if (plain == nullptr) {
    *why = "a malformed path";
    return std::string();
  }
  std::string path;
  const std::string unescaped = plain;
  g_free(plain);
  size_t at = 0;
  while (at < unescaped.size()) {
    size_t end = unescaped.find('/', at);
    if (end == std::string::npos) end = unescaped.size();
    const std::string segment = unescaped.substr(at, end - at);
    if (segment == "." || segment == "..") {
      *why = "a path that climbs out of the widget's directory";
      return std::string();
    }
    if (!segment.empty()) path += "/" + segment;
    at = end + 1;
  }
  if (path.empty() || unescaped.back() == '/') {
    *why = "a directory, not a file";
    return std::string();
  }
  return path;
}

// Answers request with the bytes of stream, whose reference it takes.
void respond(WebKitURISchemeRequest* request, GInputStream* stream,
             goffset size, const std::string& type, const std::string& csp) {
  WebKitURISchemeResponse* response =
      webkit_uri_scheme_response_new(stream, size);
  SoupMessageHeaders* headers =
      soup_message_headers_new(SOUP_MESSAGE_HEADERS_RESPONSE);
  soup_message_headers_append(headers, "Content-Security-Policy", csp.c_str());
  soup_message_headers_append(headers, "X-Content-Type-Options", "nosniff");
  // The headers replace everything set before them, the media type among
  // it; without one, nosniff would refuse every script and stylesheet.
  soup_message_headers_append(headers, "Content-Type", type.c_str());
  webkit_uri_scheme_response_set_http_headers(response, headers);
  webkit_uri_scheme_response_set_content_type(response, type.c_str());
  webkit_uri_scheme_request_finish_with_response(request, response);
  g_object_unref(response);
  g_object_unref(stream);
}

// A name is its own authority when a Content-Security-Policy can name it
// as a host source and a URL parser keeps it as it is: dot-separated labels
// of lower-case letters, digits and "-", each beginning and ending with a
// letter or digit. The hexadecimal form begins with "x-", which no plain
// name may, so the two never meet.
bool plainAuthority(const std::string& name) {
  if (name.empty() || startsWith(name, "x-")) return false;
  size_t labelStart = 0;
  for (size_t i = 0; i <= name.size(); ++i) {
    if (i == name.size() || name[i] == '.') {
      if (i == labelStart || name[labelStart] == '-' || name[i - 1] == '-')
        return false;
      labelStart = i + 1;
      continue;
    }
    const char c = name[i];
    if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-'))
      return false;
  }
  return true;
}

}  // namespace

const char WidgetScheme::kScheme[] = "widget";

WidgetScheme::WidgetScheme(const ResourceMapper& mapper) : mapper_(mapper) {}

void WidgetScheme::registerWith(WebKitWebContext* context) {
  webkit_web_context_register_uri_scheme(context, kScheme, onRequest, this,
                                         nullptr);
}

std::string WidgetScheme::authorityFor(const std::string& name) {
  if (plainAuthority(name)) return name;
  static const char kHex[] = "0123456789abcdef";
  std::string out = "x-";
  for (unsigned char c : name) {
    out += kHex[c >> 4];
    out += kHex[c & 15];
  }
  return out;
}

void WidgetScheme::bind(const std::string& name,
                        const std::string& storagePath) {
  authority_ = authorityFor(name);
  engineDir_ = storagePath;
  while (engineDir_.size() > 1 && engineDir_.back() == '/')
    engineDir_.pop_back();
  char* real = realpath(engineDir_.c_str(), nullptr);
  realDir_ = real ? real : "";
  free(real);
  policy_ = AccessPolicy::fromFile(engineDir_ + "/config.xml");

  // The widget's own address is named besides 'self' so that the policy
  // means the same to a browser that leaves custom schemes out of 'self'.
  // Inline scripts and styles, eval, and data: or blob: images, media and
  // fonts reach nothing outside the page.
  struct Directive {
    const char* name;
    const char* local;  // sources besides the widget's own
    bool network;       // the granted origins too
  };
  static const Directive kDirectives[] = {
      {"default-src", "", true},
      {"script-src", " 'unsafe-inline' 'unsafe-eval'", true},
      {"style-src", " 'unsafe-inline'", true},
      {"img-src", " data: blob:", true},
      {"media-src", " data: blob:", true},
      {"font-src", " data:", true},
      {"connect-src", "", true},
      {"frame-src", "", true},
      {"child-src", "", true},
      {"form-action", "", true},
      {"worker-src", "", false},
      {"base-uri", "", false},
  };
  const std::string self = "'self' " + std::string(kPrefix) + authority_;
  const std::string granted = policy_.cspSources();
  csp_.clear();
  for (const Directive& directive : kDirectives) {
    csp_ += std::string(directive.name) + " " + self + directive.local;
    if (directive.network && !granted.empty()) csp_ += " " + granted;
    csp_ += "; ";
  }
  csp_ += "object-src 'none'";
}

std::string WidgetScheme::contentSecurityPolicy() const { return csp_; }

std::string WidgetScheme::addressOf(const std::string& fileAddress) const {
  if (!bound()) return std::string();
  const std::string prefix = "file://" + engineDir_ + "/";
  if (!startsWith(fileAddress, prefix)) return std::string();
  char* escaped =
      g_uri_escape_string(fileAddress.c_str() + prefix.size(), "/", FALSE);
  std::string address = std::string(kPrefix) + authority_ + "/" + escaped;
  g_free(escaped);
  return address;
}

std::string WidgetScheme::fileAddressOf(const std::string& url) const {
  if (!bound() || AccessPolicy::widgetAuthority(url) != authority_)
    return std::string();
  std::string why;
  const std::string path = requestPath(url, &why);
  return path.empty() ? std::string() : "file://" + engineDir_ + path;
}

std::string WidgetScheme::confined(const std::string& path,
                                   std::string* why) const {
  char* real = realpath(path.c_str(), nullptr);
  if (real == nullptr) {
    *why = "no such file in the widget";
    return std::string();
  }
  const std::string result = real;
  free(real);
  if (realDir_.empty() || !startsWith(result, realDir_ + "/")) {
    *why = "a file outside the widget's directory";
    return std::string();
  }
  struct stat info;
  if (stat(result.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
    *why = "a directory, not a file";
    return std::string();
  }
  return result;
}

std::string WidgetScheme::resolve(const std::string& url,
                                  std::string* why) const {
  if (!bound()) {
    *why = "no widget is shown in this window";
    return std::string();
  }
  const std::string authority = AccessPolicy::widgetAuthority(url);
  if (authority != authority_) {
    *why = authority.empty() ? "not a widget:// address"
                             : "another widget's files";
    return std::string();
  }
  const std::string path = requestPath(url, why);
  if (path.empty()) return std::string();
  std::string file = engineDir_ + path;
  // The engine answers with a file:// address of the localized copy; it is
  // confined like any other.
  const std::string mapped = mapper_.map("file://" + file);
  if (startsWith(mapped, "file://")) file = mapped.substr(7);
  return confined(file, why);
}

void WidgetScheme::onRequest(WebKitURISchemeRequest* request, gpointer self) {
  static_cast<const WidgetScheme*>(self)->serve(request);
}

void WidgetScheme::serve(WebKitURISchemeRequest* request) const {
  const char* uri = webkit_uri_scheme_request_get_uri(request);
  const std::string url = uri ? uri : "";
  std::string why;
  const std::string path = resolve(url, &why);
  int fd = -1;
  struct stat info;
  if (!path.empty()) {
    fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0 || fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
      why = std::string("cannot read it: ") + strerror(errno);
      if (fd >= 0) close(fd);
      fd = -1;
    }
  }
  if (fd < 0) {
    RefusalLines::say("refused", url, why);
    GError* error = g_error_new(G_IO_ERROR, G_IO_ERROR_PERMISSION_DENIED,
                                "%s: %s", url.c_str(), why.c_str());
    webkit_uri_scheme_request_finish_error(request, error);
    g_error_free(error);
    return;
  }
  const std::string type = mediaType(path);
  if (info.st_size < FileStream::kLargeFile) {
    respond(request, g_unix_input_stream_new(fd, TRUE), info.st_size, type,
            csp_);
    return;
  }
  // A large file waits for its turn; the request, and all it is answered
  // with, is kept until then.
  struct Waiting {
    WebKitURISchemeRequest* request;
    int fd;
    goffset size;
    std::string type;
    std::string csp;
  };
  FileStream::whenFree(
      [](void* data) {
        std::unique_ptr<Waiting> waiting(static_cast<Waiting*>(data));
        respond(waiting->request, FileStream::create(waiting->fd),
                waiting->size, waiting->type, waiting->csp);
        g_object_unref(waiting->request);
      },
      new Waiting{WEBKIT_URI_SCHEME_REQUEST(g_object_ref(request)), fd,
                  info.st_size, type, csp_});
}
