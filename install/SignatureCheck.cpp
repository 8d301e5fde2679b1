// SPDX-License-Identifier: Apache-2.0
#include "install/SignatureCheck.h"

#include <fcntl.h>
#include <widgetengine/WidgetEngineExtensions.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>

#include "base/EngineOutput.h"
#include "base/ScopedFd.h"
#include "signature/SignatureVerifier.h"
#include "signature/TrustAnchors.h"

namespace {

// The host's choices: they name no engine, so they hold for the process.
std::atomic<int> gPolicy{WIDGETENGINE_SIGNATURES_DEFAULT};
std::mutex gAnchorsMutex;
std::optional<std::string> gAnchorsFolder;

nlohmann::json describeOne(const SignatureVerdict& signature) {
  return {{"file", signature.file},
          {"valid", signature.valid},
          {"subject", signature.signerSubject},
          {"fingerprint", signature.signerFingerprint},
          {"anchor", signature.anchorSubject},
          {"identifier", signature.identifier},
          {"failures", signature.failures}};
}

// The first rule the package broke, as the refusal's reason: the package's
// own, then the author's, then the distributors' in the order checked.
std::string firstFailure(const Verdict& verdict) {
  if (!verdict.failures.empty()) return verdict.failures.front();
  const SignatureVerdict* author = verdict.author();
  if (!author) {
    return verdict.isSigned()
               ? "missing-author-signature: the package carries distributor "
                 "signatures only"
               : "not-signed: the package carries no author-signature.xml";
  }
  for (const SignatureVerdict& signature : verdict.signatures) {
    if (!signature.failures.empty()) return signature.failures.front();
    if (!signature.valid) return "invalid-signature: " + signature.file;
  }
  return std::string();
}

}  // namespace

const char* SignatureCheck::policyName(settings::SignaturePolicy policy) {
  switch (policy) {
    case settings::kSignaturesOff:
      return "off";
    case settings::kSignaturesReport:
      return "report";
    case settings::kSignaturesRequire:
      return "require";
  }
  return "off";
}

nlohmann::json SignatureCheck::describe(const Verdict& verdict) {
  const SignatureVerdict* author = verdict.author();
  nlohmann::json distributors = nlohmann::json::array();
  for (const SignatureVerdict& signature : verdict.signatures) {
    if (!signature.author) distributors.push_back(describeOne(signature));
  }
  return {{"signed", verdict.isSigned()},
          {"valid", verdict.allValid()},
          {"author", author ? describeOne(*author) : nlohmann::json()},
          {"distributors", distributors},
          {"failures", verdict.allFailures()}};
}

SignatureCheck::SignatureCheck()
    : policy_(policy()), anchorsFolder_(active() ? anchorsFolder() : "") {}

void SignatureCheck::atLeastReport() {
  if (active()) return;
  policy_ = settings::kSignaturesReport;
  anchorsFolder_ = anchorsFolder();
}

settings::SignaturePolicy SignatureCheck::policy() {
  switch (gPolicy.load(std::memory_order_relaxed)) {
    case WIDGETENGINE_SIGNATURES_OFF:
      return settings::kSignaturesOff;
    case WIDGETENGINE_SIGNATURES_REPORT:
      return settings::kSignaturesReport;
    case WIDGETENGINE_SIGNATURES_REQUIRE:
      return settings::kSignaturesRequire;
    default:
      return settings::signaturePolicy();
  }
}

std::string SignatureCheck::anchorsFolder() {
  {
    std::lock_guard<std::mutex> hold(gAnchorsMutex);
    if (gAnchorsFolder) return *gAnchorsFolder;
  }
  return settings::trustAnchorsDirectory();
}

// The anchors are read for each installation: a device maker who adds or
// withdraws one expects the next installation to know.
void SignatureCheck::readAnchors() {
  std::unique_ptr<TrustAnchors> anchors(new TrustAnchors);
  std::string why;
  anchorsRead_ = anchors->addFolder(anchorsFolder_, &why);
  anchorsUnread_.swap(why);
  anchors_ = std::move(anchors);
}

void SignatureCheck::prepare(const std::string& folder,
                             const std::vector<std::string>& written) {
  if (!active()) return;
  readAnchors();
  ScopedFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (fd.get() < 0) return;
  early_ = SignatureVerifier(*anchors_).prepare(fd.get(), written);
}

Outcome SignatureCheck::check(const std::string& folder) {
  if (!active()) return Outcome();
  if (!anchors_) readAnchors();
  // Said here, where the check is, whenever the anchors were read.
  if (!anchorsRead_) {
    engineError() << "Cannot read the trust anchors in " << anchorsFolder_
                  << ": " << anchorsUnread_ << std::endl;
  }
  for (const std::string& problem : anchors_->problems())
    engineError() << "A trust anchor is left out: " << problem << std::endl;

  const Verdict verdict =
      SignatureVerifier(*anchors_).verify(folder, &written_, &early_);
  early_ = SignatureVerifier::Early();
  const SignatureVerdict* author = verdict.author();

  nlohmann::json record = describe(verdict);
  record["checked"] = true;
  record["policy"] = policyName(policy_);

  row_.policy = policyName(policy_);
  row_.isSigned = verdict.isSigned();
  row_.valid = verdict.allValid();
  row_.authorSubject = author ? author->signerSubject : "";
  row_.authorFingerprint = author ? author->signerFingerprint : "";
  row_.anchor = author ? author->anchorSubject : "";
  validAuthor_ = author && author->valid;
  // Subjects and identifiers come from the package: bytes that are not
  // UTF-8 are replaced rather than refused.
  row_.record =
      record.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);

  if (policy_ != settings::kSignaturesRequire || verdict.allValid())
    return Outcome();
  return Outcome(WIDGETENGINE_REFUSAL_SIGNATURE, firstFailure(verdict));
}

extern "C" int widgetengine_set_signature_policy(int policy) {
  if (policy < WIDGETENGINE_SIGNATURES_DEFAULT ||
      policy > WIDGETENGINE_SIGNATURES_REQUIRE) {
    return -1;
  }
  gPolicy.store(policy, std::memory_order_relaxed);
  return 0;
}

extern "C" void widgetengine_set_trust_anchors(const char* folder) {
  std::lock_guard<std::mutex> hold(gAnchorsMutex);
  if (folder) {
    gAnchorsFolder = folder;
  } else {
    gAnchorsFolder.reset();
  }
}

extern "C" char* widgetengine_signature_info(const char* name) {
  if (!name) return nullptr;
  try {
    SqlLite3 database;
    if (!database.isOpen()) return nullptr;
    std::string kept;
    const int found = database.readSignatures(name, &kept);
    if (found <= 0) return nullptr;
    nlohmann::json record = {{"checked", false}};
    if (found == 2) {
      record = nlohmann::json::parse(kept, nullptr, false);
      if (!record.is_object()) return nullptr;
    }
    record["name"] = name;
    const std::string text =
        record.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    return strdup(text.c_str());
  } catch (...) {
    // Memory ran out, or the name was not UTF-8 that JSON can carry.
    return nullptr;
  }
}
