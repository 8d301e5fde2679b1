// SPDX-License-Identifier: Apache-2.0
// Transfer holds what every libcurl transfer of the engine sets up the same
// way: which protocols it may speak, how long the other side may stay
// silent, and the scheme an address names. The package downloader and the
// update checker use it.
#ifndef WIDGETENGINE_TRANSFER_H_
#define WIDGETENGINE_TRANSFER_H_

#include <curl/curl.h>

#include <string>

namespace transfer {

// The scheme libcurl would use for url, in lower case: the one it names, or
// the one libcurl guesses for an address without one. Empty when libcurl
// cannot read the address at all (then the transfer fails on its own).
std::string schemeOf(const std::string& url);

// Restricts the transfer, and any redirect should one ever be followed, to
// protocols ("http,https" or "http,https,file"). False when libcurl refuses
// the restriction: then the transfer must not run at all.
bool restrictProtocols(CURL* curl, const char* protocols);

// The value of the header line data (as libcurl hands a header function
// one, line end included) when its name is name ("etag:", matched without
// regard to case), without the blanks around it; "" for any other line.
std::string headerValue(const char* data, size_t size, const char* name);

// Whether text may be sent as a header's value: no control character (a
// tab aside), so that no line end can add a header of its own.
bool isHeaderValue(const std::string& text);

// A server that sends nothing for the stall time (base/Settings), or does
// not accept the connection within it, fails the transfer.
void boundSilence(CURL* curl);

}  // namespace transfer

#endif  // WIDGETENGINE_TRANSFER_H_
