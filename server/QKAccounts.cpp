#include "QKAccounts.h"
#include "QKServiceStore.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QMutexLocker>

#include <sodium.h>

#include <semaphore>

namespace {

qint64 now()
{
    return QDateTime::currentMSecsSinceEpoch();
}

// Each hash takes 64 MiB for a moment: a burst of logins waits here rather than
// exhausting memory.
std::counting_semaphore<2> hashing(2);

QByteArray hashPassword(const QByteArray &password)
{
    char out[crypto_pwhash_STRBYTES];
    hashing.acquire();
    const int rc =
        crypto_pwhash_str_alg(out, password.constData(), quint64(password.size()), crypto_pwhash_OPSLIMIT_INTERACTIVE,
                              crypto_pwhash_MEMLIMIT_INTERACTIVE, crypto_pwhash_ALG_ARGON2ID13);
    hashing.release();
    if (rc != 0)
        throw QKServiceStoreError("Out of memory while hashing a password.");
    return QByteArray(out);
}

const QByteArray &checkedPassword(const QByteArray &password)
{
    if (QString::fromUtf8(password).size() < QKAccounts::MinPasswordLength)
        throw std::invalid_argument("A password is at least 8 characters.");
    return password;
}

QByteArray randomToken()
{
    unsigned char bytes[32];
    randombytes_buf(bytes, sizeof bytes);
    return QByteArray(reinterpret_cast<const char *>(bytes), sizeof bytes)
        .toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals);
}

// The store keeps this, so that its copy does not open sessions.
QString tokenHash(const QByteArray &token)
{
    return QString::fromLatin1(QCryptographicHash::hash(token, QCryptographicHash::Sha256).toHex());
}

QKMember memberOf(const QVariantList &row)
{
    return {row.value(0).toLongLong(), row.value(1).toString(), row.value(2).toLongLong() != 0};
}

constexpr int FreeFailures = 4;
constexpr qint64 FirstWaitMs = 5000;
constexpr qint64 LongestWaitMs = 15 * 60 * 1000;

} // namespace

QKAccounts::QKAccounts(QKServiceStore *store) : m_store(store)
{
    if (sodium_init() < 0)
        throw QKServiceStoreError("libsodium cannot start.");
}

QKMember QKAccounts::addMember(const QString &name, const QByteArray &password, bool admin)
{
    const QString trimmed = name.trimmed();
    if (trimmed.isEmpty() || trimmed.size() > 64)
        throw std::invalid_argument("A member's name is 1 to 64 characters.");
    for (const QChar c : trimmed)
        if (c.category() == QChar::Other_Control || c.category() == QChar::Other_Format)
            throw std::invalid_argument("A member's name cannot hold control characters.");
    const QByteArray hash = hashPassword(checkedPassword(password));
    QKMember member{0, trimmed, admin};
    m_store->transaction([&](const QKSql &sql) {
        if (!sql(QStringLiteral("SELECT 1 FROM members WHERE name = ?"), {trimmed}).isEmpty())
            throw std::invalid_argument(
                QStringLiteral("A member named %1 exists already.").arg(trimmed).toUtf8().toStdString());
        member.id = sql(QStringLiteral("INSERT INTO members (name, password_hash, admin, created_at)"
                                       " VALUES (?, ?, ?, ?) RETURNING id"),
                        {trimmed, QString::fromLatin1(hash), qint64(admin), now()})
                        .value(0)
                        .value(0)
                        .toLongLong();
    });
    return member;
}

bool QKAccounts::setPassword(const QString &name, const QByteArray &password)
{
    const QByteArray hash = hashPassword(checkedPassword(password));
    bool found = false;
    m_store->transaction([&](const QKSql &sql) {
        const QKSqlRows rows = sql(QStringLiteral("UPDATE members SET password_hash = ? WHERE name = ? RETURNING id"),
                                   {QString::fromLatin1(hash), name.trimmed()});
        found = !rows.isEmpty();
        if (found)
            sql(QStringLiteral("DELETE FROM sessions WHERE member_id = ?"), {rows[0].value(0)});
    });
    return found;
}

bool QKAccounts::removeMember(const QString &name)
{
    bool found = false;
    m_store->transaction([&](const QKSql &sql) {
        found = !sql(QStringLiteral("DELETE FROM members WHERE name = ? RETURNING id"), {name.trimmed()}).isEmpty();
    });
    return found;
}

QList<QKMember> QKAccounts::members()
{
    QList<QKMember> list;
    for (const QVariantList &row : m_store->query(QStringLiteral("SELECT id, name, admin FROM members ORDER BY name")))
        list.append(memberOf(row));
    return list;
}

qint64 QKAccounts::waitMs(const QString &key, qint64 t)
{
    const auto it = m_failures.constFind(key);
    if (it == m_failures.cend() || it->count < FreeFailures)
        return 0;
    const qint64 wait = qMin(LongestWaitMs, FirstWaitMs << qMin(it->count - FreeFailures, 20));
    return qMax<qint64>(0, it->last + wait - t);
}

void QKAccounts::failed(const QString &key, qint64 t)
{
    // Bounded: a flood of addresses cannot grow the table without end.
    if (m_failures.size() > 100000) {
        for (auto it = m_failures.begin(); it != m_failures.end();)
            it = t - it->last > LongestWaitMs ? m_failures.erase(it) : std::next(it);
    }
    Failures &f = m_failures[key];
    ++f.count;
    f.last = t;
}

bool QKAccounts::verify(const QByteArray &hash, const QByteArray &password)
{
    hashing.acquire();
    const bool ok = crypto_pwhash_str_verify(hash.constData(), password.constData(), quint64(password.size())) == 0;
    hashing.release();
    return ok;
}

QKAccounts::Login QKAccounts::logIn(const QString &name, const QByteArray &password, const QByteArray &address)
{
    const QString nameKey = QLatin1String("n:") + name.trimmed().toCaseFolded();
    const QString addressKey = QLatin1String("a:") + QString::fromLatin1(address);
    Login login;
    QByteArray decoy;
    {
        QMutexLocker lock(&m_mutex);
        const qint64 wait = qMax(waitMs(nameKey, now()), waitMs(addressKey, now()));
        if (wait > 0) {
            login.outcome = Login::Outcome::Slowed;
            login.retryAfterSeconds = (wait + 999) / 1000;
            return login;
        }
        if (m_decoyHash.isEmpty()) {
            lock.unlock();
            const QByteArray made = hashPassword(randomToken());
            lock.relock();
            m_decoyHash = made;
        }
        decoy = m_decoyHash;
    }
    const QKSqlRows rows = m_store->query(
        QStringLiteral("SELECT id, name, admin, password_hash FROM members WHERE name = ?"), {name.trimmed()});
    const QByteArray hash = rows.isEmpty() ? decoy : rows[0].value(3).toString().toLatin1();
    if (!verify(hash, password) || rows.isEmpty()) {
        QMutexLocker lock(&m_mutex);
        failed(nameKey, now());
        failed(addressKey, now());
        return login;
    }
    {
        QMutexLocker lock(&m_mutex);
        m_failures.remove(nameKey);
    }
    login.outcome = Login::Outcome::LoggedIn;
    login.token = randomToken();
    login.session = {memberOf(rows[0]), randomToken()};
    const qint64 t = now();
    m_store->transaction([&](const QKSql &sql) {
        sql(QStringLiteral("DELETE FROM sessions WHERE expires_at < ?"), {t});
        sql(QStringLiteral("INSERT INTO sessions (token_hash, member_id, csrf, created_at, expires_at)"
                           " VALUES (?, ?, ?, ?, ?)"),
            {tokenHash(login.token), login.session.member.id, QString::fromLatin1(login.session.csrf), t,
             t + SessionLifetimeMs});
    });
    return login;
}

std::optional<QKSession> QKAccounts::session(const QByteArray &token)
{
    if (token.isEmpty() || token.size() > 100)
        return std::nullopt;
    const QKSqlRows rows = m_store->query(QStringLiteral("SELECT m.id, m.name, m.admin, s.csrf FROM sessions s"
                                                         " JOIN members m ON m.id = s.member_id"
                                                         " WHERE s.token_hash = ? AND s.expires_at > ?"),
                                          {tokenHash(token), now()});
    if (rows.isEmpty())
        return std::nullopt;
    return QKSession{memberOf(rows[0]), rows[0].value(3).toString().toLatin1()};
}

void QKAccounts::logOut(const QByteArray &token)
{
    m_store->transaction([&](const QKSql &sql) {
        sql(QStringLiteral("DELETE FROM sessions WHERE token_hash = ?"), {tokenHash(token)});
    });
}
