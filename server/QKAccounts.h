#pragma once

// The team's accounts: members with Argon2id password hashes, their sessions, and the
// slowing of failed logins. Sessions live in the store, so every server process sharing
// it knows them; the store keeps only a hash of each session's token. Thread-safe.

#include <QByteArray>
#include <QList>
#include <QString>

#include <QHash>
#include <QMutex>

#include <optional>
#include <stdexcept>

class QKServiceStore;

struct QKMember
{
    qint64 id = 0;
    QString name;
    bool admin = false;
};

struct QKSession
{
    QKMember member;
    QByteArray csrf; // sent back by the dashboard with every change
};

class QKAccounts
{
public:
    static constexpr qint64 SessionLifetimeMs = 7LL * 24 * 3600 * 1000;
    static constexpr int MinPasswordLength = 8;

    explicit QKAccounts(QKServiceStore *store); // the store outlives the accounts

    // Throws std::invalid_argument with a message for people: a name that is empty, too
    // long, holds control characters or is taken; a password that is too short.
    QKMember addMember(const QString &name, const QByteArray &password, bool admin);
    QList<QKMember> members();
    // A new password, which also ends the member's sessions; false when there is no such
    // member. Throws std::invalid_argument for a password that is too short.
    bool setPassword(const QString &name, const QByteArray &password);
    // False when there is no such member; their sessions and access go with them.
    bool removeMember(const QString &name);

    struct Login
    {
        enum class Outcome { LoggedIn, Wrong, Slowed };
        Outcome outcome = Outcome::Wrong;
        qint64 retryAfterSeconds = 0; // Slowed
        QByteArray token;             // LoggedIn: the cookie's value, nowhere else
        QKSession session;
    };
    // After a few failures for a name or from an address, further attempts of either are
    // refused for a while, doubling with each failure (up to 15 minutes), before any
    // password is checked.
    Login logIn(const QString &name, const QByteArray &password, const QByteArray &address);
    std::optional<QKSession> session(const QByteArray &token);
    void logOut(const QByteArray &token);

private:
    qint64 waitMs(const QString &key, qint64 now);
    void failed(const QString &key, qint64 now);
    bool verify(const QByteArray &hash, const QByteArray &password);

    struct Failures
    {
        int count = 0;
        qint64 last = 0;
    };
    QKServiceStore *m_store;
    QMutex m_mutex;
    QHash<QString, Failures> m_failures;
    QByteArray m_decoyHash; // checked for unknown names, so they take as long as known ones
};
