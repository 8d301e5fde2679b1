#include "install/Downloader.h"

// Placeholder until the downloader lands.
Downloader::Downloader(const std::string& url, const std::string& filePath)
    : url(url), filePath(filePath) {}
Downloader::~Downloader() {}
int Downloader::download() { return -1; }
void Downloader::clean() {}
