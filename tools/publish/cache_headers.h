#pragma once
// Whether a response may be served stale by a shared cache (a CDN, a Varnish or nginx cache in
// front of the server). A file's URL is the same in every release, so such a cache would go on
// handing out the previous release's manifest or files after a release goes live.

#include <ctime>
#include <string>

#include "tools/publish/served_headers.h"

namespace th::publish {

// The header line that lets a shared cache serve the response without revalidating it, or an
// empty text: a Cache-Control with a positive max-age or s-maxage and none of no-cache,
// must-revalidate, no-store and private, or, without such a Cache-Control, an Expires later than
// the response's Date (or `now`, without one).
std::string staleCachingHeader(const ResponseHeaders& headers, std::time_t now);

}  // namespace th::publish
