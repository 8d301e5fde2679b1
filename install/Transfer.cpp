// SPDX-License-Identifier: Apache-2.0
#include "install/Transfer.h"

#include <strings.h>

#include <cctype>
#include <cstring>

#include "base/Settings.h"

namespace transfer {

std::string schemeOf(const std::string& url) {
  CURLU* parsed = curl_url();
  if (parsed == nullptr) return std::string();
  std::string scheme;
  char* part = nullptr;
  if (curl_url_set(parsed, CURLUPART_URL, url.c_str(),
                   CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK &&
      curl_url_get(parsed, CURLUPART_SCHEME, &part, 0) == CURLUE_OK) {
    scheme = part;
    for (char& c : scheme) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  }
  curl_free(part);
  curl_url_cleanup(parsed);
  return scheme;
}

bool restrictProtocols(CURL* curl, const char* protocols) {
#if LIBCURL_VERSION_NUM >= 0x075500  // 7.85.0 has the string options
  return curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, protocols) == CURLE_OK &&
         curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, protocols) ==
             CURLE_OK;
#else
  long allowed = CURLPROTO_HTTP | CURLPROTO_HTTPS;
  if (strstr(protocols, "file") != nullptr) allowed |= CURLPROTO_FILE;
  return curl_easy_setopt(curl, CURLOPT_PROTOCOLS, allowed) == CURLE_OK &&
         curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS, allowed) == CURLE_OK;
#endif
}

std::string headerValue(const char* data, size_t size, const char* name) {
  const size_t length = strlen(name);
  if (size < length || strncasecmp(data, name, length) != 0) return std::string();
  size_t start = length;
  while (start < size && isspace(static_cast<unsigned char>(data[start]))) ++start;
  while (size > start && isspace(static_cast<unsigned char>(data[size - 1]))) --size;
  return std::string(data + start, size - start);
}

bool isHeaderValue(const std::string& text) {
  for (char c : text) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if ((byte < 0x20 && byte != '\t') || byte == 0x7f) return false;
  }
  return true;
}

void boundSilence(CURL* curl) {
  const long stall = settings::stallSeconds();
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, stall);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, stall);
}

}  // namespace transfer
