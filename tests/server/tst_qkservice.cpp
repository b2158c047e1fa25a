// The service's protocol over real HTTPS, from outside: what the application key may not
// do, what bad input gets, the limits, a POST resent after a dropped connection, and
// stopping with a request in flight.

#include "data/QKPlatformFeedbackSource.h"
#include "support/CompletionOutcome.h"
#include "support/FakeService.h"
#include "support/ServiceClient.h"

#include "QKService.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QSemaphore>
#include <QSslSocket>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <atomic>
#include <thread>

namespace {

QByteArray itemBody(const QByteArray &png = {}, const QByteArray &uid = "dev-a")
{
    QJsonObject body{{"Text", "t"}, {"Uid", QString::fromUtf8(uid)}};
    if (!png.isNull())
        body.insert("Image", QJsonObject{{"base64", QString::fromLatin1(png.toBase64())}});
    return QJsonDocument(body).toJson(QJsonDocument::Compact);
}

} // namespace

class tst_QKService : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    std::unique_ptr<QKService> m_service;
    QString m_keyA, m_keyB, m_itemA, m_itemB;
    std::function<void(const QKServiceRequest &)> m_observe;
    std::mutex m_observeMutex;

    Reply call(const QByteArray &method, const QString &path, const QList<QByteArray> &headers = {},
               const QByteArray &body = {})
    {
        auto socket = connectTo(m_service->port());
        if (!socket)
            return {};
        socket->write(requestText(method, "/feedback/api/v1" + path.toUtf8(), headers, body));
        return readReply(*socket);
    }

    static QString threads(const QString &key) { return QLatin1Char('/') + key + "/threads"; }
    QString post(const QString &key, const QByteArray &body)
    {
        return call("POST", threads(key), {}, body).json()["Id"].toString();
    }

private slots:
    void initTestCase()
    {
        QKServiceOptions options;
        options.dataDirectory = m_dir.path();
        options.listen = "127.0.0.1:0";
        options.certificateFile = FakeService::certsDirectory() + "/server.pem";
        options.keyFile = FakeService::certsDirectory() + "/server.key";
        options.logRequests = false;
        options.http.maxBodyBytes = 256 * 1024;
        options.http.bodyBudgetBytes = 300 * 1024;
        options.http.headerTimeoutMs = 1000;
        options.observer = [this](const QKServiceRequest &request) {
            std::lock_guard lock(m_observeMutex);
            if (m_observe)
                m_observe(request);
        };
        m_service = std::make_unique<QKService>(options);
        m_service->start();
        m_keyA = m_service->store()->addApp(QStringLiteral("a")).key;
        m_keyB = m_service->store()->addApp(QStringLiteral("b")).key;
        m_itemA = post(m_keyA, itemBody(pngHeader(2, 2)));
        m_itemB = post(m_keyB, itemBody({}, "dev-b"));
        QVERIFY(!m_itemA.isEmpty() && !m_itemB.isEmpty());
    }

    void refusals_data()
    {
        QTest::addColumn<QByteArray>("method");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QList<QByteArray>>("headers");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<int>("status");
        QTest::addColumn<int>("code");
        using H = QList<QByteArray>;
        const auto row = [](const char *name, QByteArray method, QString path, H headers, QByteArray body, int status,
                            int code) { QTest::newRow(name) << method << path << headers << body << status << code; };
        // Scope: the key is public.
        row("listing without filter", "GET", "/A/threads", {}, {}, 403, 4030);
        row("listing by state only", "GET", "/A/threads", {"x-filter-meta: {\"State\":\"Open\"}"}, {}, 403, 4030);
        row("Uid only inside $or", "GET", "/A/threads",
            {"x-filter-meta: {\"$or\":[{\"Uid\":\"dev-a\"},{\"State\":\"Open\"}]}"}, {}, 403, 4030);
        row("another app's item by id", "GET", "/A/threads", {"x-filter-meta: {\"Id\":\"B\",\"RootId\":\"B\"}"}, {},
            200, 0);
        row("PUT without filter", "PUT", "/A/threads", {}, "{\"State\":\"Resolved\"}", 403, 4030);
        row("PUT with empty filter", "PUT", "/A/threads", {"x-filter-meta: {}"}, "{\"State\":\"Resolved\"}", 403, 4030);
        row("PUT with more than RootId", "PUT", "/A/threads", {"x-filter-meta: {\"RootId\":\"A\",\"Uid\":\"dev-a\"}"},
            "{\"State\":\"Resolved\"}", 403, 4030);
        row("PUT on another app's item", "PUT", "/A/threads", {"x-filter-meta: {\"RootId\":\"B\"}"},
            "{\"State\":\"Resolved\"}", 404, 4041);
        row("DELETE another app's item", "DELETE", "/A/threads/B", {}, {}, 404, 4041);
        row("comment on another app's item", "POST", "/A/threads/B", {}, itemBody(), 404, 4041);
        row("unknown key", "GET", "/nokey/threads", {"x-filter-meta: {\"Uid\":\"dev-a\"}"}, {}, 404, 4040);
        // Injection stays data.
        row("quote in a value", "GET", "/A/threads", {"x-filter-meta: {\"Uid\":\"x' OR '1'='1\"}"}, {}, 200, 0);
        row("SQL as a field name", "GET", "/A/threads", {"x-filter-meta: {\"Uid) OR 1=1 --\":\"x\"}"}, {}, 400, 4005);
        row("unknown operator", "GET", "/A/threads", {"x-filter-meta: {\"Uid\":\"x\",\"$where\":\"1\"}"}, {}, 400,
            4005);
        row("unescaped quote from a UID", "GET", "/A/threads", {"x-filter-meta: {\"Uid\" : \"a\"b\"}"}, {}, 400, 4005);
        row("JSON in a string", "GET", "/A/threads", {"x-filter-meta: {\"Uid\":{\"$gt\":\"\"}}"}, {}, 400, 4005);
        row("SQL in the sort", "GET", "/A/threads",
            {"x-filter-meta: {\"Uid\":\"dev-a\"}", "x-sort-meta: {\"CreatedAt DESC; DROP TABLE threads; --\":1}"}, {},
            400, 4006);
        row("skip not decimal", "GET", "/A/threads", {"x-filter-meta: {\"Uid\":\"dev-a\"}", "x-skip-meta: 1e3"}, {},
            400, 4007);
        row("skip too far", "GET", "/A/threads", {"x-filter-meta: {\"Uid\":\"dev-a\"}", "x-skip-meta: 1000000001"}, {},
            400, 4007);
        // Bad bodies.
        row("not JSON", "POST", "/A/threads", {}, "{\"Text\":", 400, 4001);
        row("an array", "POST", "/A/threads", {}, "[]", 400, 4001);
        row("deep nesting", "POST", "/A/threads", {}, "{\"x\":" + QByteArray(100000, '[') + "}", 400, 4001);
        row("invalid UTF-8", "POST", "/A/threads", {}, "{\"Text\":\"\xc3\x28\",\"Uid\":\"d\"}", 400, 4001);
        row("Text a number", "POST", "/A/threads", {}, "{\"Text\":1,\"Uid\":\"d\"}", 400, 4002);
        row("no Uid", "POST", "/A/threads", {}, "{\"Text\":\"t\"}", 400, 4002);
        row("NUL in Text", "POST", "/A/threads", {}, "{\"Text\":\"a\\u0000b\",\"Uid\":\"d\"}", 400, 4002);
        row("Base64 garbage", "POST", "/A/threads", {}, itemBody("not a png at all"), 400, 4003);
        QByteArray badCrc = pngHeader(2, 2);
        badCrc[30] = char(badCrc[30] ^ 1);
        row("IHDR checksum", "POST", "/A/threads", {}, itemBody(badCrc), 400, 4003);
        row("huge PNG header", "POST", "/A/threads", {}, itemBody(pngHeader(20000, 10)), 400, 4004);
        row("Idempotency-Key with a blank", "POST", "/A/threads", {"Idempotency-Key: a b"}, itemBody(), 400, 4009);
        row("state not known", "PUT", "/A/threads", {"x-filter-meta: {\"RootId\":\"A\"}"}, "{\"State\":\"Closed\"}",
            400, 4008);
        row("more than State", "PUT", "/A/threads", {"x-filter-meta: {\"RootId\":\"A\"}"},
            "{\"State\":\"Open\",\"Text\":\"x\"}", 400, 4002);
        // Addresses and methods.
        row("PATCH", "PATCH", "/A/threads", {}, "{}", 405, 4050);
        row("GET one thread", "GET", "/A/threads/A", {}, {}, 405, 4050);
        row("unknown path", "GET", "/A/other", {}, {}, 404, 4042);
        row("unknown image", "GET", "/images/nothing", {}, {}, 404, 4042);
    }

    void refusals()
    {
        QFETCH(QByteArray, method);
        QFETCH(QString, path);
        QFETCH(QList<QByteArray>, headers);
        QFETCH(QByteArray, body);
        QFETCH(int, status);
        QFETCH(int, code);
        const auto fill = [this](QByteArray text) {
            return text.replace("\"A\"", "\"" + m_itemA.toUtf8() + "\"")
                .replace("\"B\"", "\"" + m_itemB.toUtf8() + "\"");
        };
        path.replace("/A/threads/A", "/A/threads/" + m_itemA)
            .replace("/A/threads/B", "/A/threads/" + m_itemB)
            .replace("/A/", QLatin1Char('/') + m_keyA + QLatin1Char('/'));
        for (QByteArray &h : headers)
            h = fill(h);
        const Reply reply = call(method, path, headers, body);
        QCOMPARE(reply.status, status);
        if (code) {
            QCOMPARE(reply.code(), code);
            QVERIFY(!reply.json().toObject().value(QStringLiteral("message")).toString().isEmpty());
        } else {
            QCOMPARE(reply.json().toArray().size(), 0);
        }
        QVERIFY(reply.head.contains("X-Content-Type-Options: nosniff"));
    }

    // Nothing the refusals tried changed the other application's item.
    void othersUntouched()
    {
        const Reply reply = call("GET", threads(m_keyB), {"x-filter-meta: {\"Uid\":\"dev-b\"}"});
        const QJsonArray items = reply.json().toArray();
        QCOMPARE(items.size(), 1);
        QCOMPARE(items[0].toObject().value(QStringLiteral("Id")).toString(), m_itemB);
        QCOMPARE(items[0].toObject().value(QStringLiteral("State")).toString(), "Open");
        const Reply own = call("GET", threads(m_keyA), {"x-filter-meta: {\"Uid\":\"dev-a\"}"});
        QCOMPARE(own.json().toArray().size(), 1);
        const Reply image = call("GET", QUrl(own.json()[0]["Image"]["Uri"].toString()).path().mid(16));
        QCOMPARE(image.status, 200);
        QCOMPARE(image.body, pngHeader(2, 2));
        QVERIFY(image.head.contains("Content-Type: image/png"));
        QVERIFY(image.head.contains("immutable"));
    }

    void limits()
    {
        const QByteArray target = "/feedback/api/v1/" + m_keyA.toUtf8() + "/threads";
        const Reply headers = call("GET", threads(m_keyA), {"x-filler: " + QByteArray(20000, 'x')});
        QCOMPARE(headers.status, 431);
        QCOMPARE(headers.code(), 4310);

        // Too large by its length: answered before the body is read.
        auto declared = connectTo(m_service->port());
        declared->write("POST " + target + " HTTP/1.1\r\nHost: x\r\nContent-Length: 300000\r\n\r\n");
        QCOMPARE(readReply(*declared).code(), 4130);
        auto chunked = connectTo(m_service->port());
        chunked->write("POST " + target + " HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n");
        for (int i = 0; i < 5; ++i)
            chunked->write("10000\r\n" + QByteArray(0x10000, 'x') + "\r\n");
        QCOMPARE(readReply(*chunked).code(), 4130);

        // Bodies being read at once share a budget: the second waits its turn.
        auto first = connectTo(m_service->port());
        first->write("POST " + target + " HTTP/1.1\r\nHost: x\r\nContent-Length: 200000\r\n\r\n");
        QVERIFY(first->waitForBytesWritten(2000));
        Reply busy;
        QTRY_VERIFY_WITH_TIMEOUT((busy = call("POST", threads(m_keyA), {}, QByteArray(200000, ' '))).status == 503,
                                 5000);
        QCOMPARE(busy.code(), 5030);
        QVERIFY(busy.head.contains("Retry-After: 1"));

        // A client that drips its headers is cut off at the deadline, not kept alive by each byte.
        auto slow = connectTo(m_service->port());
        QElapsedTimer clock;
        clock.start();
        QTimer drip;
        const QByteArray text = "GET " + target + " HTTP/1.1\r\nHost: x\r\nx-filter-meta: " + QByteArray(1000, 'x');
        int sent = 0;
        connect(&drip, &QTimer::timeout, slow.get(), [&] { slow->write(text.mid(sent++, 1)); });
        drip.start(100);
        QTRY_VERIFY_WITH_TIMEOUT(slow->state() == QAbstractSocket::UnconnectedState, 10000);
        QVERIFY2(clock.elapsed() < 4000, qPrintable(QString::number(clock.elapsed())));
    }

    // The connection drops after the service stored the item and before its answer
    // arrives; Qt sends the POST again with the same key, and one item is stored.
    void resentPostStoresOnce()
    {
        QTcpServer proxy;
        QVERIFY(proxy.listen(QHostAddress::LocalHost));
        int connections = 0;
        std::atomic<bool> stored = false;
        connect(&proxy, &QTcpServer::newConnection, this, [&] {
            QTcpSocket *client = proxy.nextPendingConnection();
            auto *upstream = new QTcpSocket(client);
            const bool drop = connections++ == 0;
            upstream->connectToHost(QHostAddress::LocalHost, m_service->port());
            connect(client, &QTcpSocket::readyRead, upstream, [=] { upstream->write(client->readAll()); });
            connect(upstream, &QTcpSocket::connected, upstream, [=] { upstream->write(client->readAll()); });
            connect(upstream, &QTcpSocket::readyRead, client, [=, &stored] {
                const QByteArray answer = upstream->readAll();
                // The first bytes after the service took the POST are its answer.
                if (drop && stored)
                    client->abort();
                else
                    client->write(answer);
            });
            connect(client, &QTcpSocket::disconnected, client, &QObject::deleteLater);
        });
        QList<QByteArray> keys;
        {
            std::lock_guard lock(m_observeMutex);
            m_observe = [&keys, &stored](const QKServiceRequest &r) {
                if (r.method == "POST")
                    keys.append(r.header("idempotency-key"));
                stored = true;
            };
        }
        QKPlatformFeedbackSource source(m_keyA, "dev-resend",
                                        QStringLiteral("https://127.0.0.1:%1/feedback/api/v1").arg(proxy.serverPort()),
                                        QVariantMap());
        auto session = QSharedPointer<QKURLSession>::create();
        session->addCaCertificates(FakeService::caCertificates());
        source.setSession(session);
        auto item = QKFeedbackItemPtr::create();
        item->setText("sent once");
        Outcome outcome;
        source.addFeedback(item, outcome.error_());
        QTRY_VERIFY_WITH_TIMEOUT(outcome.done(), 20000);
        {
            std::lock_guard lock(m_observeMutex);
            m_observe = nullptr;
        }
        QVERIFY2(!outcome.error, qPrintable(describe(outcome.error)));
        QCOMPARE(keys.size(), 2);
        QCOMPARE(keys[0], keys[1]);
        const Reply listed = call("GET", threads(m_keyA), {"x-filter-meta: {\"Uid\":\"dev-resend\"}"});
        QCOMPARE(listed.json().toArray().size(), 1);
    }

    // SIGTERM's stop: the acceptor closes at once, the request in flight is answered.
    void stopFinishesRequestsInFlight()
    {
        QSemaphore entered, release;
        {
            std::lock_guard lock(m_observeMutex);
            m_observe = [&](const QKServiceRequest &) {
                entered.release();
                release.acquire();
            };
        }
        const quint16 port = m_service->port();
        auto inFlight = connectTo(port);
        inFlight->write(requestText("POST", "/feedback/api/v1/" + m_keyA.toUtf8() + "/threads", {}, itemBody()));
        QVERIFY(inFlight->waitForBytesWritten(2000));
        QVERIFY(entered.tryAcquire(1, 5000));
        std::thread stopping([this] { m_service->stop(); });
        QTRY_VERIFY_WITH_TIMEOUT(!connectTo(port), 5000);
        release.release();
        const Reply reply = readReply(*inFlight);
        stopping.join();
        QCOMPARE(reply.status, 201);
        QVERIFY(reply.head.contains("Connection: close"));
    }
};

QTEST_GUILESS_MAIN(tst_QKService)
#include "tst_qkservice.moc"
