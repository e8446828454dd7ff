#pragma once
// Whether a response may be served stale by a shared cache (a CDN, a Varnish or nginx cache in
// front of the server). A file's URL is the same in every release, so such a cache would go on
// handing out the previous release's manifest or files after a release goes live.

#include <ctime>
#include <string>

#include "tools/publish/verify/served_headers.h"

namespace th::publish {

// A shared cache may keep a response fresh, served without asking the server, this long at most.
constexpr long kFreshEnoughSeconds = 1;

// Why a shared cache may serve the response stale (naming the header that lets it), or an empty
// text when every cache asks the server first. `now` stands in for a missing Date.
std::string staleCaching(const ResponseHeaders& headers, std::time_t now);

}  // namespace th::publish
