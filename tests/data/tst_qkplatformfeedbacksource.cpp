// The hosted service source over real HTTPS on 127.0.0.1: against murmora-server for
// what a working service does, against the fake for answers only a broken one gives.

#include "base/QKBase64.h"
#include "base/QKDeviceInfo.h"
#include "base/QKException.h"
#include "base/QKPNGCodec.h"
#include "base/QKServiceDate.h"
#include "data/QKPlatformFeedbackSource.h"
#include "support/CompletionOutcome.h"
#include "support/FakeService.h"
#include "support/TestService.h"

#include <QJsonDocument>
#include <QTcpServer>
#include <QUuid>
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

// The service's refusal as the library hands it on: its code and its message.
QKError refused(QKServiceRefusal refusal)
{
    return platformError(QKServiceRoutes::code(refusal), TestService::message(refusal));
}

bool isUuid(const QByteArray &text)
{
    return text.size() == 36 && !QUuid::fromString(QLatin1String(text)).isNull();
}

QByteArray rootFilter(const QString &id)
{
    return QStringLiteral("{\"RootId\":\"%1\"}").arg(id).toUtf8();
}

QStringList texts(const QKFeedbackItemList &items)
{
    QStringList out;
    for (const auto &item : items)
        out.append(item->text());
    return out;
}

enum class Op { List, Send, Edit, Delete, Image, Comments, Comment };

} // namespace

Q_DECLARE_METATYPE(Op)
Q_DECLARE_METATYPE(QKServiceRefusal)

class TestPlatformFeedbackSource : public QObject
{
    Q_OBJECT

    TestService m_service;
    FakeService m_fake;
    QSharedPointer<QKURLSession> m_session;

    std::unique_ptr<Source> source(const QString &uid = QStringLiteral("device-1"))
    {
        auto s = std::make_unique<Source>(m_service.apiKey(), uid, m_service.baseUrl(), QVariantMap());
        s->setSession(m_session);
        return s;
    }

    QByteArray collection() const { return "/feedback/api/v1/" + m_service.apiKey().toUtf8() + "/threads"; }

    // The listing as the library reads it; nullopt when it failed.
    std::optional<QKFeedbackItemList> list(Source &s, const QString &state = QString(), qint64 skip = 0)
    {
        Outcome outcome;
        s.feedbackItemsByState(state, skip, outcome.items_());
        if (!QTest::qWaitFor([&] { return outcome.done(); }, 20000) || outcome.error)
            return std::nullopt;
        return outcome.items;
    }

    // Starts `op` on `s` for thread `key`; the comment it sends (if any) is returned.
    QKFeedbackItemPtr start(Op op, Source &s, Outcome &outcome, const QString &key = QStringLiteral("K1"),
                            const QString &state = QStringLiteral("Resolved"))
    {
        auto item = QKFeedbackItem::create();
        item->setText(QStringLiteral("text"));
        switch (op) {
        case Op::List:
            s.feedbackItemsByState(state, 0, outcome.items_());
            break;
        case Op::Send:
            s.addFeedback(item, outcome.error_());
            break;
        case Op::Edit:
            s.editWithKey(key, state, outcome.error_());
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
        QVERIFY(m_service.start());
        QVERIFY(m_fake.listen());
        m_session = QSharedPointer<QKURLSession>::create();
        m_session->addCaCertificates(FakeService::caCertificates());
        QKDeviceInfo::setProviders({[] { return QStringLiteral("Test Phone"); }, [] { return QStringLiteral("17.2"); },
                                    [] { return QStringLiteral("com.example.notes"); }, [] { return QString(); },
                                    [] { return QSizeF(375, 667); }});
        // 25 items of one device, every eighth resolved, a second apart; another
        // device's item and a comment, which no listing of items shows.
        const qint64 start = QDateTime::currentMSecsSinceEpoch() - 3600000;
        QString last;
        for (int i = 1; i <= 25; ++i)
            last = m_service.addThread(QStringLiteral("pager"), QStringLiteral("Item %1").arg(i),
                                       QLatin1String(i % 8 ? "Open" : "Resolved"), start + i * 1000);
        m_service.addThread(QStringLiteral("other"), QStringLiteral("Not mine"));
        m_service.addComment(last, QStringLiteral("A comment"));
    }

    void init()
    {
        m_service.clearRequests();
        m_fake.clearRequests();
        m_fake.clearAnswers();
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
        QVERIFY(!outcome.error);
        QCOMPARE(m_service.requests().size(), 1);
    }

    void listingRequest_data()
    {
        QTest::addColumn<bool>("nilKey");
        QTest::addColumn<QString>("state");
        QTest::addColumn<qint64>("skip");
        QTest::addColumn<QByteArray>("filter");
        QTest::addColumn<QByteArray>("skipHeader");
        const QByteArray all = "{\"$and\":[{\"RootId\" : null}, {\"Uid\" : \"device-1\"}]}";
        QTest::newRow("all") << false << QString() << qint64(0) << all << QByteArray("0");
        QTest::newRow("open, page 2")
            << false << QStringLiteral("Open") << qint64(20)
            << QByteArray("{\"$and\":[{\"RootId\" : null}, {\"Uid\" : \"device-1\"}, {\"State\" : \"Open\"}]}")
            << QByteArray("20");
        QTest::newRow("resolved, negative")
            << false << QStringLiteral("Resolved") << qint64(-1)
            << QByteArray("{\"$and\":[{\"RootId\" : null}, {\"Uid\" : \"device-1\"}, {\"State\" : \"Resolved\"}]}")
            << QByteArray("-1");
        // The platform prints a nil object as "(null)", a key the service does not know.
        QTest::newRow("nil application key") << true << QString() << qint64(0) << all << QByteArray("0");
    }
    void listingRequest()
    {
        QFETCH(bool, nilKey);
        QFETCH(QString, state);
        QFETCH(qint64, skip);
        QFETCH(QByteArray, filter);
        QFETCH(QByteArray, skipHeader);
        auto s = source();
        if (nilKey)
            s->setApiKey(QString());
        Outcome outcome;
        s->feedbackItemsByState(state, skip, outcome.items_());
        WAIT_FOR(outcome);
        QCOMPARE(outcome.error, nilKey ? std::optional(refused(QKServiceRefusal::UnknownApplication)) : std::nullopt);
        QCOMPARE(m_service.requests().size(), 1);
        const RecordedRequest r = m_service.requests().first();
        QCOMPARE(r.method, QByteArray("GET"));
        QCOMPARE(r.target, nilKey ? QByteArray("/feedback/api/v1/(null)/threads") : collection());
        QCOMPARE(r.header("x-sort-meta"), QByteArray("{\"CreatedAt\" : -1}"));
        QCOMPARE(r.header("x-filter-meta"), filter);
        QCOMPARE(r.header("x-skip-meta"), skipHeader);
        QVERIFY(!r.hasHeader("Content-Type") && !r.hasHeader("Idempotency-Key"));
        QVERIFY(r.body.isEmpty());
    }

    // What the service stored comes back by the listing: by state, newest first, a page
    // of 20 at a time, never another device's items or a comment.
    void listsByStateAndPage_data()
    {
        QTest::addColumn<QString>("state");
        QTest::addColumn<qint64>("skip");
        QTest::addColumn<QStringList>("expected");
        const auto items = [](std::initializer_list<int> numbers) {
            QStringList out;
            for (int i : numbers)
                out.append(QStringLiteral("Item %1").arg(i));
            return out;
        };
        QStringList all, open;
        for (int i = 25; i >= 1; --i) {
            all.append(QStringLiteral("Item %1").arg(i));
            if (i % 8)
                open.append(all.last());
        }
        QTest::newRow("all") << QString() << qint64(0) << all.mid(0, 20);
        QTest::newRow("all, skip 20") << QString() << qint64(20) << all.mid(20);
        QTest::newRow("open") << QStringLiteral("Open") << qint64(0) << open.mid(0, 20);
        QTest::newRow("open, skip 20") << QStringLiteral("Open") << qint64(20) << items({2, 1});
        QTest::newRow("resolved") << QStringLiteral("Resolved") << qint64(0) << items({24, 16, 8});
        QTest::newRow("resolved, skip 3") << QStringLiteral("Resolved") << qint64(3) << QStringList();
    }
    void listsByStateAndPage()
    {
        QFETCH(QString, state);
        QFETCH(qint64, skip);
        QFETCH(QStringList, expected);
        auto s = source(QStringLiteral("pager"));
        const auto items = list(*s, state, skip);
        QVERIFY(items);
        QCOMPARE(texts(*items), expected);
        if (!state.isNull())
            for (const auto &item : *items)
                QCOMPARE(item->state(), state);
    }

    // Odd answers the real service does not give: JSON null, an offset, a date without a
    // fraction, an image without an address, an element that is no object.
    void listingMapsOddThreads()
    {
        FakeService::Answer answer;
        answer.body = R"([{"Id":"A","Text":"a","Author":null,"CreatedAt":"2026-05-06T07:08:09.010-0230",)"
                      R"("Image":{"Uri":"https://x/1.png"},"CommentsCount":3}, 7,)"
                      R"({"Text":"b","State":"Resolved","Image":{"Filename":"n.png"},)"
                      R"("CreatedAt":"2026-03-04T05:06:07.089+0000","ModifiedAt":"2026-03-04T05:06:07+0000"}])";
        m_fake.answer("GET", QStringLiteral(".*"), answer);
        auto s = source();
        s->setBaseURL(m_fake.baseUrl());
        const auto items = list(*s);
        QVERIFY(items);
        QCOMPARE(items->size(), 2);
        const auto first = items->at(0), second = items->at(1);
        QCOMPARE(first->key(), QStringLiteral("A"));
        QCOMPARE(first->createdAt(), QDateTime(QDate(2026, 5, 6), QTime(9, 38, 9, 10), Qt::UTC));
        QVERIFY(first->author().isNull()); // JSON null is absent
        QVERIFY(first->state().isNull());
        QCOMPARE(first->params().value(QStringLiteral("ImageUri")).toString(), QStringLiteral("https://x/1.png"));
        QCOMPARE(first->params().value(QStringLiteral("CommentsCount")).toInt(), 3);
        QVERIFY(first->image().isNull());
        QCOMPARE(first->subItems()->size(), 0);
        QCOMPARE(second->state(), QStringLiteral("Resolved"));
        QCOMPARE(second->createdAt(), QDateTime(QDate(2026, 3, 4), QTime(5, 6, 7, 89), Qt::UTC));
        QVERIFY(!second->modifiedAt().isValid()); // no fraction: no date
        QVERIFY(second->params().isEmpty());      // Image without Uri, no count
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
        QTest::newRow("edit: not JSON") << Op::Edit << 200 << QByteArray("ok") << qint64(0) << QString();
        QTest::newRow("delete: not JSON") << Op::Delete << 200 << QByteArray() << qint64(0) << QString();
        QTest::newRow("comments: service error") << Op::Comments << 200 << error107 << qint64(107) << "Invalid key";
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
        m_fake.answer(QByteArray(), QStringLiteral(".*"), answer);
        auto s = source();
        s->setBaseURL(m_fake.baseUrl());
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

    // What the real service refuses reaches the host with the service's code and message
    // (an unknown key and a missing thread are in the tables above).
    void serviceErrors_data()
    {
        QTest::addColumn<Op>("op");
        QTest::addColumn<QString>("uid");
        QTest::addColumn<QString>("state");
        QTest::addColumn<QKServiceRefusal>("refusal");
        QTest::newRow("listing, UID with a quote")
            << Op::List << "a\"b" << QString() << QKServiceRefusal::InvalidFilter;
        QTest::newRow("edit to a state there is not") << Op::Edit << "device-1"
                                                      << "Closed" << QKServiceRefusal::InvalidState;
    }
    void serviceErrors()
    {
        QFETCH(Op, op);
        QFETCH(QString, uid);
        QFETCH(QString, state);
        QFETCH(QKServiceRefusal, refusal);
        auto s = source(uid);
        Outcome outcome;
        start(op, *s, outcome, QStringLiteral("K1"), state);
        WAIT_FOR(outcome);
        QCOMPARE(outcome.error, refused(refusal));
        QVERIFY(!outcome.items);
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
        QCOMPARE(r.target, collection());
        QCOMPARE(r.header("Content-Type"), QByteArray("application/json"));
        QVERIFY(isUuid(r.header("Idempotency-Key")));
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
    }

    // A batch of two, the second without a screenshot, comes back by the listing with
    // what the service made of it; the screenshot by its address, pixel for pixel.
    void sendAndReadBack()
    {
        auto s = source(QStringLiteral("round trip"));
        s->setUserName(QStringLiteral("Ada"));
        auto shot = QKFeedbackItem::create();
        shot->setText(QStringLiteral("It crashed"));
        shot->setImage(sampleImage());
        auto plain = QKFeedbackItem::create();
        plain->setText(QStringLiteral(""));
        Outcome sent;
        s->addFeedbackItems({shot, plain}, sent.error_());
        QTRY_VERIFY_WITH_TIMEOUT(sent.done(), 20000);
        QVERIFY(!sent.error);
        const QList<RecordedRequest> posts = m_service.requests();
        QCOMPARE(posts.size(), 2);
        // Each POST its own key: with one key for both, the service would keep only the first.
        QVERIFY(isUuid(posts[0].header("Idempotency-Key")) && isUuid(posts[1].header("Idempotency-Key")));
        QVERIFY(posts[0].header("Idempotency-Key") != posts[1].header("Idempotency-Key"));
        QCOMPARE(keysOf(bodyOf(posts[1]).value(QStringLiteral("Image")).toObject()),
                 (QStringList{"ContentType", "Filename"}));

        const auto items = list(*s);
        QVERIFY(items && items->size() == 2);
        const qsizetype at = texts(*items).indexOf(shot->text());
        QCOMPARE(items->at(1 - at)->text(), plain->text());
        QVERIFY(!items->at(1 - at)->params().contains(QStringLiteral("ImageUri")));
        const QKFeedbackItemPtr back = items->at(at);
        const QList<QKServiceThread> stored =
            m_service.threads(QStringLiteral("{\"Id\":\"%1\"}").arg(back->key()).toUtf8());
        QCOMPARE(stored.size(), 1);
        QCOMPARE(stored.first().text, shot->text());
        QCOMPARE(back->author(), QStringLiteral("Ada"));
        QCOMPARE(back->state(), QStringLiteral("Open"));
        QCOMPARE(back->createdAt().toMSecsSinceEpoch(), stored.first().createdAt);
        QCOMPARE(back->modifiedAt(), back->createdAt());
        QCOMPARE(back->params().value(QStringLiteral("CommentsCount")).toInt(), 1);

        m_service.clearRequests();
        Outcome image;
        s->imageForKey(back->params().value(QStringLiteral("ImageUri")).toString(), image.image_());
        WAIT_FOR(image);
        QVERIFY(!image.error);
        QCOMPARE(image.image.convertToFormat(QImage::Format_RGB32), sampleImage());
        const RecordedRequest get = m_service.requests().first();
        QCOMPARE(get.method, QByteArray("GET"));
        QVERIFY(!get.hasHeader("x-filter-meta") && !get.hasHeader("Content-Type"));
    }

    void batch()
    {
        auto s = source();
        s->setBaseURL(m_fake.baseUrl());
        QKFeedbackItemList items;
        for (const char *text : {"one", "two", "three", "four"}) {
            auto item = QKFeedbackItem::create();
            item->setText(QString::fromLatin1(text));
            items.append(item);
        }
        // The third item fails; the fourth is never sent. Newest answers are used first.
        FakeService::Answer full;
        full.body = R"({"code": 500, "message": "Full"})";
        m_fake.answer("POST", QStringLiteral(".*"), full);
        FakeService::Answer accepted;
        accepted.body = "{}";
        accepted.delayMs = 200;
        m_fake.answer("POST", QStringLiteral(".*"), accepted, 2);
        // Each acceptance takes 200 ms: a request sent before the previous answer arrives sooner.
        QElapsedTimer clock;
        clock.start();
        QList<qint64> arrivals;
        const auto arrived =
            connect(&m_fake, &FakeService::requestReceived, this, [&] { arrivals.append(clock.elapsed()); });
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
            QCOMPARE(bodyOf(m_fake.requests().at(i)).value(QStringLiteral("Text")).toString(), items[i]->text());

        m_fake.clearRequests();
        Outcome empty;
        source(QString())->addFeedbackItems({}, empty.error_()); // no UID needed for nothing
        WAIT_FOR(empty);
        QVERIFY(!empty.error);
        QCOMPARE(m_fake.requests().size() + m_service.requests().size(), 0);
    }

    // Requests on one thread; a nil key is printed as the platform prints nil, "(null)".
    void threadRequests_data()
    {
        QTest::addColumn<Op>("op");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QByteArray>("method");
        QTest::addColumn<QByteArray>("path");   // after the collection's
        QTest::addColumn<QByteArray>("filter"); // null: no x-filter-meta
        QTest::addColumn<bool>("found");        // false: the service has no such thread
        QTest::newRow("edit") << Op::Edit << "T1" << QByteArray("PUT") << QByteArray()
                              << QByteArray("{\"RootId\":\"T1\"}") << false;
        QTest::newRow("edit, nil key") << Op::Edit << QString() << QByteArray("PUT") << QByteArray()
                                       << QByteArray("{\"RootId\":\"(null)\"}") << false;
        QTest::newRow("delete") << Op::Delete << "T1" << QByteArray("DELETE") << QByteArray("/T1") << QByteArray()
                                << false;
        QTest::newRow("delete, nil key") << Op::Delete << QString() << QByteArray("DELETE") << QByteArray("/(null)")
                                         << QByteArray() << false;
        QTest::newRow("comments, nil key") << Op::Comments << QString() << QByteArray("GET") << QByteArray()
                                           << QByteArray("{\"RootId\":\"(null)\"}") << true;
        QTest::newRow("comment, nil key")
            << Op::Comment << QString() << QByteArray("POST") << QByteArray("/(null)") << QByteArray() << false;
    }
    void threadRequests()
    {
        QFETCH(Op, op);
        QFETCH(QString, key);
        QFETCH(QByteArray, method);
        QFETCH(QByteArray, path);
        QFETCH(QByteArray, filter);
        QFETCH(bool, found);
        auto s = source();
        Outcome outcome;
        start(op, *s, outcome, key);
        WAIT_FOR(outcome);
        QCOMPARE(outcome.error, found ? std::nullopt : std::optional(refused(QKServiceRefusal::NoSuchThread)));
        QCOMPARE(m_service.requests().size(), 1);
        const RecordedRequest r = m_service.requests().first();
        QCOMPARE(r.method, method);
        QCOMPARE(r.target, collection() + path);
        QCOMPARE(r.hasHeader("x-filter-meta"), !filter.isNull());
        QCOMPARE(r.header("x-filter-meta"), filter);
        const bool json = method == "PUT" || method == "POST";
        QCOMPARE(r.header("Content-Type"), json ? QByteArray("application/json") : QByteArray());
        QCOMPARE(r.hasHeader("Idempotency-Key"), method == "POST");
        QCOMPARE(r.body.isEmpty(), !json);
        if (op == Op::Edit)
            QCOMPARE(bodyOf(r), (QJsonObject{{"State", "Resolved"}}));
    }

    void comments()
    {
        const QString id = m_service.addThread(QStringLiteral("device-1"), QStringLiteral("t"));
        const qint64 past = QDateTime::currentMSecsSinceEpoch() - 60000;
        m_service.addComment(id, QStringLiteral("oldest"), past);
        m_service.addComment(id, QStringLiteral("older"), past + 1);
        auto s = source();
        s->setUserName(QStringLiteral("Bo"));
        auto comment = QKFeedbackItem::create();
        comment->setText(QStringLiteral("newest"));
        Outcome posted;
        s->addSubItemForKey(id, comment, posted.error_());
        WAIT_FOR(posted);
        QVERIFY(!posted.error);
        const RecordedRequest post = m_service.requests().first();
        QVERIFY(isUuid(post.header("Idempotency-Key")));
        QCOMPARE(keysOf(bodyOf(post)), (QStringList{"Author", "SystemInfo", "Text", "Uid"}));
        QCOMPARE(bodyOf(post).value(QStringLiteral("Author")).toString(), QStringLiteral("Bo"));
        QCOMPARE(comment->author(), QStringLiteral("Bo"));

        m_service.clearRequests();
        Outcome listed;
        s->subItemsForKey(id, listed.items_());
        WAIT_FOR(listed);
        QVERIFY(!listed.error);
        const RecordedRequest get = m_service.requests().first();
        QCOMPARE(get.header("x-sort-meta"), QByteArray("{\"CreatedAt\" : -1}"));
        QVERIFY(!get.hasHeader("x-skip-meta"));
        QCOMPARE(texts(*listed.items), (QStringList{"newest", "older", "oldest"}));
        // The comment sent carries what the service stored and lists.
        const QKFeedbackItemPtr back = listed.items->first();
        QVERIFY(!comment->key().isEmpty() && comment->createdAt().isValid());
        QCOMPARE(comment->key(), back->key());
        QCOMPARE(comment->createdAt(), back->createdAt());
        QCOMPARE(comment->modifiedAt(), back->modifiedAt());
        QVERIFY(back->state().isNull() && back->params().isEmpty());
    }

    // An edit shows on the item and its comments; a delete takes the item, its comments
    // and its screenshot.
    void editAndDelete()
    {
        const QString uid = QStringLiteral("editor");
        const QString id =
            m_service.addThread(uid, QStringLiteral("Fix me"), QStringLiteral("Open"),
                                QDateTime::currentMSecsSinceEpoch() - 60000, QKPNGCodec::encode(sampleImage()));
        m_service.addComment(id, QStringLiteral("A comment"));
        auto s = source(uid);
        Outcome edited;
        s->editWithKey(id, QStringLiteral("Resolved"), edited.error_());
        WAIT_FOR(edited);
        QVERIFY(!edited.error);
        const auto open = list(*s, QStringLiteral("Open"));
        QVERIFY(open && open->isEmpty());
        const auto resolved = list(*s, QStringLiteral("Resolved"));
        QVERIFY(resolved && resolved->size() == 1);
        const QKFeedbackItemPtr item = resolved->first();
        QCOMPARE(item->key(), id);
        QCOMPARE(item->state(), QStringLiteral("Resolved"));
        QVERIFY(item->modifiedAt() > item->createdAt());
        QCOMPARE(item->params().value(QStringLiteral("CommentsCount")).toInt(), 2);
        const QList<QKServiceThread> comments = m_service.threads(rootFilter(id));
        QCOMPARE(comments.size(), 1);
        QCOMPARE(comments.first().state, QStringLiteral("Resolved"));

        Outcome deleted;
        s->deleteWithKey(id, deleted.error_());
        WAIT_FOR(deleted);
        QVERIFY(!deleted.error);
        const auto none = list(*s);
        QVERIFY(none && none->isEmpty());
        QVERIFY(m_service.threads(rootFilter(id)).isEmpty());
        Outcome image;
        s->imageForKey(item->params().value(QStringLiteral("ImageUri")).toString(), image.image_());
        WAIT_FOR(image);
        QVERIFY(!image.error && image.image.isNull());
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
