// SPDX-License-Identifier: Apache-2.0
#include "host/WidgetNetwork.h"

#include <cerrno>
#include <cstring>
#include <iostream>
#include <string>

#include "host/RefusalLines.h"

namespace {

// What a widget needs no network for. Preconnect and DNS prefetch open
// connections and send lookups without any request the gate could refuse;
// a service worker would keep a granted origin's code running between
// pages and outside the page's policy.
const char* const kSwitchedOff[] = {
    "LinkPreconnect",  "LinkPreconnectEarlyHints",
    "LinkDNSPrefetch", "LinkPrefetch",
    "ServiceWorkers",  "ServiceWorkerNavigationPreload",
};

void switchOff(WebKitSettings* settings) {
  WebKitFeatureList* features = webkit_settings_get_all_features();
  for (gsize i = 0; i < webkit_feature_list_get_length(features); ++i) {
    WebKitFeature* feature = webkit_feature_list_get(features, i);
    const char* id = webkit_feature_get_identifier(feature);
    for (const char* name : kSwitchedOff)
      if (id != nullptr && strcmp(id, name) == 0)
        webkit_settings_set_feature_enabled(settings, feature, FALSE);
  }
  webkit_feature_list_unref(features);
}

}  // namespace

bool WidgetNetwork::confine(WebKitWebContext* context, WebKitSettings* settings,
                            const AccessPolicy& policy, bool gate) {
  switchOff(settings);
  if (!gate) return true;
  gate_ =
      std::make_unique<NetworkGate>(policy, RefusalLines::write);
  if (!gate_->start()) {
    std::cerr << "widget-browser: cannot start the network gate: "
              << strerror(errno) << std::endl;
    gate_.reset();
    return false;
  }
  // Every scheme, and no host left out: loopback too goes through the gate.
  const char* const noExceptions[] = {nullptr};
  WebKitNetworkProxySettings* proxy =
      webkit_network_proxy_settings_new(gate_->address().c_str(), noExceptions);
  webkit_website_data_manager_set_network_proxy_settings(
      webkit_web_context_get_website_data_manager(context),
      WEBKIT_NETWORK_PROXY_MODE_CUSTOM, proxy);
  webkit_network_proxy_settings_free(proxy);
  return true;
}
