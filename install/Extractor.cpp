#include "install/Extractor.h"

// Placeholder until the extractor lands.
Extractor::Extractor(const std::string& zipPath, const std::string& targetDir)
    : zipPath(zipPath), targetDir(targetDir), keepFiles(false) {}
Extractor::~Extractor() {}
int Extractor::extract(std::vector<std::string>&) { return -1; }
void Extractor::setKeepFiles(bool keep) { keepFiles = keep; }
void Extractor::clean() {}
int Extractor::makeDirectories(const std::string&, mode_t) { return 0; }
void Extractor::removeDirectoryTree(const std::string&) {}
