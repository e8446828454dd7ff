#pragma once
// The headers that a server, or a cache in front of it, sends with a URL. The engine's transport
// carries bodies only, as players need, so the tool asks for them itself, with a HEAD request.

#include <string>
#include <vector>

namespace th::publish {

// Header lines without their line ends.
using ResponseHeaders = std::vector<std::string>;

// The header lines of the final response, after redirects. False with libcurl's text in `error`
// when the request fails, statuses of 400 and above included.
bool fetchResponseHeaders(const std::string& url, ResponseHeaders& headers, std::string& error);

// libcurl names no status code for a failed request: for that failure, `error` with the code that
// `url` answers now, "(HTTP 404)"; any other `error` as it is.
std::string withHttpStatus(const std::string& url, const std::string& error);

}  // namespace th::publish
