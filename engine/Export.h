// SPDX-License-Identifier: Apache-2.0
// Marks the classes that libwidgetengine exports to its host. Everything
// else in the library is compiled with hidden visibility.
#ifndef WIDGETENGINE_EXPORT_H_
#define WIDGETENGINE_EXPORT_H_

#define WIDGETENGINE_EXPORT __attribute__((visibility("default")))

#endif  // WIDGETENGINE_EXPORT_H_
