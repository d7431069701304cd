#include "ec_key.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>

#include <cstring>

namespace brinmoor::relay {

namespace {

constexpr int kCoordinateBytes = 32;
constexpr int kPointBytes = 1 + 2 * kCoordinateBytes;
constexpr const char* kCurve = "prime256v1";

template <typename T, void (*Free)(T*)> struct Deleter {
    void operator()(T* p) const { Free(p); }
};
using PkeyContext = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using MdContext = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX, EVP_MD_CTX_free>>;
using Bio = std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>>;
using BigNumber = std::unique_ptr<BIGNUM, Deleter<BIGNUM, BN_free>>;
using Signature = std::unique_ptr<ECDSA_SIG, Deleter<ECDSA_SIG, ECDSA_SIG_free>>;
using ParamBuilder = std::unique_ptr<OSSL_PARAM_BLD, Deleter<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>>;
using Params = std::unique_ptr<OSSL_PARAM, Deleter<OSSL_PARAM, OSSL_PARAM_free>>;
using Group = std::unique_ptr<EC_GROUP, Deleter<EC_GROUP, EC_GROUP_free>>;
using Point = std::unique_ptr<EC_POINT, Deleter<EC_POINT, EC_POINT_free>>;

bool onP256(EVP_PKEY* key)
{
    char group[64] = {};
    size_t length = 0;
    return EVP_PKEY_is_a(key, "EC") &&
           EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, group, sizeof group, &length) &&
           std::strcmp(group, kCurve) == 0;
}

// A key made from parameters (the curve, and the public point and private scalar given).
EVP_PKEY* keyFromParameters(QByteArrayView point, const BIGNUM* scalar)
{
    ParamBuilder builder(OSSL_PARAM_BLD_new());
    if (!builder || !OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, kCurve, 0) ||
        !OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(), size_t(point.size())))
        return nullptr;
    if (scalar && !OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PRIV_KEY, scalar))
        return nullptr;
    Params params(OSSL_PARAM_BLD_to_param(builder.get()));
    PkeyContext context(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
    EVP_PKEY* key = nullptr;
    if (!params || !context || EVP_PKEY_fromdata_init(context.get()) <= 0 ||
        EVP_PKEY_fromdata(context.get(), &key, scalar ? EVP_PKEY_KEYPAIR : EVP_PKEY_PUBLIC_KEY, params.get()) <= 0)
        return nullptr;
    PkeyContext check(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    if (!check || EVP_PKEY_public_check(check.get()) <= 0) {
        EVP_PKEY_free(key);
        return nullptr;
    }
    return key;
}

} // namespace

EcKey::EcKey(EVP_PKEY* key) : m_key(key, EVP_PKEY_free) {}

EcKey EcKey::generate()
{
    return EcKey(EVP_EC_gen(kCurve));
}

std::optional<EcKey> EcKey::fromPem(QByteArrayView pem)
{
    Bio bio(BIO_new_mem_buf(pem.data(), int(pem.size())));
    EVP_PKEY* key = bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr;
    if (!key)
        return std::nullopt;
    if (!onP256(key)) {
        EVP_PKEY_free(key);
        return std::nullopt;
    }
    return EcKey(key);
}

std::optional<EcKey> EcKey::fromPrivate(QByteArrayView scalar)
{
    if (scalar.size() != kCoordinateBytes)
        return std::nullopt;
    BigNumber number(BN_bin2bn(reinterpret_cast<const unsigned char*>(scalar.data()), int(scalar.size()), nullptr));
    Group group(EC_GROUP_new_by_curve_name(NID_X9_62_prime256v1));
    if (!number || !group)
        return std::nullopt;
    Point point(EC_POINT_new(group.get()));
    unsigned char encoded[kPointBytes];
    if (!point || !EC_POINT_mul(group.get(), point.get(), number.get(), nullptr, nullptr, nullptr) ||
        EC_POINT_point2oct(group.get(), point.get(), POINT_CONVERSION_UNCOMPRESSED, encoded, sizeof encoded, nullptr) !=
            sizeof encoded)
        return std::nullopt;
    EVP_PKEY* key =
        keyFromParameters(QByteArrayView(reinterpret_cast<const char*>(encoded), kPointBytes), number.get());
    if (!key)
        return std::nullopt;
    return EcKey(key);
}

std::optional<EcKey> EcKey::fromPublic(QByteArrayView point)
{
    if (point.size() != kPointBytes || point.front() != 0x04)
        return std::nullopt;
    EVP_PKEY* key = keyFromParameters(point, nullptr);
    if (!key)
        return std::nullopt;
    return EcKey(key);
}

QByteArray EcKey::privatePem() const
{
    Bio bio(BIO_new(BIO_s_mem()));
    if (!m_key || !bio || !PEM_write_bio_PrivateKey(bio.get(), m_key.get(), nullptr, nullptr, 0, nullptr, nullptr))
        return {};
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return QByteArray(data, qsizetype(length));
}

QByteArray EcKey::publicPoint() const
{
    QByteArray point(kPointBytes, Qt::Uninitialized);
    size_t length = 0;
    if (!m_key ||
        !EVP_PKEY_get_octet_string_param(m_key.get(), OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY,
                                         reinterpret_cast<unsigned char*>(point.data()), size_t(point.size()),
                                         &length) ||
        length != size_t(kPointBytes))
        return {};
    return point;
}

QByteArray EcKey::sign(QByteArrayView data) const
{
    MdContext context(EVP_MD_CTX_new());
    size_t length = 0;
    if (!m_key || !context || EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, m_key.get()) <= 0 ||
        EVP_DigestSign(context.get(), nullptr, &length, reinterpret_cast<const unsigned char*>(data.data()),
                       size_t(data.size())) <= 0)
        return {};
    QByteArray der(qsizetype(length), Qt::Uninitialized);
    if (EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(der.data()), &length,
                       reinterpret_cast<const unsigned char*>(data.data()), size_t(data.size())) <= 0)
        return {};
    const unsigned char* cursor = reinterpret_cast<const unsigned char*>(der.constData());
    Signature signature(d2i_ECDSA_SIG(nullptr, &cursor, long(length)));
    if (!signature)
        return {};
    QByteArray raw(2 * kCoordinateBytes, Qt::Uninitialized);
    auto* out = reinterpret_cast<unsigned char*>(raw.data());
    if (BN_bn2binpad(ECDSA_SIG_get0_r(signature.get()), out, kCoordinateBytes) != kCoordinateBytes ||
        BN_bn2binpad(ECDSA_SIG_get0_s(signature.get()), out + kCoordinateBytes, kCoordinateBytes) != kCoordinateBytes)
        return {};
    return raw;
}

bool EcKey::verify(QByteArrayView data, QByteArrayView signature) const
{
    if (!m_key || signature.size() != 2 * kCoordinateBytes)
        return false;
    const auto* raw = reinterpret_cast<const unsigned char*>(signature.data());
    Signature parsed(ECDSA_SIG_new());
    BIGNUM* r = BN_bin2bn(raw, kCoordinateBytes, nullptr);
    BIGNUM* s = BN_bin2bn(raw + kCoordinateBytes, kCoordinateBytes, nullptr);
    if (!parsed || !r || !s || !ECDSA_SIG_set0(parsed.get(), r, s)) {
        BN_free(r);
        BN_free(s);
        return false;
    }
    unsigned char* der = nullptr;
    const int derLength = i2d_ECDSA_SIG(parsed.get(), &der);
    if (derLength <= 0)
        return false;
    MdContext context(EVP_MD_CTX_new());
    const bool valid = context &&
                       EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, m_key.get()) > 0 &&
                       EVP_DigestVerify(context.get(), der, size_t(derLength),
                                        reinterpret_cast<const unsigned char*>(data.data()), size_t(data.size())) == 1;
    OPENSSL_free(der);
    return valid;
}

QByteArray EcKey::sharedSecret(const EcKey& peer) const
{
    PkeyContext context(m_key ? EVP_PKEY_CTX_new_from_pkey(nullptr, m_key.get(), nullptr) : nullptr);
    size_t length = 0;
    if (!context || !peer.m_key || EVP_PKEY_derive_init(context.get()) <= 0 ||
        EVP_PKEY_derive_set_peer(context.get(), peer.m_key.get()) <= 0 ||
        EVP_PKEY_derive(context.get(), nullptr, &length) <= 0)
        return {};
    QByteArray secret(qsizetype(length), Qt::Uninitialized);
    if (EVP_PKEY_derive(context.get(), reinterpret_cast<unsigned char*>(secret.data()), &length) <= 0)
        return {};
    secret.truncate(qsizetype(length));
    return secret;
}

} // namespace brinmoor::relay
