// SPDX-License-Identifier: Apache-2.0
#include "install/UnInstallerLines.h"

#include <iostream>

#include "base/EngineOutput.h"

namespace unInstallerLines {

void clean(bool* alreadyRun) {
  if (*alreadyRun) {
    engineOut() << std::endl << "[Cleaning...]" << std::endl << std::endl;
    *alreadyRun = false;
  } else {
    engineOut() << "Nothing to clean" << std::endl;
  }
}

}  // namespace unInstallerLines
