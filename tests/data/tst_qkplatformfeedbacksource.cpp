// The hosted service source against the fake service, over real HTTPS on 127.0.0.1.

#include "base/QKBase64.h"
#include "base/QKDeviceInfo.h"
#include "base/QKException.h"
#include "base/QKPNGCodec.h"
#include "base/QKServiceDate.h"
#include "data/QKPlatformFeedbackSource.h"
#include "support/CompletionOutcome.h"
#include "support/FakeService.h"

#include <QJsonDocument>
#include <QTcpServer>
#include <QtTest>

#include <mutex>

namespace {

using Source = QKPlatformFeedbackSource;

#define WAIT_FOR(outcome)                                                                                              \
    do {                                                                                                               \
        QTRY_VERIFY_WITH_TIMEOUT((outcome).done(), 20000);                                                             \
        QCOMPARE((outcome).calls, 1);                                                                                  \
        QVERIFY((outcome).thread != qApp->thread());                                                                   \
    } while (false)

QJsonObject bodyOf(const RecordedRequest &request)
{
    return QJsonDocument::fromJson(request.body).object();
}

QStringList keysOf(const QJsonObject &object)
{
    QStringList keys = object.keys();
    keys.sort();
    return keys;
}

QImage sampleImage()
{
    QImage image(40, 30, QImage::Format_RGB32);
    for (int y = 0; y < 30; ++y)
        for (int x = 0; x < 40; ++x)
            image.setPixel(x, y, qRgb(x * 6, y * 8, (x * y) & 0xFF));
    return image;
}

// A local port that nothing listens on.
quint16 closedPort()
{
    QTcpServer server;
    server.listen(QHostAddress::LocalHost);
    const quint16 port = server.serverPort();
    server.close();
    return port;
}

QKError platformError(qint64 code, const QString &message)
{
    return QKError::withMessage(QStringLiteral("Wendax Platform"), code, message);
}

enum class Op { List, Send, Edit, Delete, Image, Comments, Comment };

} // namespace

Q_DECLARE_METATYPE(Op)

class TestPlatformFeedbackSource : public QObject
{
    Q_OBJECT

    FakeService m_service;
    QSharedPointer<QKURLSession> m_session;

    std::unique_ptr<Source> source(const QString &uid = QStringLiteral("device-1"))
    {
        auto s = std::make_unique<Source>(QStringLiteral("KEY"), uid, m_service.baseUrl(), QVariantMap());
        s->setSession(m_session);
        return s;
    }

    const QString collection = QStringLiteral("/feedback/api/v1/KEY/threads");

    // Starts `op` on `s` for thread `key`; the comment it sends (if any) is returned.
    QKFeedbackItemPtr start(Op op, Source &s, Outcome &outcome, const QString &key = QStringLiteral("K1"))
    {
        auto item = QKFeedbackItem::create();
        item->setText(QStringLiteral("text"));
        switch (op) {
        case Op::List:
            s.feedbackItemsByState(QString(), 0, outcome.items_());
            break;
        case Op::Send:
            s.addFeedback(item, outcome.error_());
            break;
        case Op::Edit:
            s.editWithKey(key, QStringLiteral("Resolved"), outcome.error_());
            break;
        case Op::Delete:
            s.deleteWithKey(key, outcome.error_());
            break;
        case Op::Image:
            s.imageForKey(s.baseURL() + QStringLiteral("/x.png"), outcome.image_());
            break;
        case Op::Comments:
            s.subItemsForKey(key, outcome.items_());
            break;
        case Op::Comment:
            s.addSubItemForKey(key, item, outcome.error_());
            break;
        }
        return item;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_service.listen());
        m_session = QSharedPointer<QKURLSession>::create();
        m_session->addCaCertificates(FakeService::caCertificates());
        QKDeviceInfo::setProviders({[] { return QStringLiteral("Test Phone"); }, [] { return QStringLiteral("17.2"); },
                                    [] { return QStringLiteral("com.example.notes"); }, [] { return QString(); },
                                    [] { return QSizeF(375, 667); }});
    }

    void init()
    {
        m_service.clearRequests();
        m_service.clearAnswers();
    }

    void defaults()
    {
        QCOMPARE(Source().baseURL(), QStringLiteral("https://platform.wendax.com/feedback/api/v1"));
        Source full(QStringLiteral("K"), QStringLiteral("U"), QString(), {});
        QVERIFY(full.baseURL().isNull()); // no fall-back to the default
        QCOMPARE(full.session(), QKURLSession::sharedSession());
        QVERIFY(full.implements(QKFeedbackDataSource::Operation::AddSubItemForKey));
        QVERIFY(!full.implements(QKFeedbackDataSource::Operation::UserEmail));
    }

    void missingUidThrowsBeforeSending()
    {
        auto s = source(QString());
        Outcome outcome;
        try {
            s->feedbackItemsByState(QString(), 0, outcome.items_());
            QFAIL("listed without a UID");
        } catch (const QKException &e) {
            QCOMPARE(e.name(), QStringLiteral("QKPlatformFeedbackSource"));
            QCOMPARE(e.reason(),
                     QStringLiteral("Please provide the UID property to work properly with Wendax Platform service."));
        }
        QVERIFY_THROWS_EXCEPTION(QKException, start(Op::Send, *s, outcome));
        QVERIFY_THROWS_EXCEPTION(QKException, start(Op::Comment, *s, outcome));
        QVERIFY_THROWS_EXCEPTION(QKException, s->addFeedbackItems({QKFeedbackItem::create()}, outcome.error_()));
        auto textless = source();
        QVERIFY_THROWS_EXCEPTION(QKException, textless->addFeedback(QKFeedbackItem::create(), outcome.error_()));
        // An empty UID is a UID: its listing is the one request sent and the one call made.
        auto empty = source(QStringLiteral(""));
        start(Op::List, *empty, outcome);
        WAIT_FOR(outcome);
        QCOMPARE(m_service.requests().size(), 1);
    }

    void listingRequest_data()
    {
        QTest::addColumn<QString>("apiKey");
        QTest::addColumn<QString>("state");
        QTest::addColumn<qint64>("skip");
        QTest::addColumn<QByteArray>("target");
        QTest::addColumn<QByteArray>("filter");
        QTest::addColumn<QByteArray>("skipHeader");
        const QByteArray all = "{\"$and\":[{\"RootId\" : null}, {\"Uid\" : \"device-1\"}]}";
        QTest::newRow("all") << "KEY" << QString() << qint64(0) << collection.toUtf8() << all << QByteArray("0");
        QTest::newRow("open, page 2")
            << "KEY" << QStringLiteral("Open") << qint64(20) << collection.toUtf8()
            << QByteArray("{\"$and\":[{\"RootId\" : null}, {\"Uid\" : \"device-1\"}, {\"State\" : \"Open\"}]}")
            << QByteArray("20");
        QTest::newRow("resolved, negative")
            << "KEY" << QStringLiteral("Resolved") << qint64(-1) << collection.toUtf8()
            << QByteArray("{\"$and\":[{\"RootId\" : null}, {\"Uid\" : \"device-1\"}, {\"State\" : \"Resolved\"}]}")
            << QByteArray("-1");
        // The platform prints a nil object as "(null)".
        QTest::newRow("nil application key") << QString() << QString() << qint64(0)
                                             << QByteArray("/feedback/api/v1/(null)/threads") << all << QByteArray("0");
    }
    void listingRequest()
    {
        QFETCH(QString, apiKey);
        QFETCH(QString, state);
        QFETCH(qint64, skip);
        QFETCH(QByteArray, filter);
        QFETCH(QByteArray, skipHeader);
        auto s = source();
        s->setApiKey(apiKey);
        Outcome outcome;
        s->feedbackItemsByState(state, skip, outcome.items_());
        WAIT_FOR(outcome);
        QVERIFY(!outcome.error);
        QCOMPARE(m_service.requests().size(), 1);
        const RecordedRequest r = m_service.requests().first();
        QCOMPARE(r.method, QByteArray("GET"));
        QTEST(r.target, "target");
        QCOMPARE(r.header("x-sort-meta"), QByteArray("{\"CreatedAt\" : -1}"));
        QCOMPARE(r.header("x-filter-meta"), filter);
        QCOMPARE(r.header("x-skip-meta"), skipHeader);
        QVERIFY(!r.hasHeader("Content-Type"));
        QVERIFY(r.body.isEmpty());
    }

    void listingMapsThreads()
    {
        const QString key = QStringLiteral("MAPKEY");
        const QJsonObject older = m_service.addThread(key, {{"Uid", "device-1"},
                                                            {"Text", "older"},
                                                            {"Author", "Ada"},
                                                            {"State", "Resolved"},
                                                            {"Image", QJsonObject{{"Filename", "n.png"}}},
                                                            {"CreatedAt", "2026-03-04T05:06:07.089+0000"},
                                                            {"ModifiedAt", "2026-03-04T05:06:07+0000"}});
        const QJsonObject newer = m_service.addThread(key, {{"Uid", "device-1"},
                                                            {"Text", "newer"},
                                                            {"Author", QJsonValue()},
                                                            {"Image", QJsonObject{{"Uri", "https://x/1.png"}}},
                                                            {"CommentsCount", 3},
                                                            {"CreatedAt", "2026-05-06T07:08:09.010-0230"}});
        m_service.addThread(key, {{"Uid", "device-2"}, {"Text", "someone else's"}});
        m_service.addThread(key, {{"Uid", "device-1"}, {"RootId", older.value("Id")}, {"Text", "a comment"}});
        auto s = source();
        s->setApiKey(key);
        Outcome outcome;
        s->feedbackItems(outcome.items_());
        WAIT_FOR(outcome);
        QVERIFY(!outcome.error);
        QCOMPARE(outcome.items->size(), 2);
        const auto first = outcome.items->at(0), second = outcome.items->at(1);
        QCOMPARE(first->text(), QStringLiteral("newer"));
        QCOMPARE(first->key(), newer.value(QStringLiteral("Id")).toString());
        QCOMPARE(first->createdAt(), QDateTime(QDate(2026, 5, 6), QTime(9, 38, 9, 10), Qt::UTC));
        QVERIFY(first->author().isNull()); // JSON null is absent
        QVERIFY(first->state().isNull());
        QCOMPARE(first->params().value(QStringLiteral("ImageUri")).toString(), QStringLiteral("https://x/1.png"));
        QCOMPARE(first->params().value(QStringLiteral("CommentsCount")).toInt(), 3);
        QVERIFY(first->image().isNull());
        QCOMPARE(first->subItems()->size(), 0);
        QCOMPARE(second->text(), QStringLiteral("older"));
        QCOMPARE(second->author(), QStringLiteral("Ada"));
        QCOMPARE(second->state(), QStringLiteral("Resolved"));
        QCOMPARE(second->createdAt(), QDateTime(QDate(2026, 3, 4), QTime(5, 6, 7, 89), Qt::UTC));
        QVERIFY(!second->modifiedAt().isValid());                        // no fraction: no date
        QVERIFY(!second->params().contains(QStringLiteral("ImageUri"))); // Image without Uri
        QVERIFY(second->params().contains(QStringLiteral("CommentsCount")));
    }

    void answers_data()
    {
        QTest::addColumn<Op>("op");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<qint64>("code"); // 0: success
        QTest::addColumn<QString>("message");
        const QByteArray error107 = "{\"code\": 107, \"message\": \"Invalid key\"}";
        QTest::newRow("list: service error") << Op::List << 200 << error107 << qint64(107) << "Invalid key";
        QTest::newRow("list: status ignored") << Op::List << 404 << error107 << qint64(107) << "Invalid key";
        QTest::newRow("list: negative code")
            << Op::List << 200 << QByteArray("{\"code\": -12, \"message\": \"m\"}") << qint64(-12) << "m";
        QTest::newRow("list: code as text")
            << Op::List << 200 << QByteArray("{\"code\": \"107\", \"message\": \"m\"}") << qint64(107) << "m";
        QTest::newRow("list: code wraps to 32 bits")
            << Op::List << 200 << QByteArray("{\"code\": 4294967297, \"message\": \"m\"}") << qint64(1) << "m";
        QTest::newRow("list: no message")
            << Op::List << 200 << QByteArray("{\"code\": 9}") << qint64(9) << "Feedback could not be retrieved";
        QTest::newRow("list: object without code")
            << Op::List << 200 << QByteArray("{\"a\": 1}") << qint64(0) << QString();
        QTest::newRow("list: null code") << Op::List << 200 << QByteArray("{\"code\": null}") << qint64(0) << QString();
        QTest::newRow("send: service error") << Op::Send << 200 << error107 << qint64(107) << "Invalid key";
        QTest::newRow("edit: service error") << Op::Edit << 200 << error107 << qint64(107) << "Invalid key";
        QTest::newRow("edit: not JSON") << Op::Edit << 200 << QByteArray("ok") << qint64(0) << QString();
        QTest::newRow("delete: service error") << Op::Delete << 200 << error107 << qint64(107) << "Invalid key";
        QTest::newRow("delete: not JSON") << Op::Delete << 200 << QByteArray() << qint64(0) << QString();
        QTest::newRow("comments: service error") << Op::Comments << 200 << error107 << qint64(107) << "Invalid key";
        QTest::newRow("comment: service error") << Op::Comment << 200 << error107 << qint64(107) << "Invalid key";
        QTest::newRow("image: JSON error is not looked at") << Op::Image << 200 << error107 << qint64(0) << QString();
    }
    void answers()
    {
        QFETCH(Op, op);
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(qint64, code);
        QFETCH(QString, message);
        FakeService::Answer answer;
        answer.status = status;
        answer.body = body;
        m_service.answer(QByteArray(), QStringLiteral(".*"), answer);
        auto s = source();
        Outcome outcome;
        start(op, *s, outcome);
        WAIT_FOR(outcome);
        if (code == 0) {
            QVERIFY2(!outcome.error, qPrintable(outcome.error ? outcome.error->message() : QString()));
            if (op == Op::List)
                QVERIFY(outcome.items && outcome.items->isEmpty());
            if (op == Op::Image)
                QVERIFY(outcome.image.isNull());
        } else {
            QCOMPARE(outcome.error, platformError(code, message));
            QVERIFY(!outcome.items);
        }
    }

    void transportFailures_data()
    {
        QTest::addColumn<Op>("op");
        QTest::addColumn<QString>("message");
        QTest::newRow("list") << Op::List << "Feedback could not be retrieved";
        QTest::newRow("send") << Op::Send << "Feedback could not be send";
        QTest::newRow("edit") << Op::Edit << "Feedback could not be edit";
        QTest::newRow("delete") << Op::Delete << "Feedback could not be deleted";
        QTest::newRow("image") << Op::Image << "Feedback screenshot could not be retrieved";
        QTest::newRow("comments") << Op::Comments << "Feedback comments could not be retrieved";
        QTest::newRow("comment") << Op::Comment << "Feedback comments could not be send";
    }
    void transportFailures()
    {
        QFETCH(Op, op);
        QFETCH(QString, message);
        auto s = source();
        s->setBaseURL(QStringLiteral("https://127.0.0.1:%1/feedback/api/v1").arg(closedPort()));
        Outcome outcome;
        start(op, *s, outcome);
        WAIT_FOR(outcome);
        QCOMPARE(outcome.error, platformError(-1004, message));
    }

    // The configured defaults, read rather than waited out.
    void sessionDefaults()
    {
        for (const auto &session : {QSharedPointer<QKURLSession>::create(), QKURLSession::sharedSession()}) {
            QCOMPARE(session->timeoutInterval(), 60000);
            QCOMPARE(session->maximumResponseSize(), qint64(64) << 20);
        }
    }

    void transportErrorCodes()
    {
        // An untrusted certificate, with a session that trusts only the system's CAs.
        FakeService untrusted(FakeService::Certificate::Untrusted);
        QVERIFY(untrusted.listen());
        Source s(QStringLiteral("KEY"), QStringLiteral("d"), untrusted.baseUrl(), {});
        s.setSession(QSharedPointer<QKURLSession>::create());
        Outcome outcome;
        start(Op::List, s, outcome);
        WAIT_FOR(outcome);
        QCOMPARE(outcome.error->code, -1202);
        // A missing base URL: "(null)/KEY/threads" is no address.
        s.setBaseURL(QString());
        Outcome unsent;
        start(Op::Delete, s, unsent);
        WAIT_FOR(unsent);
        QCOMPARE(unsent.error, platformError(-1002, QStringLiteral("Feedback could not be deleted")));
    }

    void newItemBody_data()
    {
        QTest::addColumn<QString>("userName");
        QTest::addColumn<QString>("author");
        QTest::newRow("name") << QStringLiteral("Ada") << QStringLiteral("Ada");
        QTest::newRow("Anonymous") << QStringLiteral("Anonymous") << QString("");
        QTest::newRow("aNONymous") << QStringLiteral("aNONymous") << QString("");
        QTest::newRow("no name") << QString() << QString("");
        QTest::newRow("empty") << QStringLiteral("") << QString("");
    }
    void newItemBody()
    {
        QFETCH(QString, userName);
        QFETCH(QString, author);
        auto s = source();
        s->setUserName(userName);
        s->setParameters({{QStringLiteral("Text"), QStringLiteral("replaced?")},
                          {QStringLiteral("Uid"), QStringLiteral("other")},
                          {QStringLiteral("Build"), 42}});
        auto item = QKFeedbackItem::create();
        item->setText(QStringLiteral("It crashed"));
        item->setState(QStringLiteral("Open"));
        item->setAuthor(QStringLiteral("ignored"));
        item->setImage(sampleImage());
        Outcome outcome;
        s->addFeedback(item, outcome.error_());
        WAIT_FOR(outcome);
        QVERIFY(!outcome.error);
        const RecordedRequest r = m_service.requests().first();
        QCOMPARE(r.method, QByteArray("POST"));
        QCOMPARE(r.target, collection.toUtf8());
        QCOMPARE(r.header("Content-Type"), QByteArray("application/json"));
        const QJsonObject body = bodyOf(r);
        QCOMPARE(keysOf(body), (QStringList{"Author", "Build", "Image", "SystemInfo", "Text", "Uid"}));
        QCOMPARE(body.value(QStringLiteral("Text")).toString(), QStringLiteral("It crashed"));
        QCOMPARE(body.value(QStringLiteral("Uid")).toString(), QStringLiteral("device-1"));
        QCOMPARE(body.value(QStringLiteral("Author")).toString(), author);
        QCOMPARE(body.value(QStringLiteral("Build")).toInt(), 42);
        const QJsonObject image = body.value(QStringLiteral("Image")).toObject();
        QCOMPARE(image.value(QStringLiteral("Filename")).toString(), QStringLiteral("nimbrel.png"));
        QCOMPARE(image.value(QStringLiteral("ContentType")).toString(), QStringLiteral("image/png"));
        const QString base64 = image.value(QStringLiteral("base64")).toString();
        QCOMPARE(base64.indexOf(QStringLiteral("\r\n")), 64);
        QCOMPARE(QKPNGCodec::decode(QKBase64::decodeIgnoringUnknownCharacters(base64)), sampleImage());
        const QJsonObject info = body.value(QStringLiteral("SystemInfo")).toObject();
        QCOMPARE(info, (QJsonObject{{"Model", "Test Phone"},
                                    {"OSVersion", "17.2"},
                                    {"Uuid", "device-1"},
                                    {"AppId", "com.example.notes"},
                                    {"WidthInPixels", 375.0},
                                    {"HeightInPixels", 667.0}}));
        // The service keeps the screenshot where the listing points.
        const QJsonObject stored = m_service.threads(QStringLiteral("KEY")).last().toObject();
        Outcome download;
        s->imageForKey(stored.value(QStringLiteral("Image")).toObject().value(QStringLiteral("Uri")).toString(),
                       download.image_());
        WAIT_FOR(download);
        QVERIFY(!download.error);
        QCOMPARE(download.image.convertToFormat(QImage::Format_RGB32), sampleImage());
    }

    void newItemWithoutImage()
    {
        auto s = source();
        auto item = QKFeedbackItem::create();
        item->setText(QStringLiteral(""));
        Outcome outcome;
        s->addFeedback(item, outcome.error_());
        WAIT_FOR(outcome);
        const QJsonObject body = bodyOf(m_service.requests().first());
        QCOMPARE(keysOf(body.value(QStringLiteral("Image")).toObject()), (QStringList{"ContentType", "Filename"}));
        QCOMPARE(keysOf(body), (QStringList{"Author", "Image", "SystemInfo", "Text", "Uid"}));
    }

    void batch()
    {
        auto s = source();
        QKFeedbackItemList items;
        for (const char *text : {"one", "two", "three", "four"}) {
            auto item = QKFeedbackItem::create();
            item->setText(QString::fromLatin1(text));
            items.append(item);
        }
        // The third item fails; the fourth is never sent. Newest answers are used first.
        m_service.answerServiceError("POST", QStringLiteral(".*"), 500, QStringLiteral("Full"), 200);
        FakeService::Answer accepted;
        accepted.body = "{}";
        accepted.delayMs = 200;
        m_service.answer("POST", QStringLiteral(".*"), accepted, 2);
        // Each acceptance takes 200 ms: a request sent before the previous answer arrives sooner.
        QElapsedTimer clock;
        clock.start();
        QList<qint64> arrivals;
        const auto arrived =
            connect(&m_service, &FakeService::requestReceived, this, [&] { arrivals.append(clock.elapsed()); });
        Outcome outcome;
        s->addFeedbackItems(items, outcome.error_());
        s.reset(); // the batch does not need the source any more
        WAIT_FOR(outcome);
        disconnect(arrived);
        QCOMPARE(outcome.error, platformError(500, QStringLiteral("Full")));
        QVERIFY(outcome.thread != QKURLSession::networkThread()); // a global-queue thread
        QCOMPARE(arrivals.size(), 3);
        // Half the delay: Qt's coarse timers may answer a little early, while overlapping
        // requests arrive within a few milliseconds of each other.
        for (int i = 1; i < 3; ++i)
            QVERIFY2(arrivals[i] - arrivals[i - 1] >= accepted.delayMs / 2, qPrintable(QString::number(arrivals[i])));
        for (int i = 0; i < 3; ++i)
            QCOMPARE(bodyOf(m_service.requests().at(i)).value(QStringLiteral("Text")).toString(), items[i]->text());

        m_service.clearRequests();
        m_service.clearAnswers();
        Outcome empty;
        source(QString())->addFeedbackItems({}, empty.error_()); // no UID needed for nothing
        WAIT_FOR(empty);
        QVERIFY(!empty.error);
        QCOMPARE(m_service.requests().size(), 0);
    }

    // Requests on one thread; a nil key is printed as the platform prints nil, "(null)".
    void threadRequests_data()
    {
        QTest::addColumn<Op>("op");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QByteArray>("method");
        QTest::addColumn<QByteArray>("path");   // after the collection's
        QTest::addColumn<QByteArray>("filter"); // null: no x-filter-meta
        QTest::newRow("edit") << Op::Edit << "T1" << QByteArray("PUT") << QByteArray()
                              << QByteArray("{\"RootId\":\"T1\"}");
        QTest::newRow("edit, nil key") << Op::Edit << QString() << QByteArray("PUT") << QByteArray()
                                       << QByteArray("{\"RootId\":\"(null)\"}");
        QTest::newRow("delete") << Op::Delete << "T1" << QByteArray("DELETE") << QByteArray("/T1") << QByteArray();
        QTest::newRow("delete, nil key") << Op::Delete << QString() << QByteArray("DELETE") << QByteArray("/(null)")
                                         << QByteArray();
        QTest::newRow("comments, nil key")
            << Op::Comments << QString() << QByteArray("GET") << QByteArray() << QByteArray("{\"RootId\":\"(null)\"}");
        QTest::newRow("comment, nil key")
            << Op::Comment << QString() << QByteArray("POST") << QByteArray("/(null)") << QByteArray();
    }
    void threadRequests()
    {
        QFETCH(Op, op);
        QFETCH(QString, key);
        QFETCH(QByteArray, method);
        QFETCH(QByteArray, path);
        QFETCH(QByteArray, filter);
        auto s = source();
        Outcome outcome;
        start(op, *s, outcome, key);
        WAIT_FOR(outcome);
        QCOMPARE(m_service.requests().size(), 1);
        const RecordedRequest r = m_service.requests().first();
        QCOMPARE(r.method, method);
        QCOMPARE(r.target, collection.toUtf8() + path);
        QCOMPARE(r.hasHeader("x-filter-meta"), !filter.isNull());
        QCOMPARE(r.header("x-filter-meta"), filter);
        const bool json = method == "PUT" || method == "POST";
        QCOMPARE(r.header("Content-Type"), json ? QByteArray("application/json") : QByteArray());
        QCOMPARE(r.body.isEmpty(), !json);
        if (op == Op::Edit)
            QCOMPARE(bodyOf(r), (QJsonObject{{"State", "Resolved"}}));
    }

    void comments()
    {
        const QString key = QStringLiteral("CKEY");
        const QString id = m_service.addThread(key, {{"Uid", "device-1"}, {"Text", "t"}}).value("Id").toString();
        auto s = source();
        s->setApiKey(key);
        s->setUserName(QStringLiteral("Bo"));
        auto comment = QKFeedbackItem::create();
        comment->setText(QStringLiteral("first comment"));
        Outcome posted;
        s->addSubItemForKey(id, comment, posted.error_());
        WAIT_FOR(posted);
        QVERIFY(!posted.error);
        const RecordedRequest post = m_service.requests().first();
        QCOMPARE(post.method, QByteArray("POST"));
        QCOMPARE(post.target, QStringLiteral("/feedback/api/v1/CKEY/threads/%1").arg(id).toUtf8());
        QCOMPARE(post.header("Content-Type"), QByteArray("application/json"));
        QCOMPARE(keysOf(bodyOf(post)), (QStringList{"Author", "SystemInfo", "Text", "Uid"}));
        QCOMPARE(bodyOf(post).value(QStringLiteral("Author")).toString(), QStringLiteral("Bo"));
        // The comment now carries what the service stored.
        QVERIFY(!comment->key().isEmpty());
        QVERIFY(comment->createdAt().isValid());
        QCOMPARE(comment->author(), QStringLiteral("Bo"));

        auto second = QKFeedbackItem::create();
        second->setText(QStringLiteral("second comment"));
        Outcome again;
        s->addSubItemForKey(id, second, again.error_());
        WAIT_FOR(again);
        m_service.clearRequests();
        Outcome listed;
        s->subItemsForKey(id, listed.items_());
        WAIT_FOR(listed);
        const RecordedRequest get = m_service.requests().first();
        QCOMPARE(get.method, QByteArray("GET"));
        QCOMPARE(get.header("x-sort-meta"), QByteArray("{\"CreatedAt\" : -1}"));
        QCOMPARE(get.header("x-filter-meta"), QStringLiteral("{\"RootId\":\"%1\"}").arg(id).toUtf8());
        QVERIFY(!get.hasHeader("x-skip-meta"));
        QCOMPARE(listed.items->size(), 2);
        QCOMPARE(listed.items->at(0)->text(), QStringLiteral("second comment")); // newest first
        QCOMPARE(listed.items->at(1)->key(), comment->key());
        QVERIFY(listed.items->at(1)->state().isNull() && listed.items->at(1)->params().isEmpty());
    }

    void imageThatIsNotAnImage()
    {
        FakeService::Answer text;
        text.body = "not an image";
        text.contentType = "text/plain";
        m_service.answer("GET", QStringLiteral("/files/.*"), text, 1);
        auto s = source();
        Outcome outcome;
        s->imageForKey(m_service.origin() + QStringLiteral("/files/none.png"), outcome.image_());
        WAIT_FOR(outcome);
        QVERIFY(!outcome.error);
        QVERIFY(outcome.image.isNull());
        const RecordedRequest r = m_service.requests().first();
        QCOMPARE(r.method, QByteArray("GET"));
        QCOMPARE(r.target, QByteArray("/files/none.png"));
        QVERIFY(!r.hasHeader("x-filter-meta") && !r.hasHeader("Content-Type"));
    }

    void serviceDates_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QDateTime>("date");
        const QDateTime instant(QDate(2026, 11, 21), QTime(20, 34, 14, 123), Qt::UTC);
        QTest::newRow("utc") << "2026-11-21T20:34:14.123+0000" << instant;
        QTest::newRow("east") << "2026-11-21T22:04:14.123+0130" << instant;
        QTest::newRow("west") << "2026-11-21T15:34:14.123-0500" << instant;
        QTest::newRow("no fraction") << "2026-11-21T20:34:14+0000" << QDateTime();
        QTest::newRow("two digits") << "2026-11-21T20:34:14.12+0000" << QDateTime();
        QTest::newRow("Z") << "2026-11-21T20:34:14.123Z" << QDateTime();
        QTest::newRow("colon offset") << "2026-11-21T20:34:14.123+00:00" << QDateTime();
        QTest::newRow("month 13") << "2026-13-21T20:34:14.123+0000" << QDateTime();
        QTest::newRow("February 30") << "2026-02-30T20:34:14.123+0000" << QDateTime();
        QTest::newRow("hour 24") << "2026-11-21T24:00:00.000+0000" << QDateTime();
        QTest::newRow("letters") << "2026-1a-21T20:34:14.123+0000" << QDateTime();
        QTest::newRow("Arabic digits") << QStringLiteral("٢٠٢٦-11-21T20:34:14.123+0000") << QDateTime();
        QTest::newRow("offset before year 1") << "0001-01-01T00:30:00.000+0100" << QDateTime();
        QTest::newRow("offset past 9999") << "9999-12-31T23:30:00.000-0100" << QDateTime();
        QTest::newRow("last instant") << "9999-12-31T23:59:59.999+0000"
                                      << QDateTime(QDate(9999, 12, 31), QTime(23, 59, 59, 999), Qt::UTC);
    }
    void serviceDates()
    {
        QFETCH(QString, text);
        QFETCH(QDateTime, date);
        QCOMPARE(QKServiceDate::parse(text), date);
        if (date.isValid())
            QCOMPARE(QKServiceDate::parse(QKServiceDate::format(date)), date);
    }
};

QTEST_MAIN(TestPlatformFeedbackSource)
#include "tst_qkplatformfeedbacksource.moc"
