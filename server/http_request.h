#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QList>
#include <QPair>

namespace brinmoor::relay {

// The head of one HTTP/1.1 request: what the relay needs to route it.
struct HttpRequest {
    QByteArray method;
    QByteArray path;                              // the target without its query
    QByteArray query;                             // after "?", still percent-encoded
    QList<QPair<QByteArray, QByteArray>> headers; // names lower-cased, values trimmed
    qsizetype headSize = 0;                       // bytes up to and including the blank line

    // The first header of that (lower-case) name, or an empty array.
    QByteArray header(QByteArrayView name) const;
    // Every header of that name, in order.
    QList<QByteArray> headerValues(QByteArrayView name) const;
    bool hasHeader(QByteArrayView name) const;
    // A comma-separated header holds this token, compared without regard to case.
    bool headerHasToken(QByteArrayView name, QByteArrayView token) const;
    // The decoded value of one query item, or an empty array.
    QByteArray queryItem(QByteArrayView name) const;
};

enum class HeadStatus { Incomplete, Complete, Malformed, TooLarge };

// Parses the request head at the start of `buffer`; heads longer than `maxHeadSize` are
// refused rather than buffered.
HeadStatus parseRequestHead(QByteArrayView buffer, qsizetype maxHeadSize, HttpRequest& request);

// A complete response that ends the exchange ("Connection: close").
QByteArray httpResponse(int status, QByteArrayView contentType, QByteArrayView body, QByteArrayView extraHeaders = {});
QByteArray jsonResponse(int status, QByteArrayView json, QByteArrayView extraHeaders = {});
QByteArrayView statusReason(int status);

} // namespace brinmoor::relay
