#pragma once

#include <QByteArray>
#include <QByteArrayView>

#include <memory>
#include <optional>

typedef struct evp_pkey_st EVP_PKEY;

namespace brinmoor::relay {

// A key on the P-256 curve: the relay's own push key, a device's key, or the one-off key
// of a push. Copies share the key, which is never changed.
class EcKey {
public:
    EcKey() = default;

    static EcKey generate();
    // A private key in PEM (PKCS#8 or SEC 1), or nothing when it holds no P-256 key.
    static std::optional<EcKey> fromPem(QByteArrayView pem);
    // A private key from its 32-byte scalar (the public point is worked out).
    static std::optional<EcKey> fromPrivate(QByteArrayView scalar);
    // A public key from its uncompressed point (65 bytes: 0x04, x, y), checked to lie on
    // the curve.
    static std::optional<EcKey> fromPublic(QByteArrayView point);

    bool isNull() const { return !m_key; }
    QByteArray privatePem() const;
    // The uncompressed point: 65 bytes.
    QByteArray publicPoint() const;
    // ECDSA with SHA-256, as a JSON web token signs (ES256): r and s, 32 bytes each.
    QByteArray sign(QByteArrayView data) const;
    bool verify(QByteArrayView data, QByteArrayView signature) const;
    // The x coordinate of the ECDH product of this private key and the peer's public one;
    // empty when it cannot be made.
    QByteArray sharedSecret(const EcKey& peer) const;

private:
    explicit EcKey(EVP_PKEY* key);
    std::shared_ptr<EVP_PKEY> m_key;
};

} // namespace brinmoor::relay
