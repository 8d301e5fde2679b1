// SPDX-License-Identifier: Apache-2.0
#include "tools/widgetctl/Reply.h"

#include <iostream>

namespace widgetctl {

using nlohmann::json;

const char kProgram[] = "widgetctl";

bool gEngineToStderr = false;
bool gJson = false;
bool gProgress = true;
json gDocument;

void passOn(const std::vector<std::string>& lines) {
  std::ostream& out = gEngineToStderr ? std::cerr : std::cout;
  for (const std::string& line : lines) out << line << '\n';
  out.flush();
  if (gJson) {
    for (const std::string& line : lines) gDocument["engine"].push_back(line);
  }
}

int finish(int status, const std::string& reason) {
  if (!reason.empty()) {
    std::cout.flush();
    std::cerr << kProgram << ": " << reason << std::endl;
  }
  if (gJson) {
    gDocument["exit"] = status;
    gDocument["ok"] = status == kOk;
    if (!reason.empty()) gDocument["error"] = reason;
    if (!gDocument.contains("engine")) gDocument["engine"] = json::array();
    std::cout << gDocument.dump(2) << std::endl;
  }
  return status;
}

int usageError(const std::string& reason, const char* command) {
  std::cerr << kProgram << ": " << reason << " (see \"widgetctl help"
            << (command ? std::string(" ") + command : std::string()) << "\")"
            << std::endl;
  if (gJson) {
    // A script that asked for JSON gets a document whatever went wrong, with
    // the command when one was recognised.
    gDocument = json{{"command", command ? json(command) : json(nullptr)},
                     {"engine", json::array()},
                     {"exit", kUsage},
                     {"ok", false},
                     {"error", reason}};
    std::cout << gDocument.dump(2) << std::endl;
  }
  return kUsage;
}

std::string field(const std::string& label, const std::string& value) {
  std::string line = label + ":";
  line.append(line.size() < 15 ? 15 - line.size() : 1, ' ');
  return line + value;
}

}  // namespace widgetctl
