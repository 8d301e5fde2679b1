// SPDX-License-Identifier: Apache-2.0
// AccessPolicy is the network a widget may reach: the origins that the
// <access origin="..." subdomains="..."> elements of its config.xml grant
// (none without one, every web origin with origin="*"). The browser window
// turns it into the Content-Security-Policy of the widget's documents, and
// the web process asks it about every request that leaves the widget.
#ifndef WIDGETENGINE_HOST_ACCESSPOLICY_H_
#define WIDGETENGINE_HOST_ACCESSPOLICY_H_

#include <string>
#include <vector>

class AccessPolicy {
 public:
  struct Grant {
    std::string scheme;  // "http" or "https"
    std::string host;    // lower case, IDN names in their ASCII form
    int port = 0;        // the scheme's default when the origin has none
    bool subdomains = false;
  };

  // The grants of a configuration document; a document that cannot be read
  // or parsed grants nothing.
  static AccessPolicy fromDocument(const std::string& xml);
  static AccessPolicy fromFile(const std::string& path);

  // The policy in one line of text and back, to hand it to web processes.
  std::string serialize() const;
  static AccessPolicy deserialize(const std::string& text);

  // Why a request to a web origin outside the grants is refused.
  static constexpr const char* kNotGranted =
      "an origin the widget was not granted";

  bool grantsAll() const { return all_; }
  const std::vector<Grant>& grants() const { return grants_; }

  // Whether a request to url (http, https, ws or wss) is granted. A grant of
  // an http origin also lets the page open a WebSocket (ws) to the same host
  // and port, and https likewise wss: the handshake is a request to it.
  // Never across TLS: http does not grant https or wss, nor https http or ws.
  bool allows(const std::string& url) const;

  // Why a page of the widget whose widget:// authority is shown ("" for a
  // plain page, not a widget) may not load url: as a request (navigation
  // false) or as the document of a frame or of the window. "" when it may.
  std::string refusal(const std::string& shown, const std::string& url,
                      bool navigation) const;

  // The authority of a widget:// address ("clock" in widget://clock/a.html),
  // or "" for any other address.
  static std::string widgetAuthority(const std::string& url);

  // The granted origins as Content-Security-Policy sources, with their
  // WebSocket twins; "" when nothing is granted. A policy cannot be as
  // exact as allows(): WebKit lets http://h:p and ws://h:p match https and
  // wss of the same host and port too. The network gate holds that line.
  std::string cspSources() const;

 private:
  bool all_ = false;
  std::vector<Grant> grants_;
};

#endif  // WIDGETENGINE_HOST_ACCESSPOLICY_H_
