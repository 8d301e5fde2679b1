// SPDX-License-Identifier: Apache-2.0
#include "host/AccessPolicy.h"

#include <glib.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cstdlib>
#include <cstring>
#include <sstream>

namespace {

const char kWidgetsNamespace[] = "http://www.w3.org/ns/widgets";

bool hasScheme(const std::string& url, const char* scheme) {
  const size_t length = strlen(scheme);
  return url.size() > length && url[length] == ':' &&
         g_ascii_strncasecmp(url.c_str(), scheme, length) == 0;
}

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}

// An attribute read as a single value: surrounding white space dropped and
// inner runs of it made one space.
std::string singleValue(const xmlChar* raw) {
  std::string out;
  bool pendingSpace = false;
  for (const char* c = reinterpret_cast<const char*>(raw); *c; ++c) {
    if (isSpace(*c)) {
      pendingSpace = !out.empty();
      continue;
    }
    if (pendingSpace) out += ' ';
    pendingSpace = false;
    out += *c;
  }
  return out;
}

bool inWidgetsNamespace(const xmlNode* node, const char* name) {
  return node->type == XML_ELEMENT_NODE && node->ns != nullptr &&
         strcmp(reinterpret_cast<const char*>(node->ns->href),
                kWidgetsNamespace) == 0 &&
         strcmp(reinterpret_cast<const char*>(node->name), name) == 0;
}

std::string attribute(const xmlNode* node, const char* name, bool* present) {
  xmlChar* value = xmlGetNoNsProp(node, reinterpret_cast<const xmlChar*>(name));
  *present = value != nullptr;
  if (value == nullptr) return std::string();
  std::string result = singleValue(value);
  xmlFree(value);
  return result;
}

int defaultPort(const std::string& scheme) {
  if (scheme == "http" || scheme == "ws") return 80;
  if (scheme == "https" || scheme == "wss") return 443;
  return -1;
}

std::string lower(std::string text) {
  for (char& c : text) c = g_ascii_tolower(c);
  return text;
}

// A DNS name (letters, digits, "-" and "." only) or an IP address.
bool validHost(const std::string& host) {
  if (host.empty()) return false;
  if (g_hostname_is_ip_address(host.c_str())) return true;
  for (char c : host)
    if (!g_ascii_isalnum(c) && c != '-' && c != '.') return false;
  return host.front() != '.' && host.back() != '.';
}

struct Origin {
  std::string scheme;
  std::string host;
  int port = -1;
};

// scheme://host[:port] and nothing else, host in its ASCII form; false for
// anything with user information, a path, a query or a fragment.
bool parseOrigin(const std::string& text, Origin* origin) {
  GUri* uri = g_uri_parse(text.c_str(), G_URI_FLAGS_NONE, nullptr);
  if (uri == nullptr) return false;
  const char* host = g_uri_get_host(uri);
  const char* path = g_uri_get_path(uri);
  const bool bare = g_uri_get_userinfo(uri) == nullptr && host != nullptr &&
                    *host != '\0' && (path == nullptr || *path == '\0') &&
                    g_uri_get_query(uri) == nullptr &&
                    g_uri_get_fragment(uri) == nullptr;
  if (bare) {
    origin->scheme = lower(g_uri_get_scheme(uri));
    char* ascii = g_hostname_to_ascii(host);
    origin->host = ascii ? lower(ascii) : std::string();
    g_free(ascii);
    origin->port = g_uri_get_port(uri);
    if (origin->port < 0) origin->port = defaultPort(origin->scheme);
  }
  g_uri_unref(uri);
  return bare && validHost(origin->host) && origin->port > 0;
}

}  // namespace

AccessPolicy AccessPolicy::fromDocument(const std::string& xml) {
  AccessPolicy policy;
  // No network, no entity expansion: the document is the widget author's.
  xmlDoc* doc = xmlReadMemory(
      xml.data(), static_cast<int>(xml.size()), "config.xml", nullptr,
      XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
  if (doc == nullptr) return policy;
  const xmlNode* root = xmlDocGetRootElement(doc);
  if (root != nullptr && inWidgetsNamespace(root, "widget")) {
    // Only children of the widget element count: an access element nested
    // in another one is not a request.
    for (const xmlNode* node = root->children; node; node = node->next) {
      if (!inWidgetsNamespace(node, "access")) continue;
      bool hasOrigin = false;
      bool hasSubdomains = false;
      const std::string origin = attribute(node, "origin", &hasOrigin);
      const std::string subdomains =
          attribute(node, "subdomains", &hasSubdomains);
      if (!hasOrigin) continue;
      if (origin == "*") {
        policy.all_ = true;
        continue;
      }
      if (hasSubdomains && subdomains != "true" && subdomains != "false")
        continue;
      Origin parsed;
      if (!parseOrigin(origin, &parsed)) continue;
      if (parsed.scheme != "http" && parsed.scheme != "https") continue;
      policy.grants_.push_back(
          Grant{parsed.scheme, parsed.host, parsed.port, subdomains == "true"});
    }
  }
  xmlFreeDoc(doc);
  return policy;
}

AccessPolicy AccessPolicy::fromFile(const std::string& path) {
  gchar* text = nullptr;
  gsize size = 0;
  if (!g_file_get_contents(path.c_str(), &text, &size, nullptr))
    return AccessPolicy();
  AccessPolicy policy = fromDocument(std::string(text, size));
  g_free(text);
  return policy;
}

// "*" alone, or "scheme host port subdomains" per grant, separated by ";".
std::string AccessPolicy::serialize() const {
  if (all_) return "*";
  std::string out;
  for (const Grant& grant : grants_) {
    if (!out.empty()) out += ";";
    out += grant.scheme + " " + grant.host + " " + std::to_string(grant.port) +
           (grant.subdomains ? " 1" : " 0");
  }
  return out;
}

AccessPolicy AccessPolicy::deserialize(const std::string& text) {
  AccessPolicy policy;
  if (text == "*") {
    policy.all_ = true;
    return policy;
  }
  std::istringstream entries(text);
  std::string entry;
  while (std::getline(entries, entry, ';')) {
    std::istringstream fields(entry);
    Grant grant;
    int subdomains = 0;
    if (fields >> grant.scheme >> grant.host >> grant.port >> subdomains) {
      grant.subdomains = subdomains == 1;
      policy.grants_.push_back(grant);
    }
  }
  return policy;
}

bool AccessPolicy::allows(const std::string& url) const {
  GUri* uri = g_uri_parse(url.c_str(), G_URI_FLAGS_NONE, nullptr);
  if (uri == nullptr) return false;
  const std::string scheme = lower(g_uri_get_scheme(uri));
  const char* rawHost = g_uri_get_host(uri);
  const std::string host = lower(rawHost ? rawHost : "");
  int port = g_uri_get_port(uri);
  g_uri_unref(uri);
  if (port < 0) port = defaultPort(scheme);
  if (port < 0 || host.empty()) return false;  // not a web address
  if (all_) return true;
  // A WebSocket is granted by the origin whose requests it upgrades.
  const std::string web = scheme == "ws"    ? "http"
                          : scheme == "wss" ? "https"
                                            : scheme;
  for (const Grant& grant : grants_) {
    if (grant.scheme != web || grant.port != port) continue;
    if (host == grant.host) return true;
    if (grant.subdomains && host.size() > grant.host.size() + 1 &&
        host.compare(host.size() - grant.host.size(), grant.host.size(),
                     grant.host) == 0 &&
        host[host.size() - grant.host.size() - 1] == '.')
      return true;
  }
  return false;
}

std::string AccessPolicy::cspSources() const {
  // Not "*": it would also match the widget's own scheme, that is every
  // other widget.
  if (all_) return "http: https: ws: wss:";
  std::string out;
  for (const Grant& grant : grants_) {
    // A policy has no way to write an IPv6 address: such a grant stays
    // without effect rather than make the policy malformed.
    if (grant.host.find(':') != std::string::npos) continue;
    const std::string socket = grant.scheme == "https" ? "wss" : "ws";
    const std::string port = ":" + std::to_string(grant.port);
    for (const std::string& scheme : {grant.scheme, socket}) {
      if (!out.empty()) out += " ";
      out += scheme + "://" + grant.host + port;
      if (grant.subdomains) out += " " + scheme + "://*." + grant.host + port;
    }
  }
  return out;
}

std::string AccessPolicy::widgetAuthority(const std::string& url) {
  static const char kPrefix[] = "widget://";
  const size_t start = sizeof kPrefix - 1;
  if (url.size() < start ||
      g_ascii_strncasecmp(url.c_str(), kPrefix, start) != 0)
    return std::string();
  return url.substr(start, url.find_first_of("/?#", start) - start);
}

std::string AccessPolicy::refusal(const std::string& shown,
                                  const std::string& url,
                                  bool navigation) const {
  if (hasScheme(url, "widget")) {
    if (shown.empty()) return "a widget's files, from a page";
    return widgetAuthority(url) == shown ? "" : "another widget's files";
  }
  if (shown.empty()) return "";  // plain pages go where they like
  if (hasScheme(url, "file")) return "a file:// address, from a widget";
  // Empty frames, and what the page holds itself, fetched from nowhere. A
  // data: or blob: document, though, would be a page without the widget's
  // Content-Security-Policy.
  if (url == "about:blank" || url == "about:srcdoc") return "";
  if (!navigation && (hasScheme(url, "data") || hasScheme(url, "blob")))
    return "";
  if (hasScheme(url, "http") || hasScheme(url, "https") ||
      hasScheme(url, "ws") || hasScheme(url, "wss"))
    return allows(url) ? "" : kNotGranted;
  return "an address a widget may not reach";
}
