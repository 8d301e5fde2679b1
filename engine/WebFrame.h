// SPDX-License-Identifier: Apache-2.0
// WebFrame is the host browser's frame type. The engine accepts a pointer to
// one in some operations and never looks at it.
#ifndef WIDGETENGINE_WEBFRAME_H_
#define WIDGETENGINE_WEBFRAME_H_

class WebFrame {};

#endif  // WIDGETENGINE_WEBFRAME_H_
