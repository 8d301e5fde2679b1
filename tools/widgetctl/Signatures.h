// SPDX-License-Identifier: Apache-2.0
// How widgetctl shows what is known of a package's signatures: the record
// an installation keeps (info), or the one check makes of a package, as
// lines of text, one signature document after the other.
#ifndef WIDGETCTL_SIGNATURES_H_
#define WIDGETCTL_SIGNATURES_H_

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace widgetctl {

// For each signature document, the author's first: its verdict, then
// indented its signer, the signer's fingerprint, the trust anchor reached
// and every rule it broke; the rules the package as a whole broke last.
// One line saying so for a package without signatures.
std::vector<std::string> signatureLines(const nlohmann::json& record);

// The rules broken in record (as "file: rule: detail"), without those that
// depend on the trust anchors or the clock rather than on the files.
std::vector<std::string> fileFailures(const nlohmann::json& record);

// What no longer matches in folder, the directory of the installed widget
// name, whose signatures were checked when it was installed: each rule about
// its files that a check of the folder breaks now and that check did not
// ("file: rule: detail"), and each signature document that is gone. Empty
// for a widget installed unsigned or without a check.
std::vector<std::string> changesSinceInstalled(const std::string& name,
                                               const std::string& folder);

}  // namespace widgetctl

#endif  // WIDGETCTL_SIGNATURES_H_
