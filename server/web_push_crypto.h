#pragma once

#include "ec_key.h"

#include <QByteArray>
#include <QString>

#include <optional>

// What a push to a browser is made of: the relay's signed token for the push service, and
// the payload encrypted to the device ("aes128gcm", one record), so that the push service
// reads neither.
namespace brinmoor::relay::WebPushCrypto {

QByteArray base64Url(QByteArrayView data);
// Base64url with or without padding; nothing for other text.
std::optional<QByteArray> fromBase64Url(QByteArrayView text);

// The "Authorization" header's value: "vapid t=JWT, k=KEY", the token signed with ES256
// and claiming the push endpoint's origin, its expiry (seconds since 1970) and the contact.
QByteArray vapidAuthorization(const EcKey& key, const QString& audience, const QString& subject, qint64 expiresAt);

// The body of a push: the salt, the record size, the sender's one-off public key, and the
// payload sealed with AES-128-GCM under keys drawn from the ECDH secret and the device's
// auth secret. Empty when the device's key or secret cannot be used.
QByteArray encrypt(QByteArrayView payload, QByteArrayView devicePublicKey, QByteArrayView authSecret);
// The same with the one-off key and salt given (for known answers).
QByteArray encrypt(QByteArrayView payload, QByteArrayView devicePublicKey, QByteArrayView authSecret,
                   const EcKey& senderKey, QByteArrayView salt);

// What a device does with the body: the payload, or nothing when it does not open.
std::optional<QByteArray> decrypt(QByteArrayView body, const EcKey& deviceKey, QByteArrayView authSecret);

} // namespace brinmoor::relay::WebPushCrypto
