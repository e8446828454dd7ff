vcl 4.1;
# A Varnish cache edge in front of the update server's origin (nginx with
# tarn-hollow-updates.nginx.conf). Players fetch <channel>/<platform>/manifest.json, manifest.sig
# and files/<path>, and a file's URL is the same in every release: an entry served on its age
# alone hands players the previous release's bytes once a release goes live, and each of their
# updates fails with a digest mismatch until the entry expires. So the edge keeps every response
# but serves none without asking the origin first (If-None-Match, If-Modified-Since): the origin
# answers 304 Not Modified while the bytes are current, and the new bytes once they are not.
#
# The origin's address is the site's own, in a file beside this one on varnishd's vcl_path:
#   backend default { .host = "127.0.0.1"; .port = "8080"; }
include "tarn-hollow-origin.vcl";

sub vcl_backend_response {
  # Served without asking for one millisecond only (Varnish looks up no entry whose time to live
  # is zero), with no grace; kept a week to be revalidated.
  set beresp.ttl = 0.001s;
  set beresp.grace = 0s;
  set beresp.keep = 7d;
  return (deliver);
}
