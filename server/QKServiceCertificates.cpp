#include "QKServiceCertificates.h"

#include <QDir>
#include <QFile>
#include <QSaveFile>

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>
#include <stdexcept>

namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;
using Bio = std::unique_ptr<BIO, decltype(&BIO_free)>;

[[noreturn]] void fail(const char *what)
{
    throw std::runtime_error(std::string("Cannot make the service's TLS certificate: ") + what);
}

Key newKey()
{
    Key key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    if (!key)
        fail("no key");
    return key;
}

void addExtension(X509 *certificate, X509 *issuer, int nid, const char *value)
{
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION *extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
    if (!extension)
        fail("bad extension");
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

Certificate newCertificate(EVP_PKEY *key, const char *commonName, X509 *issuer, EVP_PKEY *issuerKey, long days)
{
    Certificate certificate(X509_new(), X509_free);
    X509 *x = certificate.get();
    X509_set_version(x, 2);
    unsigned char serial[16];
    RAND_bytes(serial, sizeof serial);
    serial[0] &= 0x7f;
    BIGNUM *number = BN_bin2bn(serial, sizeof serial, nullptr);
    BN_to_ASN1_INTEGER(number, X509_get_serialNumber(x));
    BN_free(number);
    X509_gmtime_adj(X509_getm_notBefore(x), -3600);
    X509_gmtime_adj(X509_getm_notAfter(x), days * 24 * 3600);
    X509_set_pubkey(x, key);
    X509_NAME *name = X509_get_subject_name(x);
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char *>("Murmora"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>(commonName), -1, -1,
                               0);
    X509 *signer = issuer ? issuer : x;
    X509_set_issuer_name(x, X509_get_subject_name(signer));
    addExtension(x, signer, NID_subject_key_identifier, "hash");
    if (!issuer) {
        addExtension(x, x, NID_basic_constraints, "critical,CA:TRUE,pathlen:0");
        addExtension(x, x, NID_key_usage, "critical,keyCertSign,cRLSign");
    } else {
        addExtension(x, signer, NID_authority_key_identifier, "keyid:always");
        addExtension(x, signer, NID_basic_constraints, "critical,CA:FALSE");
        addExtension(x, signer, NID_key_usage, "critical,digitalSignature");
        addExtension(x, signer, NID_ext_key_usage, "serverAuth");
        addExtension(x, signer, NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1,IP:::1");
    }
    if (!X509_sign(x, issuerKey ? issuerKey : key, EVP_sha256()))
        fail("signing failed");
    return certificate;
}

QByteArray pem(const std::function<int(BIO *)> &write)
{
    Bio bio(BIO_new(BIO_s_mem()), BIO_free);
    if (!write(bio.get()))
        fail("cannot write PEM");
    char *data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return QByteArray(data, size);
}

QByteArray certificatePem(X509 *x)
{
    return pem([x](BIO *b) { return PEM_write_bio_X509(b, x); });
}

QByteArray keyPem(EVP_PKEY *key)
{
    return pem([key](BIO *b) { return PEM_write_bio_PrivateKey(b, key, nullptr, nullptr, 0, nullptr, nullptr); });
}

void save(const QString &path, const QByteArray &bytes, bool secret)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        throw std::runtime_error("Cannot write " + path.toStdString() + ": " + file.errorString().toStdString());
    if (secret)
        file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    file.write(bytes);
    if (!file.commit())
        throw std::runtime_error("Cannot write " + path.toStdString() + ": " + file.errorString().toStdString());
}

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

Certificate readCertificate(const QByteArray &bytes)
{
    Bio bio(BIO_new_mem_buf(bytes.constData(), int(bytes.size())), BIO_free);
    return Certificate(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr), X509_free);
}

Key readKey(const QByteArray &bytes)
{
    Bio bio(BIO_new_mem_buf(bytes.constData(), int(bytes.size())), BIO_free);
    return Key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr), EVP_PKEY_free);
}

} // namespace

QKServiceCertificates QKServiceCertificates::ensure(const QString &dataDirectory)
{
    const QDir dir(QDir(dataDirectory).filePath(QStringLiteral("tls")));
    if (!QDir().mkpath(dir.path()))
        throw std::runtime_error("Cannot create " + dir.path().toStdString());
    QKServiceCertificates files{dir.filePath(QStringLiteral("server.pem")), dir.filePath(QStringLiteral("server.key")),
                                dir.filePath(QStringLiteral("ca.pem"))};
    const QString caKeyFile = dir.filePath(QStringLiteral("ca.key"));

    Certificate ca = readCertificate(readAll(files.caFile));
    Key caKey = readKey(readAll(caKeyFile));
    if (!ca || !caKey || X509_check_private_key(ca.get(), caKey.get()) != 1) {
        caKey = newKey();
        ca = newCertificate(caKey.get(), "Murmora service CA", nullptr, nullptr, 3650);
        save(caKeyFile, keyPem(caKey.get()), true);
        save(files.caFile, certificatePem(ca.get()), false);
        QFile::remove(files.certificateFile);
    }
    const QByteArray chain = readAll(files.certificateFile);
    Certificate leaf = readCertificate(chain);
    Key leafKey = readKey(readAll(files.keyFile));
    const bool fresh = leaf && leafKey && X509_check_private_key(leaf.get(), leafKey.get()) == 1 &&
                       X509_check_issued(ca.get(), leaf.get()) == X509_V_OK &&
                       X509_cmp_time(X509_get0_notAfter(leaf.get()), nullptr) > 0 && [&] {
                           time_t soon = time(nullptr) + 30 * 24 * 3600;
                           return X509_cmp_time(X509_get0_notAfter(leaf.get()), &soon) > 0;
                       }();
    if (!fresh) {
        leafKey = newKey();
        // 825 days: the longest some platforms accept for a server certificate.
        leaf = newCertificate(leafKey.get(), "localhost", ca.get(), caKey.get(), 825);
        save(files.keyFile, keyPem(leafKey.get()), true);
        save(files.certificateFile, certificatePem(leaf.get()) + certificatePem(ca.get()), false);
    }
    return files;
}
