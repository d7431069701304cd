#pragma once

#include "http_request.h"

#include <QByteArray>

namespace brinmoor::relay {

// The browser client (Brinmoor Web), built from web/ and compiled into the server. Files
// need no token: they hold nothing secret, and the page asks for the token itself.
namespace StaticFiles {

struct Response {
    QByteArray head;
    QByteArray body; // shared with the server's copy of the file: never copied per request
};

// The response to a request for a path outside /v1: the file with its content type,
// caching and security headers (compressed with brotli or gzip when the browser takes
// either), 304 when the browser has that very file, or 404.
Response response(const HttpRequest& request);

// The Content-Security-Policy for a page served to this Host: scripts, styles and
// everything else from the page's own origin, and WebSockets back to it.
QByteArray contentSecurityPolicy(QByteArrayView host);

} // namespace StaticFiles

} // namespace brinmoor::relay
