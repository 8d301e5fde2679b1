// SPDX-License-Identifier: Apache-2.0
#include "update/UpdateChecker.h"

#include <curl/curl.h>
#include <strings.h>

#include <iostream>
#include <memory>
#include <utility>

#include <widgetengine/WidgetEngineExtensions.h>

#include "base/EngineOutput.h"
#include "base/Settings.h"
#include "config/WidgetConfigParser.h"
#include "config/XmlText.h"
#include "install/Transfer.h"
#include "registry/SqlLite3.h"
#include "registry/WidgetsData.h"
#include "update/UpdateDescription.h"

namespace {

// An update description is fetched from the web only: a file address in a
// widget's config.xml would have the engine read whatever local file its
// author chose.
constexpr char kProtocols[] = "http,https";

// What a server answered.
struct Reply {
  long status = 0;
  std::string body;
  bool overlong = false;
  std::string etag;
  std::string lastModified;
  std::string contentType;
};

size_t keepBody(char* data, size_t size, size_t count, void* target) {
  Reply* reply = static_cast<Reply*>(target);
  const size_t bytes = size * count;
  if (bytes > UpdateDescription::kLargestDocument - reply->body.size()) {
    reply->overlong = true;
    return 0;
  }
  reply->body.append(data, bytes);
  return bytes;
}

// Keeps the validators and the media type of the answer's head.
size_t keepHeader(char* data, size_t size, size_t count, void* target) {
  Reply* reply = static_cast<Reply*>(target);
  const size_t bytes = size * count;
  const struct {
    const char* name;
    std::string Reply::*field;
  } kept[] = {{"etag:", &Reply::etag},
              {"last-modified:", &Reply::lastModified},
              {"content-type:", &Reply::contentType}};
  for (const auto& header : kept) {
    std::string value = transfer::headerValue(data, bytes, header.name);
    if (!value.empty()) reply->*header.field = std::move(value);
  }
  return bytes;
}

// The description is XML; a server that calls it something else sent
// something else (an error page behind a 200, a captive portal's form).
bool isXml(const std::string& contentType) {
  const std::string type = contentType.substr(0, contentType.find(';'));
  const std::string bare = xmltext::normalizeSpace(type);
  return strcasecmp(bare.c_str(), "application/xml") == 0 ||
         strcasecmp(bare.c_str(), "text/xml") == 0;
}

struct CurlFree {
  void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
};
struct ListFree {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

// One GET of url, conditional on kept when it is not null. Redirects are
// not followed: the answer is the status.
Outcome fetch(const std::string& url, const SqlLite3::UpdateAnswer* kept,
              const std::string& languages, Reply* reply) {
  const std::string scheme = transfer::schemeOf(url);
  if (scheme != "http" && scheme != "https") {
    return Outcome(WIDGETENGINE_REFUSAL_ADDRESS,
                   "the update description " + url +
                       " is not an http or https address");
  }
  std::unique_ptr<CURL, CurlFree> curl(curl_easy_init());
  if (!curl || !transfer::restrictProtocols(curl.get(), kProtocols)) {
    return Outcome(WIDGETENGINE_REFUSAL_DOWNLOAD,
                   "cannot fetch " + url + ": libcurl cannot be set up");
  }
  std::unique_ptr<curl_slist, ListFree> headers;
  // A value that could end its line is not sent at all.
  const auto add = [&headers](const std::string& name, const std::string& value) {
    if (value.empty() || !transfer::isHeaderValue(value)) return;
    curl_slist* longer = curl_slist_append(headers.get(), (name + value).c_str());
    if (longer != nullptr) {
      headers.release();
      headers.reset(longer);
    }
  };
  if (kept != nullptr) {
    add("If-None-Match: ", kept->etag);
    add("If-Modified-Since: ", kept->lastModified);
  }
  add("Accept-Language: ", languages);
  CURL* handle = curl.get();
  curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, keepBody);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, reply);
  curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, keepHeader);
  curl_easy_setopt(handle, CURLOPT_HEADERDATA, reply);
  curl_easy_setopt(handle, CURLOPT_MAXFILESIZE_LARGE,
                   static_cast<curl_off_t>(UpdateDescription::kLargestDocument));
  transfer::boundSilence(handle);
  // A description is small: a server that trickles it a byte at a time,
  // never quite silent, is cut off too.
  curl_easy_setopt(handle, CURLOPT_TIMEOUT, 2 * settings::stallSeconds());
  const CURLcode result = curl_easy_perform(handle);
  curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &reply->status);
  if (reply->overlong || result == CURLE_FILESIZE_EXCEEDED) {
    return Outcome(WIDGETENGINE_REFUSAL_DOWNLOAD,
                   "the update description " + url + " is larger than " +
                       std::to_string(UpdateDescription::kLargestDocument / 1024) +
                       " KiB");
  }
  if (result != CURLE_OK) {
    return Outcome(WIDGETENGINE_REFUSAL_DOWNLOAD,
                   "cannot fetch " + url + ": " + curl_easy_strerror(result),
                   result);
  }
  return Outcome();
}

// The answer a reply gives, from its body or, for a 304, from kept.
Outcome settle(const std::string& url, const Reply& reply,
               const SqlLite3::UpdateAnswer* kept, std::string* document,
               bool* notModified) {
  *notModified = false;
  if (reply.status == 304 && kept != nullptr) {
    *document = kept->document;
    *notModified = true;
    return Outcome();
  }
  if (reply.status != 200) {
    return Outcome(WIDGETENGINE_REFUSAL_HTTP_STATUS,
                   "HTTP status " + std::to_string(reply.status) + " from " + url,
                   reply.status);
  }
  if (!isXml(reply.contentType)) {
    return Outcome(WIDGETENGINE_REFUSAL_DOWNLOAD,
                   "the update description " + url + " is served as " +
                       (reply.contentType.empty() ? std::string("no type")
                                                  : reply.contentType) +
                       ", not application/xml");
  }
  *document = reply.body;
  return Outcome();
}

}  // namespace

UpdateChecker::UpdateChecker(SqlLite3* registry, const std::string& languages,
                             const std::vector<std::string>& locales)
    : registry_(registry), languages_(languages), locales_(locales) {}

UpdateCheck UpdateChecker::check(const WidgetsData& widget) {
  UpdateCheck check;
  check.name = widget.getName();
  check.installedVersion = widget.getVersion();
  check.outcome = WidgetConfigParser::readUpdateDescription(
      widget.getStoragePath() + "config.xml", &check.href);
  if (check.outcome.ok() && !check.href.empty()) {
    SqlLite3::UpdateAnswer kept;
    const bool haveKept =
        registry_->readUpdateAnswer(widget.getId(), check.href, &kept);
    Reply reply;
    std::string document;
    check.outcome = fetch(check.href, haveKept ? &kept : nullptr, languages_, &reply);
    if (check.outcome.ok()) {
      check.outcome = settle(check.href, reply, haveKept ? &kept : nullptr,
                             &document, &check.notModified);
    }
    UpdateDescription description;
    if (check.outcome.ok()) check.outcome = description.parse(document, check.href);
    if (check.outcome.ok()) {
      check.available = description.differsFrom(check.installedVersion);
      check.version = description.version();
      check.src = description.src();
      check.details = description.details(locales_);
      // Only a document that can answer a later 304 is worth keeping.
      if (!check.notModified && (!reply.etag.empty() || !reply.lastModified.empty())) {
        registry_->keepUpdateAnswer(widget.getId(), check.href,
                                    {reply.etag, reply.lastModified, document});
      }
    }
  }
  if (!check.outcome.ok()) {
    engineError() << "Update check of " << check.name
                  << " failed: " << check.outcome.reason() << std::endl;
  }
  return check;
}
