#include "QKWebhooks.h"
#include "QKServiceEvents.h"
#include "QKServiceStore.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMessageAuthenticationCode>
#include <QRandomGenerator>
#include <QUrl>

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <stdexcept>

namespace {

// Other processes sharing the database queue deliveries we are not woken for.
constexpr qint64 PollMs = 2000;
constexpr qint64 MaxDelayMs = 3600 * 1000;
// A claimed delivery is left alone this long past its POST's time-out, then taken to be
// lost with the process that claimed it.
constexpr qint64 LeaseMarginMs = 60000;
// The answer's body means nothing to us.
constexpr size_t MaxAnswerBytes = 4096;
constexpr qsizetype MaxUrlLength = 2048;
constexpr qsizetype ExcerptLength = 120;

struct Answer
{
    long status = 0; // 0: no HTTP answer
    QString error;
    bool aborted = false;
};

qint64 now()
{
    return QDateTime::currentMSecsSinceEpoch();
}

QJsonValue text(const QVariant &value)
{
    return value.isValid() ? QJsonValue(value.toString()) : QJsonValue();
}

// The library sends an empty author for a person who gave no name.
QJsonValue author(const QVariant &value)
{
    return value.toString().isEmpty() ? QJsonValue() : QJsonValue(value.toString());
}

QJsonValue number(const QVariant &value)
{
    return value.isValid() ? QJsonValue(value.toLongLong()) : QJsonValue();
}

QJsonValue date(const QVariant &value)
{
    return QDateTime::fromMSecsSinceEpoch(value.toLongLong(), Qt::UTC).toString(Qt::ISODateWithMs);
}

// Slack-compatible tools read <…> as links and mentions and & as an entity; feedback must not
// ping a channel.
QString escaped(QString line)
{
    return line.replace(QLatin1Char('&'), QLatin1String("&amp;"))
        .replace(QLatin1Char('<'), QLatin1String("&lt;"))
        .replace(QLatin1Char('>'), QLatin1String("&gt;"));
}

QString quoted(const QString &written)
{
    QString line = written.simplified();
    if (line.isEmpty())
        return QString();
    if (line.size() > ExcerptLength) {
        qsizetype cut = ExcerptLength;
        if (line.at(cut - 1).isHighSurrogate())
            --cut;
        line = line.left(cut).trimmed() + QChar(0x2026);
    }
    return QStringLiteral(": \"%1\"").arg(escaped(line));
}

QString authorName(const QVariant &author)
{
    const QString name = author.toString().simplified();
    return escaped(name.isEmpty() ? QStringLiteral("Anonymous") : name);
}

size_t discard(char *, size_t size, size_t count, void *data)
{
    size_t &read = *static_cast<size_t *>(data);
    read += size * count;
    return read > MaxAnswerBytes ? 0 : size * count;
}

int progress(void *data, curl_off_t, curl_off_t, curl_off_t, curl_off_t)
{
    return static_cast<std::atomic<bool> *>(data)->load() ? 1 : 0;
}

Answer post(const QString &url, const QString &event, qint64 id, const QByteArray &body, const QString &secret,
            int timeoutMs, std::atomic<bool> *stopping)
{
    const std::unique_ptr<CURL, void (*)(CURL *)> curl(curl_easy_init(), curl_easy_cleanup);
    if (!curl)
        return {0, QStringLiteral("libcurl could not start.")};
    curl_slist *list = nullptr;
    for (const QByteArray &header :
         {QByteArray("Content-Type: application/json"), QByteArray("Expect:"), "X-Murmora-Event: " + event.toLatin1(),
          "X-Murmora-Delivery: " + QByteArray::number(id),
          "X-Murmora-Signature: sha256=" +
              QMessageAuthenticationCode::hash(body, secret.toUtf8(), QCryptographicHash::Sha256).toHex()}) {
        curl_slist *longer = curl_slist_append(list, header.constData());
        if (!longer) {
            curl_slist_free_all(list);
            return {0, QStringLiteral("Out of memory.")};
        }
        list = longer;
    }
    const std::unique_ptr<curl_slist, void (*)(curl_slist *)> headers(list, curl_slist_free_all);
    const QByteArray address = QUrl(url).toEncoded();
    size_t read = 0;
    std::array<char, CURL_ERROR_SIZE> message{};
    CURL *c = curl.get();
    curl_easy_setopt(c, CURLOPT_URL, address.constData());
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, long(timeoutMs));
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, long(timeoutMs));
    curl_easy_setopt(c, CURLOPT_POST, 1L);
    curl_easy_setopt(c, CURLOPT_POSTFIELDS, body.constData());
    curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(body.size()));
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(c, CURLOPT_USERAGENT, "murmora-server");
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, discard);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &read);
    // libcurl calls this about once a second even while nothing moves, so stop() is prompt.
    curl_easy_setopt(c, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(c, CURLOPT_XFERINFOFUNCTION, progress);
    curl_easy_setopt(c, CURLOPT_XFERINFODATA, stopping);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, message.data());

    const CURLcode result = curl_easy_perform(c);
    Answer answer;
    if (result == CURLE_ABORTED_BY_CALLBACK) {
        answer.aborted = true;
    } else if (result == CURLE_OK || (result == CURLE_WRITE_ERROR && read > MaxAnswerBytes)) {
        curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &answer.status);
    } else {
        answer.error = QString::fromUtf8(message[0] ? message.data() : curl_easy_strerror(result)).left(200);
    }
    return answer;
}

} // namespace

struct QKWebhooks::Delivery
{
    qint64 id = 0;
    QString event;
    QByteArray payload;
    qint64 attempts = 0;
    qint64 nextAt = 0;
    QString url;
    QString secret;
};

QKWebhooks::QKWebhooks(QKServiceStore *store, const QKWebhookOptions &options) : m_store(store), m_options(options)
{
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

QKWebhooks::~QKWebhooks()
{
    stop();
}

void QKWebhooks::start()
{
    if (m_thread.joinable())
        return;
    m_stopping = false;
    m_thread = std::thread([this] { run(); });
}

void QKWebhooks::stop()
{
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable())
        m_thread.join();
}

void QKWebhooks::publish(const QKServiceEvent &event)
{
    QString name;
    switch (event.kind) {
    case QKServiceEvent::Kind::Created:
        name = QStringLiteral("thread.created");
        break;
    case QKServiceEvent::Kind::Comment:
        if (!event.fromDevice)
            return;
        name = QStringLiteral("comment.created");
        break;
    case QKServiceEvent::Kind::State:
        name = QStringLiteral("thread.state");
        break;
    case QKServiceEvent::Kind::Deleted:
        return;
    }
    try {
        if (m_store->query(QStringLiteral("SELECT 1 FROM webhooks WHERE app_id = ? LIMIT 1"), {event.appId}).isEmpty())
            return;
        const QKSqlRows threads = m_store->query(
            QStringLiteral("SELECT t.id, t.uid, t.text, t.author, t.state, t.created_at, a.name FROM threads t"
                           " JOIN apps a ON a.id = t.app_id WHERE t.id = ? AND t.app_id = ? AND t.root_id IS NULL"),
            {event.threadId, event.appId});
        if (threads.isEmpty())
            return; // deleted since
        const QVariantList &thread = threads.first();
        const QString app = escaped(thread[6].toString());
        QJsonObject payload{{QStringLiteral("event"), name},
                            {QStringLiteral("app"), QJsonObject{{QStringLiteral("id"), event.appId},
                                                                {QStringLiteral("name"), text(thread[6])}}},
                            {QStringLiteral("thread"), QJsonObject{{QStringLiteral("id"), text(thread[0])},
                                                                   {QStringLiteral("uid"), text(thread[1])},
                                                                   {QStringLiteral("text"), text(thread[2])},
                                                                   {QStringLiteral("author"), author(thread[3])},
                                                                   {QStringLiteral("state"), text(thread[4])},
                                                                   {QStringLiteral("createdAt"), date(thread[5])}}}};
        QString line;
        if (event.kind == QKServiceEvent::Kind::Comment) {
            const QKSqlRows comments = m_store->query(QStringLiteral("SELECT id, text, author, created_at FROM threads"
                                                                     " WHERE id = ? AND app_id = ? AND root_id = ?"),
                                                      {event.commentId, event.appId, event.threadId});
            if (comments.isEmpty())
                return;
            const QVariantList &comment = comments.first();
            payload.insert(QStringLiteral("comment"), QJsonObject{{QStringLiteral("id"), text(comment[0])},
                                                                  {QStringLiteral("text"), text(comment[1])},
                                                                  {QStringLiteral("author"), author(comment[2])},
                                                                  {QStringLiteral("createdAt"), date(comment[3])}});
            line = QStringLiteral("%1 commented on feedback in %2%3")
                       .arg(authorName(comment[2]), app, quoted(comment[1].toString()));
        } else if (event.kind == QKServiceEvent::Kind::Created) {
            line = QStringLiteral("New feedback in %1 from %2%3")
                       .arg(app, authorName(thread[3]), quoted(thread[2].toString()));
        } else {
            line = QStringLiteral("Feedback in %1 is now %2%3")
                       .arg(app, escaped(thread[4].toString()), quoted(thread[2].toString()));
        }
        payload.insert(QStringLiteral("text"), line);
        const QString body = QString::fromUtf8(QJsonDocument(payload).toJson(QJsonDocument::Compact));
        const qint64 at = now();
        // One statement, so a webhook removed meanwhile gets nothing rather than failing the rest.
        m_store->transaction([&](const QKSql &run) {
            run(QStringLiteral(
                    "INSERT INTO deliveries (webhook_id, event, payload, status, attempts, next_at, created_at)"
                    " SELECT id, CAST(? AS TEXT), CAST(? AS TEXT), 'pending', 0, CAST(? AS BIGINT),"
                    " CAST(? AS BIGINT) FROM webhooks WHERE app_id = ?"),
                {name, body, at, at, event.appId});
        });
    } catch (const std::exception &error) {
        std::fprintf(stderr, "Cannot queue webhook deliveries: %s\n", error.what());
        return;
    }
    {
        std::lock_guard lock(m_mutex);
        m_woken = true;
    }
    m_wake.notify_all();
}

QJsonObject QKWebhooks::add(qint64 appId, const QString &url)
{
    const QString trimmed = url.trimmed();
    const QUrl parsed(trimmed, QUrl::StrictMode);
    const QString scheme = parsed.scheme().toLower();
    if (trimmed.size() > MaxUrlLength || !parsed.isValid() ||
        (scheme != QLatin1String("https") && scheme != QLatin1String("http")) || parsed.host().isEmpty())
        throw std::invalid_argument("A webhook's address starts with https:// or http:// and a host name,"
                                    " for example https://hooks.example.com/murmora.");
    const QString address = parsed.toString(QUrl::FullyEncoded);
    std::array<quint32, 8> random;
    QRandomGenerator::system()->fillRange(random.data(), random.size());
    const QString secret =
        QStringLiteral("whsec_") +
        QString::fromLatin1(QByteArray(reinterpret_cast<const char *>(random.data()), sizeof(random)).toHex());
    const qint64 createdAt = now();
    qint64 id = 0;
    try {
        m_store->transaction([&](const QKSql &run) {
            id = run(QStringLiteral("INSERT INTO webhooks (app_id, url, secret, created_at) VALUES (?, ?, ?, ?)"
                                    " RETURNING id"),
                     {appId, address, secret, createdAt})
                     .first()
                     .first()
                     .toLongLong();
        });
    } catch (const QKServiceStoreError &error) {
        // PostgreSQL may quote the failing row; the log must not get the secret.
        throw QKServiceStoreError(
            QString::fromUtf8(error.what()).replace(secret, QStringLiteral("whsec_…")).toStdString());
    }
    return {{QStringLiteral("id"), id},
            {QStringLiteral("url"), address},
            {QStringLiteral("createdAt"), createdAt},
            {QStringLiteral("secret"), secret}};
}

std::optional<qint64> QKWebhooks::appOf(qint64 webhookId)
{
    const QKSqlRows rows = m_store->query(QStringLiteral("SELECT app_id FROM webhooks WHERE id = ?"), {webhookId});
    if (rows.isEmpty())
        return std::nullopt;
    return rows.first().first().toLongLong();
}

bool QKWebhooks::remove(qint64 webhookId)
{
    bool removed = false;
    m_store->transaction([&](const QKSql &run) {
        run(QStringLiteral("DELETE FROM deliveries WHERE webhook_id = ?"), {webhookId});
        removed = !run(QStringLiteral("DELETE FROM webhooks WHERE id = ? RETURNING id"), {webhookId}).isEmpty();
    });
    return removed;
}

QJsonObject QKWebhooks::list(qint64 appId)
{
    QJsonArray webhooks;
    for (const QVariantList &row : m_store->query(
             QStringLiteral("SELECT id, url, created_at FROM webhooks WHERE app_id = ? ORDER BY id"), {appId}))
        webhooks.append(QJsonObject{{QStringLiteral("id"), number(row[0])},
                                    {QStringLiteral("url"), text(row[1])},
                                    {QStringLiteral("createdAt"), number(row[2])}});
    QJsonArray deliveries;
    for (const QVariantList &row : m_store->query(
             QStringLiteral("SELECT d.id, d.webhook_id, w.url, d.event, d.status, d.attempts, d.response_status,"
                            " d.error, d.created_at, d.next_at, d.delivered_at FROM deliveries d"
                            " JOIN webhooks w ON w.id = d.webhook_id WHERE w.app_id = ? ORDER BY d.id DESC LIMIT 50"),
             {appId})) {
        const bool pending = row[4].toString() == QLatin1String("pending");
        deliveries.append(QJsonObject{{QStringLiteral("id"), number(row[0])},
                                      {QStringLiteral("webhookId"), number(row[1])},
                                      {QStringLiteral("url"), text(row[2])},
                                      {QStringLiteral("event"), text(row[3])},
                                      {QStringLiteral("status"), text(row[4])},
                                      {QStringLiteral("attempts"), number(row[5])},
                                      {QStringLiteral("responseStatus"), number(row[6])},
                                      {QStringLiteral("error"), text(row[7])},
                                      {QStringLiteral("createdAt"), number(row[8])},
                                      {QStringLiteral("nextAttemptAt"), pending ? number(row[9]) : QJsonValue()},
                                      {QStringLiteral("deliveredAt"), number(row[10])}});
    }
    return {{QStringLiteral("webhooks"), webhooks}, {QStringLiteral("deliveries"), deliveries}};
}

void QKWebhooks::run()
{
    std::string reported;
    while (!m_stopping) {
        qint64 wait = PollMs;
        try {
            while (!m_stopping) {
                const std::optional<Delivery> next = nextDelivery();
                if (!next)
                    break;
                if (const qint64 due = next->nextAt - now(); due > 0) {
                    wait = std::min(wait, due);
                    break;
                }
                send(*next);
            }
            reported.clear();
        } catch (const std::exception &error) {
            // A database that is down is told once, not at every poll.
            if (reported != error.what()) {
                reported = error.what();
                std::fprintf(stderr, "Cannot send webhook deliveries: %s\n", error.what());
            }
        }
        std::unique_lock lock(m_mutex);
        m_wake.wait_for(lock, std::chrono::milliseconds(wait), [this] { return m_woken || m_stopping; });
        m_woken = false;
    }
}

std::optional<QKWebhooks::Delivery> QKWebhooks::nextDelivery()
{
    const QKSqlRows rows = m_store->query(
        QStringLiteral("SELECT d.id, d.event, d.payload, d.attempts, d.next_at, w.url, w.secret FROM deliveries d"
                       " JOIN webhooks w ON w.id = d.webhook_id WHERE d.status = 'pending'"
                       " ORDER BY d.next_at, d.id LIMIT 1"));
    if (rows.isEmpty())
        return std::nullopt;
    const QVariantList &row = rows.first();
    return Delivery{row[0].toLongLong(), row[1].toString(), row[2].toString().toUtf8(), row[3].toLongLong(),
                    row[4].toLongLong(), row[5].toString(), row[6].toString()};
}

void QKWebhooks::send(const Delivery &delivery)
{
    // The claim: of several processes that read the same row, one moves next_at.
    const qint64 lease = now() + m_options.timeoutMs + LeaseMarginMs;
    bool claimed = false;
    m_store->transaction([&](const QKSql &run) {
        claimed = !run(QStringLiteral("UPDATE deliveries SET next_at = ? WHERE id = ? AND status = 'pending'"
                                      " AND next_at = ? RETURNING id"),
                       {lease, delivery.id, delivery.nextAt})
                       .isEmpty();
    });
    if (!claimed)
        return;

    const Answer answer = post(delivery.url, delivery.event, delivery.id, delivery.payload, delivery.secret,
                               m_options.timeoutMs, &m_stopping);
    const qint64 at = now();
    const qint64 attempts = delivery.attempts + 1;
    const QVariant status = answer.status ? QVariant(qint64(answer.status)) : QVariant();
    const QVariant error = answer.error.isEmpty() ? QVariant() : QVariant(answer.error);
    m_store->transaction([&](const QKSql &run) {
        if (answer.aborted) {
            // Stopped: nothing was attempted, the next run sends it at once.
            run(QStringLiteral("UPDATE deliveries SET next_at = ? WHERE id = ? AND next_at = ?"),
                {delivery.nextAt, delivery.id, lease});
        } else if (answer.status >= 200 && answer.status < 300) {
            run(QStringLiteral("UPDATE deliveries SET status = 'delivered', attempts = ?, response_status = ?,"
                               " error = NULL, next_at = NULL, delivered_at = ? WHERE id = ? AND next_at = ?"),
                {attempts, status, at, delivery.id, lease});
        } else if (attempts >= m_options.attempts) {
            run(QStringLiteral("UPDATE deliveries SET status = 'failed', attempts = ?, response_status = ?,"
                               " error = ?, next_at = NULL WHERE id = ? AND next_at = ?"),
                {attempts, status, error, delivery.id, lease});
        } else {
            qint64 delay = std::max<qint64>(m_options.firstRetryMs, 0);
            for (qint64 i = 1; i < attempts && delay < MaxDelayMs; ++i)
                delay *= 2;
            run(QStringLiteral("UPDATE deliveries SET attempts = ?, response_status = ?, error = ?, next_at = ?"
                               " WHERE id = ? AND next_at = ?"),
                {attempts, status, error, at + std::min(delay, MaxDelayMs), delivery.id, lease});
        }
    });
}
