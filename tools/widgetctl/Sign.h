// SPDX-License-Identifier: Apache-2.0
// widgetctl sign: signs an unpacked widget folder in place, or a package
// file, which is unpacked into a private folder, signed there and packed
// again under a fresh name beside the original, then renamed over it.
#ifndef WIDGETENGINE_TOOLS_WIDGETCTL_SIGN_H_
#define WIDGETENGINE_TOOLS_WIDGETCTL_SIGN_H_

#include <string>

namespace widgetctl {

struct SignOptions {
  std::string keyPath;
  std::string certificatesPath;
  bool distributor = false;
  bool exclusiveC14n = false;
};

int runSign(const std::string& target, const SignOptions& options);

}  // namespace widgetctl

#endif  // WIDGETENGINE_TOOLS_WIDGETCTL_SIGN_H_
