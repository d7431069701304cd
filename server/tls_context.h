#pragma once

#include <QDateTime>
#include <QSslConfiguration>
#include <QString>

#include <optional>
#include <variant>

namespace brinmoor::relay {

// Where the relay's certificate chain and private key are (PEM files), as
// BRINMOOR_TLS_CERT and BRINMOOR_TLS_KEY name them. Both empty: plain HTTP.
struct TlsFiles {
    QString certificate;
    QString key;

    bool isSet() const { return !certificate.isEmpty() || !key.isEmpty(); }
};

// Reads the files into what the relay serves TLS with: the chain and the key, TLS 1.2 or
// newer, Qt's default ciphers, HTTP/1.1 offered by ALPN, no client certificates asked
// for. Otherwise the one sentence that says what is wrong with them; a certificate that
// is not valid at `now` (expired, or not yet valid) is wrong too.
std::variant<QSslConfiguration, QString> loadTlsConfiguration(const TlsFiles& files,
                                                              const QDateTime& now = QDateTime::currentDateTimeUtc());

// When the certificate stops being valid, as the log shows it ("2026-05-01T12:00:00Z").
QString expiryText(const QSslConfiguration& configuration);

// The days, rounded up, until the certificate expires when that is 14 or fewer; none
// when it is further away.
std::optional<qint64> daysLeftWhenExpiringSoon(const QSslConfiguration& configuration,
                                               const QDateTime& now = QDateTime::currentDateTimeUtc());

// Logs "tls.expires.soon expires=… days=N" when the certificate expires within 14 days.
void warnWhenExpiringSoon(const QSslConfiguration& configuration);

} // namespace brinmoor::relay
