#include "install/ContentType.h"

// Placeholder until content types land.
const char* const ContentType::kUnknown = "unknown";
std::string ContentType::fromExtension(const std::string&) { return kUnknown; }
std::string ContentType::fromContent(FILE*) { return kUnknown; }
