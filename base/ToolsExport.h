// SPDX-License-Identifier: Apache-2.0
// Marks the few internal calls that libwidgetengine.so.1 exports for the
// tools built from this source tree (widgetctl), beside the public interface.
//
// The tools link the one shared library rather than a copy of the engine of
// their own, so that a fixed libwidgetengine1 fixes them too and a process
// holds one engine: one registry connection, one set of install locks.
// A private helper library would have meant a second copy of that code and
// state. No installed header declares these calls, the tools' package
// depends on exactly the library's version, and the library's symbols file
// and ABI check treat them as private (packaging/), so they may change in
// any release. Everything else stays hidden (engine/widgetengine.map).
#ifndef WIDGETENGINE_BASE_TOOLSEXPORT_H_
#define WIDGETENGINE_BASE_TOOLSEXPORT_H_

#define WIDGETENGINE_TOOLS_EXPORT __attribute__((visibility("default")))

#endif  // WIDGETENGINE_BASE_TOOLSEXPORT_H_
