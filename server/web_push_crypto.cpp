#include "web_push_crypto.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QMessageAuthenticationCode>

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <memory>

namespace brinmoor::relay::WebPushCrypto {

namespace {

constexpr qsizetype kSaltBytes = 16;
constexpr qsizetype kAuthSecretBytes = 16;
constexpr qsizetype kPointBytes = 65;
constexpr qsizetype kKeyBytes = 16;
constexpr qsizetype kNonceBytes = 12;
constexpr qsizetype kTagBytes = 16;
constexpr quint32 kRecordSize = 4096;
// Salt, record size, key id length, key id.
constexpr qsizetype kHeaderBytes = kSaltBytes + 4 + 1 + kPointBytes;
// The delimiter after the last record's data.
constexpr char kLastRecord = 0x02;

QByteArray hmac(QByteArrayView key, QByteArrayView data)
{
    return QMessageAuthenticationCode::hash(data.toByteArray(), key.toByteArray(), QCryptographicHash::Sha256);
}

// HKDF with SHA-256 (extract, then one block of expand), cut to `length` bytes.
QByteArray hkdf(QByteArrayView salt, QByteArrayView inputKey, QByteArrayView info, qsizetype length)
{
    const QByteArray pseudoRandomKey = hmac(salt, inputKey);
    return hmac(pseudoRandomKey, QByteArray(info.toByteArray() + '\x01')).left(length);
}

struct ContentKeys {
    QByteArray key;
    QByteArray nonce;
};

ContentKeys contentKeys(QByteArrayView sharedSecret, QByteArrayView authSecret, QByteArrayView devicePublicKey,
                        QByteArrayView senderPublicKey, QByteArrayView salt)
{
    const QByteArray keyInfo =
        QByteArray("WebPush: info", 14) + devicePublicKey.toByteArray() + senderPublicKey.toByteArray();
    const QByteArray inputKey = hkdf(authSecret, sharedSecret, keyInfo, 32);
    return {hkdf(salt, inputKey, QByteArray("Content-Encoding: aes128gcm", 28), kKeyBytes),
            hkdf(salt, inputKey, QByteArray("Content-Encoding: nonce", 24), kNonceBytes)};
}

struct CipherDeleter {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
using Cipher = std::unique_ptr<EVP_CIPHER_CTX, CipherDeleter>;

const unsigned char* bytes(QByteArrayView data)
{
    return reinterpret_cast<const unsigned char*>(data.data());
}

QByteArray seal(QByteArrayView plaintext, const ContentKeys& keys)
{
    Cipher cipher(EVP_CIPHER_CTX_new());
    QByteArray sealed(plaintext.size() + kTagBytes, Qt::Uninitialized);
    auto* out = reinterpret_cast<unsigned char*>(sealed.data());
    int written = 0;
    int finished = 0;
    if (!cipher || !EVP_EncryptInit_ex(cipher.get(), EVP_aes_128_gcm(), nullptr, bytes(keys.key), bytes(keys.nonce)) ||
        !EVP_EncryptUpdate(cipher.get(), out, &written, bytes(plaintext), int(plaintext.size())) ||
        !EVP_EncryptFinal_ex(cipher.get(), out + written, &finished) ||
        !EVP_CIPHER_CTX_ctrl(cipher.get(), EVP_CTRL_GCM_GET_TAG, int(kTagBytes), out + written + finished))
        return {};
    return sealed;
}

std::optional<QByteArray> open(QByteArrayView sealed, const ContentKeys& keys)
{
    if (sealed.size() < kTagBytes)
        return std::nullopt;
    const QByteArrayView ciphertext = sealed.first(sealed.size() - kTagBytes);
    QByteArray tag = sealed.last(kTagBytes).toByteArray();
    Cipher cipher(EVP_CIPHER_CTX_new());
    QByteArray plaintext(ciphertext.size() + 16, Qt::Uninitialized);
    auto* out = reinterpret_cast<unsigned char*>(plaintext.data());
    int written = 0;
    int finished = 0;
    if (!cipher || !EVP_DecryptInit_ex(cipher.get(), EVP_aes_128_gcm(), nullptr, bytes(keys.key), bytes(keys.nonce)) ||
        !EVP_DecryptUpdate(cipher.get(), out, &written, bytes(ciphertext), int(ciphertext.size())) ||
        !EVP_CIPHER_CTX_ctrl(cipher.get(), EVP_CTRL_GCM_SET_TAG, int(kTagBytes), tag.data()) ||
        EVP_DecryptFinal_ex(cipher.get(), out + written, &finished) <= 0)
        return std::nullopt;
    plaintext.truncate(written + finished);
    return plaintext;
}

} // namespace

QByteArray base64Url(QByteArrayView data)
{
    return data.toByteArray().toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals);
}

std::optional<QByteArray> fromBase64Url(QByteArrayView text)
{
    const auto decoded = QByteArray::fromBase64Encoding(
        text.toByteArray(), QByteArray::Base64UrlEncoding | QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded)
        return std::nullopt;
    return *decoded;
}

QByteArray vapidAuthorization(const EcKey& key, const QString& audience, const QString& subject, qint64 expiresAt)
{
    const QByteArray header = base64Url(R"({"typ":"JWT","alg":"ES256"})");
    const QJsonObject claims{
        {QStringLiteral("aud"), audience}, {QStringLiteral("exp"), expiresAt}, {QStringLiteral("sub"), subject}};
    const QByteArray signingInput = header + '.' + base64Url(QJsonDocument(claims).toJson(QJsonDocument::Compact));
    const QByteArray signature = key.sign(signingInput);
    if (signature.isEmpty())
        return {};
    return "vapid t=" + signingInput + '.' + base64Url(signature) + ", k=" + base64Url(key.publicPoint());
}

QByteArray encrypt(QByteArrayView payload, QByteArrayView devicePublicKey, QByteArrayView authSecret)
{
    QByteArray salt(kSaltBytes, Qt::Uninitialized);
    if (RAND_bytes(reinterpret_cast<unsigned char*>(salt.data()), int(salt.size())) != 1)
        return {};
    return encrypt(payload, devicePublicKey, authSecret, EcKey::generate(), salt);
}

QByteArray encrypt(QByteArrayView payload, QByteArrayView devicePublicKey, QByteArrayView authSecret,
                   const EcKey& senderKey, QByteArrayView salt)
{
    const std::optional<EcKey> device = EcKey::fromPublic(devicePublicKey);
    if (!device || authSecret.size() != kAuthSecretBytes || salt.size() != kSaltBytes ||
        payload.size() + 1 + kTagBytes + kHeaderBytes > kRecordSize)
        return {};
    const QByteArray senderPublicKey = senderKey.publicPoint();
    const QByteArray sharedSecret = senderKey.sharedSecret(*device);
    if (sharedSecret.isEmpty() || senderPublicKey.size() != kPointBytes)
        return {};
    const ContentKeys keys = contentKeys(sharedSecret, authSecret, devicePublicKey, senderPublicKey, salt);
    const QByteArray sealed = seal(QByteArray(payload.toByteArray() + kLastRecord), keys);
    if (sealed.isEmpty())
        return {};
    QByteArray body = salt.toByteArray();
    body.append(char(kRecordSize >> 24)).append(char(kRecordSize >> 16 & 0xff));
    body.append(char(kRecordSize >> 8 & 0xff)).append(char(kRecordSize & 0xff));
    body.append(char(kPointBytes)).append(senderPublicKey).append(sealed);
    return body;
}

std::optional<QByteArray> decrypt(QByteArrayView body, const EcKey& deviceKey, QByteArrayView authSecret)
{
    if (body.size() < kHeaderBytes + kTagBytes || quint8(body[kSaltBytes + 4]) != kPointBytes)
        return std::nullopt;
    const QByteArrayView salt = body.first(kSaltBytes);
    const QByteArrayView senderPublicKey = body.sliced(kSaltBytes + 5, kPointBytes);
    const std::optional<EcKey> sender = EcKey::fromPublic(senderPublicKey);
    if (!sender)
        return std::nullopt;
    const QByteArray sharedSecret = deviceKey.sharedSecret(*sender);
    const ContentKeys keys = contentKeys(sharedSecret, authSecret, deviceKey.publicPoint(), senderPublicKey, salt);
    std::optional<QByteArray> padded = open(body.sliced(kHeaderBytes), keys);
    // The data ends where the padding (zeros) after the last record's delimiter begins.
    if (!padded)
        return std::nullopt;
    while (!padded->isEmpty() && padded->back() == '\0')
        padded->chop(1);
    if (padded->isEmpty() || padded->back() != kLastRecord)
        return std::nullopt;
    padded->chop(1);
    return padded;
}

} // namespace brinmoor::relay::WebPushCrypto
