// SPDX-License-Identifier: Apache-2.0
// Marks the calls of the tools' facade (engine/ToolsFacade.h), the one
// surface that libwidgetengine.so.1 exports for the tools built from this
// source tree (widgetctl) beside the public interface.
//
// The tools link the one shared library rather than a copy of the engine of
// their own, so that a fixed libwidgetengine1 fixes them too and a process
// holds one engine: one registry connection, one set of install locks.
// No installed header declares the facade, the tools' package depends on
// exactly the library's version, and the library's symbols file and ABI
// check treat it as private (packaging/), so it may change in any release.
// Everything else stays hidden (engine/widgetengine.map): a mark anywhere
// else exports nothing.
#ifndef WIDGETENGINE_BASE_TOOLSEXPORT_H_
#define WIDGETENGINE_BASE_TOOLSEXPORT_H_

#define WIDGETENGINE_TOOLS_EXPORT __attribute__((visibility("default")))

#endif  // WIDGETENGINE_BASE_TOOLSEXPORT_H_
