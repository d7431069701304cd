#include "http_request.h"

#include <QUrl>

namespace brinmoor::relay {

namespace {

bool isToken(char c)
{
    return c > 32 && c < 127 && !QByteArrayView("()<>@,;:\\\"/[]?={}").contains(c);
}

} // namespace

QByteArray HttpRequest::header(QByteArrayView name) const
{
    for (const auto& [key, value] : headers) {
        if (key == name)
            return value;
    }
    return {};
}

QList<QByteArray> HttpRequest::headerValues(QByteArrayView name) const
{
    QList<QByteArray> values;
    for (const auto& [key, value] : headers) {
        if (key == name)
            values.append(value);
    }
    return values;
}

bool HttpRequest::hasHeader(QByteArrayView name) const
{
    for (const auto& entry : headers) {
        if (entry.first == name)
            return true;
    }
    return false;
}

bool HttpRequest::headerHasToken(QByteArrayView name, QByteArrayView token) const
{
    for (const auto& [key, value] : headers) {
        if (key != name)
            continue;
        for (const QByteArray& part : value.split(',')) {
            if (part.trimmed().compare(token, Qt::CaseInsensitive) == 0)
                return true;
        }
    }
    return false;
}

QByteArray HttpRequest::queryItem(QByteArrayView name) const
{
    for (const QByteArray& item : query.split('&')) {
        const qsizetype equals = item.indexOf('=');
        const QByteArrayView key = equals < 0 ? QByteArrayView(item) : QByteArrayView(item).first(equals);
        if (QByteArray::fromPercentEncoding(key.toByteArray()) != name)
            continue;
        if (equals < 0)
            return {};
        QByteArray value = item.mid(equals + 1);
        value.replace('+', ' ');
        return QByteArray::fromPercentEncoding(value);
    }
    return {};
}

HeadStatus parseRequestHead(QByteArrayView buffer, qsizetype maxHeadSize, HttpRequest& request)
{
    const qsizetype end = buffer.indexOf(QByteArrayView("\r\n\r\n"));
    if (end < 0)
        return buffer.size() > maxHeadSize ? HeadStatus::TooLarge : HeadStatus::Incomplete;
    if (end + 4 > maxHeadSize)
        return HeadStatus::TooLarge;

    const QList<QByteArray> lines = buffer.first(end).toByteArray().split('\n');
    const QByteArray requestLine = lines.first().chopped(lines.first().endsWith('\r') ? 1 : 0);
    const QList<QByteArray> parts = requestLine.split(' ');
    if (parts.size() != 3 || parts[0].isEmpty() || !parts[1].startsWith('/') ||
        !(parts[2] == "HTTP/1.1" || parts[2] == "HTTP/1.0"))
        return HeadStatus::Malformed;
    for (char c : parts[0]) {
        if (!isToken(c))
            return HeadStatus::Malformed;
    }
    request = HttpRequest();
    request.method = parts[0];
    const qsizetype question = parts[1].indexOf('?');
    request.path = question < 0 ? parts[1] : parts[1].first(question);
    request.query = question < 0 ? QByteArray() : parts[1].mid(question + 1);
    for (qsizetype i = 1; i < lines.size(); ++i) {
        QByteArray line = lines[i];
        if (line.endsWith('\r'))
            line.chop(1);
        const qsizetype colon = line.indexOf(':');
        if (colon <= 0)
            return HeadStatus::Malformed;
        const QByteArray name = line.first(colon);
        for (char c : name) {
            if (!isToken(c))
                return HeadStatus::Malformed;
        }
        request.headers.append({name.toLower(), line.mid(colon + 1).trimmed()});
    }
    request.headSize = end + 4;
    return HeadStatus::Complete;
}

QByteArrayView statusReason(int status)
{
    switch (status) {
    case 101: return "Switching Protocols";
    case 200: return "OK";
    case 308: return "Permanent Redirect";
    case 400: return "Bad Request";
    case 401: return "Unauthorized";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 409: return "Conflict";
    case 408: return "Request Timeout";
    case 411: return "Length Required";
    case 413: return "Content Too Large";
    case 421: return "Misdirected Request";
    case 426: return "Upgrade Required";
    case 429: return "Too Many Requests";
    case 431: return "Request Header Fields Too Large";
    case 502: return "Bad Gateway";
    case 503: return "Service Unavailable";
    default: return "Error";
    }
}

QByteArray httpResponse(int status, QByteArrayView contentType, QByteArrayView body, QByteArrayView extraHeaders)
{
    QByteArray response = "HTTP/1.1 " + QByteArray::number(status) + ' ' + statusReason(status).toByteArray() + "\r\n";
    if (!contentType.isEmpty())
        response += "Content-Type: " + contentType.toByteArray() + "\r\n";
    response += "Content-Length: " + QByteArray::number(body.size()) + "\r\n";
    response += "Cache-Control: no-store\r\nConnection: close\r\n";
    response += extraHeaders.toByteArray();
    response += "\r\n";
    response += body.toByteArray();
    return response;
}

QByteArray jsonResponse(int status, QByteArrayView json, QByteArrayView extraHeaders)
{
    return httpResponse(status, "application/json", json, extraHeaders);
}

} // namespace brinmoor::relay
