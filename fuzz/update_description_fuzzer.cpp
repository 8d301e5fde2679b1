// SPDX-License-Identifier: Apache-2.0
// Arbitrary bytes as an update description document, as a server sends it:
// read by the rules of widget updates against a fixed address, then its
// details picked for three readers.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "update/UpdateDescription.h"

namespace {

bool isWebAddress(const std::string& url) {
  return url.compare(0, 7, "http://") == 0 || url.compare(0, 8, "https://") == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  UpdateDescription description;
  const Outcome read = description.parse(bytes, "http://updates.test/w/clock.xml");
  if (read.ok()) {
    // An accepted description always offers a version and a package on
    // the web, made absolute.
    if (description.version().empty() || !isWebAddress(description.src())) abort();
    description.details({"fr-ca", "fr"});
    description.details({"en"});
    description.details({});
  } else if (!description.version().empty() || !description.src().empty()) {
    abort();
  }
  return 0;
}
