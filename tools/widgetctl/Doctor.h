// SPDX-License-Identifier: Apache-2.0
// Doctor compares the registry with the disk and, when asked, repairs what
// it finds: widgets whose directory is gone (made removable again, removed or
// reinstalled), directories under the widget root that no widget owns, and
// what a dead installation left (its package file, its half-unpacked
// directory), and reports signed widgets whose files no longer match their
// signatures. A healthy widget is never touched.
#ifndef WIDGETCTL_DOCTOR_H_
#define WIDGETCTL_DOCTOR_H_

#include <string>
#include <vector>

struct DoctorProblem {
  std::string kind;    // "missing-directory" | "orphan-directory" |
                       // "leftover-installation" | "linked-directory" |
                       // "outside-root" | "signature-mismatch"
  std::string name;    // the widget's name, where there is one
  std::string path;    // the directory or file concerned
  std::string detail;  // one sentence: what it is and what to do
  bool repaired = false;
};

class Doctor {
 public:
  struct Options {
    bool repair = false;
    bool reinstall = false;      // widgets whose files are gone
    bool removeOrphans = false;  // directories no widget owns
  };

  explicit Doctor(const Options& options) : options_(options) {}

  // False when the registry cannot be read (error() says why); then nothing
  // was looked at or touched.
  bool run(std::vector<DoctorProblem>& problems,
           std::vector<std::string>& engineLines);
  const std::string& error() const { return error_; }

 private:
  Options options_;
  std::string error_;
};

#endif  // WIDGETCTL_DOCTOR_H_
