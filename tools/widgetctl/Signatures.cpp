// SPDX-License-Identifier: Apache-2.0
#include "tools/widgetctl/Signatures.h"

#include "engine/ToolsFacade.h"
#include "signature/Vocabulary.h"
#include "tools/widgetctl/Reply.h"

#include <string.h>

#include <widgetengine/WidgetEngineExtensions.h>

#include <set>

namespace widgetctl {

using nlohmann::json;

namespace {

std::string text(const json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>()
                                                     : std::string();
}

// "label:" padded to one column under a signature's name.
std::string detail(const std::string& label, const std::string& value) {
  std::string line = "  " + label + ":";
  line.append(line.size() < 14 ? 14 - line.size() : 1, ' ');
  return line + value;
}

void describe(const json& signature, bool author, std::vector<std::string>& lines,
              std::set<std::string>& shown) {
  const std::string file = text(signature, "file");
  lines.push_back(file + ": " +
                  (signature.value("valid", false) ? "valid" : "invalid") + " (" +
                  (author ? "author" : "distributor") + ")");
  if (!text(signature, "subject").empty())
    lines.push_back(detail("signed by", text(signature, "subject")));
  if (!text(signature, "fingerprint").empty())
    lines.push_back(detail("SHA-256", text(signature, "fingerprint")));
  if (!text(signature, "anchor").empty())
    lines.push_back(detail("anchor", text(signature, "anchor")));
  for (const json& failure : signature.value("failures", json::array())) {
    if (!failure.is_string()) continue;
    lines.push_back(detail("failed", failure.get<std::string>()));
    shown.insert(file + ": " + failure.get<std::string>());
  }
}

// The names of the signature documents a record has a verdict on.
std::set<std::string> documents(const json& record) {
  std::set<std::string> files;
  const auto author = record.find("author");
  if (author != record.end() && author->is_object()) files.insert(text(*author, "file"));
  for (const json& distributor : record.value("distributors", json::array())) {
    if (distributor.is_object()) files.insert(text(distributor, "file"));
  }
  return files;
}

}  // namespace

std::vector<std::string> signatureLines(const json& record) {
  std::vector<std::string> lines;
  if (!record.value("signed", false)) {
    lines.push_back("not signed: the package carries no signature document");
  }
  std::set<std::string> shown;
  const auto author = record.find("author");
  if (author != record.end() && author->is_object()) describe(*author, true, lines, shown);
  for (const json& distributor : record.value("distributors", json::array())) {
    if (distributor.is_object()) describe(distributor, false, lines, shown);
  }
  for (const json& failure : record.value("failures", json::array())) {
    if (failure.is_string() && !shown.count(failure.get<std::string>()))
      lines.push_back("package: " + failure.get<std::string>());
  }
  return lines;
}

std::vector<std::string> fileFailures(const json& record) {
  // A signer whose anchor was withdrawn, or whose certificate has since
  // expired, says nothing about the files.
  static const char* const kNotAboutFiles[] = {signatureVocabulary::kUntrustedSigner,
                                               signatureVocabulary::kExpiredCertificate,
                                               signatureVocabulary::kCertificateNotYetValid};
  std::vector<std::string> failures;
  for (const json& failure : record.value("failures", json::array())) {
    if (!failure.is_string()) continue;
    const std::string line = failure.get<std::string>();
    // "file: rule: detail", as the record keeps each failure.
    const size_t colon = line.find(": ");
    const std::string rule = colon == std::string::npos ? line : line.substr(colon + 2);
    bool aboutFiles = true;
    for (const char* name : kNotAboutFiles) {
      const size_t length = strlen(name);
      if (rule.compare(0, length, name) == 0 && rule.compare(length, 1, ":") == 0)
        aboutFiles = false;
    }
    if (aboutFiles) failures.push_back(line);
  }
  return failures;
}

std::vector<std::string> changesSinceInstalled(const std::string& name,
                                               const std::string& folder) {
  std::vector<std::string> changes;
  EngineString kept(widgetengine_signature_info(name.c_str()));
  if (!kept) return changes;
  const json installed = json::parse(kept.get(), nullptr, false);
  if (!installed.is_object() || !installed.value("checked", false) ||
      !installed.value("signed", false)) {
    return changes;
  }
  const json now = json::parse(toolsfacade::checkSignatures(folder).record, nullptr, false);
  if (!now.is_object()) return changes;
  const std::vector<std::string> before = fileFailures(installed);
  const std::set<std::string> known(before.begin(), before.end());
  for (const std::string& failure : fileFailures(now)) {
    if (!known.count(failure)) changes.push_back(failure);
  }
  const std::set<std::string> there = documents(now);
  for (const std::string& file : documents(installed)) {
    if (!there.count(file)) changes.push_back(file + ": the signature document is gone");
  }
  return changes;
}

}  // namespace widgetctl
