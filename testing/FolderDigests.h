// SPDX-License-Identifier: Apache-2.0
// The digests of the files below a folder as they lie there now, as an
// unpacking that had just written them would hand them to the signature
// check: for the tests and the fuzz targets that check a package both ways.
#ifndef WIDGETENGINE_TESTING_FOLDERDIGESTS_H_
#define WIDGETENGINE_TESTING_FOLDERDIGESTS_H_

#include <string>

#include "signature/FileDigests.h"

namespace folderdigests {

// Puts the digest of every file below folder into digests; false with
// *reason when a file or the folder cannot be read.
bool take(const std::string& folder, FileDigests* digests, std::string* reason);

}  // namespace folderdigests

#endif  // WIDGETENGINE_TESTING_FOLDERDIGESTS_H_
