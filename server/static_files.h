#pragma once

#include "http_request.h"

#include <QByteArray>

namespace brinmoor::relay {

// The browser client (Brinmoor Web), built from web/ and compiled into the server. Files
// need no token: they hold nothing secret, and the page asks for the token itself.
namespace StaticFiles {

// The whole response to a request for a path outside /v1: the file with its content
// type, caching and security headers (gzip-encoded when the browser accepts it), or 404.
QByteArray response(const HttpRequest& request);

// The Content-Security-Policy for a page served to this Host: scripts, styles and
// everything else from the page's own origin, and WebSockets back to it.
QByteArray contentSecurityPolicy(QByteArrayView host);

} // namespace StaticFiles

} // namespace brinmoor::relay
