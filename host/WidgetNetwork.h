// SPDX-License-Identifier: Apache-2.0
// WidgetNetwork is the network side of a widget's window: it starts the
// NetworkGate for the widget's grants, points WebKit at it for every
// request of every kind, and switches off what reaches the network without
// a request (link preconnect and DNS prefetch) or outlives the page
// (service workers). Plain pages are left as they are.
#ifndef WIDGETENGINE_HOST_WIDGETNETWORK_H_
#define WIDGETENGINE_HOST_WIDGETNETWORK_H_

#include <webkit2/webkit2.h>

#include <memory>

#include "host/AccessPolicy.h"
#include "host/NetworkGate.h"

class WidgetNetwork {
 public:
  WidgetNetwork() = default;
  WidgetNetwork(const WidgetNetwork&) = delete;
  WidgetNetwork& operator=(const WidgetNetwork&) = delete;

  // Confines context and the view's settings to policy. With gate false (a
  // measuring switch) requests go out directly, held by the
  // Content-Security-Policy and the web process's checks only. False, with
  // a line on standard error, when the gate cannot start: then nothing may
  // be loaded.
  bool confine(WebKitWebContext* context, WebKitSettings* settings,
               const AccessPolicy& policy, bool gate);

 private:
  std::unique_ptr<NetworkGate> gate_;
};

#endif  // WIDGETENGINE_HOST_WIDGETNETWORK_H_
