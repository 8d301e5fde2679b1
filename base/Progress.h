// SPDX-License-Identifier: Apache-2.0
// Progress passes an installation's progress (bytes downloaded, entries
// unpacked) to the callback the host installed through
// WidgetEngineExtensions.h; without one, reporting costs one load.
#ifndef WIDGETENGINE_PROGRESS_H_
#define WIDGETENGINE_PROGRESS_H_

#include <cstdint>

namespace progress {

// True when the host wants progress reports.
bool wanted();
// Reports done of total (0 when unknown) for stage, a
// WIDGETENGINE_PROGRESS_ value.
void report(int stage, uint64_t done, uint64_t total);

}  // namespace progress

#endif  // WIDGETENGINE_PROGRESS_H_
