// The hosted service source over real HTTPS on 127.0.0.1: against murmora-server for
// what a working service does and for hostile values, against the fake for answers
// only a broken or hostile server gives. Every operation ends in its completion exactly
// once, nothing a host passes puts a header line of its own on the wire, and a process
// quitting with requests in flight ends by itself.

#include "base/QKBase64.h"
#include "base/QKDispatch.h"
#include "base/QKException.h"
#include "base/QKPNGCodec.h"
#include "base/QKServiceDate.h"
#include "support/CompletionOutcome.h"
#include "support/FakeService.h"
#include "support/ServiceClient.h"
#include "support/TestService.h"

#include <QJsonDocument>
#include <QProcess>
#include <QRandomGenerator>
#include <QTcpServer>
#include <QUuid>
#include <QtTest>

#include <libdeflate.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

using Source = QKPlatformFeedbackSource;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int DefaultQuitRounds = 30; // sanitized processes start slowly
#else
constexpr int DefaultQuitRounds = 100;
#endif

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

QSharedPointer<QKURLSession> makeSession(int idleMs = 60000, qint64 overallMs = 0, qint64 cap = 0)
{
    auto session = QSharedPointer<QKURLSession>::create();
    session->addCaCertificates(FakeService::caCertificates());
    session->setTimeoutInterval(idleMs);
    if (overallMs > 0)
        session->setResourceTimeout(overallMs);
    if (cap > 0)
        session->setMaximumResponseSize(cap);
    return session;
}

const QList<Op> AllOps{Op::List, Op::Send, Op::Edit, Op::Delete, Op::Image, Op::Comments, Op::Comment, Op::Batch};
// Those that read or post: at most six requests at once, each on a connection of its own.
const QList<Op> ServerOps{Op::List, Op::Send, Op::Image, Op::Comments, Op::Comment, Op::Batch};

// A gzip body of `size` zero bytes, a thousandth of it on the wire. calloc maps the
// kernel's zero page: the bytes compressed are read, never resident.
QByteArray gzipOfZeros(qint64 size)
{
    std::unique_ptr<void, decltype(&std::free)> zeros(std::calloc(size_t(size), 1), &std::free);
    libdeflate_compressor *compressor = libdeflate_alloc_compressor(1);
    QByteArray out(qsizetype(size / 500 + 4096), Qt::Uninitialized);
    out.truncate(
        qsizetype(libdeflate_gzip_compress(compressor, zeros.get(), size_t(size), out.data(), size_t(out.size()))));
    libdeflate_free_compressor(compressor);
    return out;
}

// Header names that may reach the service: Qt's own and the library's.
const QSet<QByteArray> AllowedHeaders{"host",          "connection",   "accept-encoding", "accept-language",
                                      "user-agent",    "content-type", "content-length",  "x-sort-meta",
                                      "x-filter-meta", "x-skip-meta",  "idempotency-key"};

// Each header that arrived is one the library or Qt sends, without CR, LF or NUL: a
// value that split the line would show as a header of its own.
bool onlyWellFormedHeaders(const QList<RecordedRequest> &requests)
{
    for (const RecordedRequest &request : requests)
        for (const auto &[name, value] : request.headers)
            if (!AllowedHeaders.contains(name.toLower()) || value.contains('\r') || value.contains('\n') ||
                value.contains('\0'))
                return false;
    return true;
}

struct Values
{
    QString uid = "device-1";
    QString apiKey; // null: the service's
    QString state;
    QString key = "K1";
};

// A child process's completion: one line, written at once from whichever thread it runs on.
void report(const char *what, const std::optional<QKError> &error)
{
    const QByteArray line = QByteArray(what) + ' ' + QByteArray::number(error ? error->code() : 0) + ' ' +
                            (error ? error->message().toUtf8() : QByteArray()) + '\n';
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fflush(stdout);
    // As a screen would: back to the main queue, which may be gone by now.
    QKDispatch::async(QKDispatch::mainQueue(), [] {});
}

// A host that starts requests at a service that never answers, then quits after `quitAfter` ms.
int child(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QString baseUrl = QString::fromLatin1(argv[3]);
    QKURLSession::sharedSession()->addCaCertificates(FakeService::caCertificates());
    QKPlatformFeedbackSource source("APP", "device", baseUrl, QVariantMap());
    if (qstrcmp(argv[2], "batch") == 0) {
        QKFeedbackItemList items;
        for (const char *text : {"one", "two", "three"}) {
            items.append(QKFeedbackItem::create());
            items.last()->setText(QString::fromLatin1(text));
        }
        source.addFeedbackItems(items, [](std::optional<QKError> error) { report("batch", error); });
    } else {
        source.feedbackItemsByState(QString(), 0, [](std::optional<QKFeedbackItemList>, std::optional<QKError> error) {
            report("list", error);
        });
        auto comment = QKFeedbackItem::create();
        comment->setText("a comment");
        source.addSubItemForKey("T1", comment, [](std::optional<QKError> error) { report("comment", error); });
        source.imageForKey(baseUrl + "/images/1", [](QImage, std::optional<QKError> error) { report("image", error); });
    }
    QTimer::singleShot(QByteArray(argv[4]).toInt(), &app, [] {
        std::fputs("quit\n", stdout);
        std::fflush(stdout);
        QCoreApplication::quit();
    });
    return app.exec();
}

} // namespace

Q_DECLARE_METATYPE(Op)
Q_DECLARE_METATYPE(Values)
Q_DECLARE_METATYPE(FakeService::Answer)

class TestPlatformFeedbackSource : public QObject
{
    Q_OBJECT

    TestService m_service;
    FakeService m_fake;
    FakeService m_other; // "another host": reached as localhost, where m_fake is 127.0.0.1
    QSharedPointer<QKURLSession> m_session;

    std::unique_ptr<Source> source(const QString &uid = "device-1")
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

    std::unique_ptr<Source> fakeSource(const QSharedPointer<QKURLSession> &session, const QString &baseUrl = {})
    {
        auto s = std::make_unique<Source>(QStringLiteral("KEY"), QStringLiteral("device-1"),
                                          baseUrl.isNull() ? m_fake.baseUrl() : baseUrl, QVariantMap());
        s->setSession(session);
        return s;
    }

    static FakeService::Answer raw(const QByteArray &bytes, bool closeAfter = false)
    {
        FakeService::Answer answer;
        answer.raw = bytes;
        answer.closeAfter = closeAfter;
        return answer;
    }

    // Each operation ended once with `code` and its own message (0: its result for no error).
    void checkAll(Source &s, QKURLSession &session, qint64 code, const QList<Op> &ops = AllOps)
    {
        std::vector<std::unique_ptr<Outcome>> outcomes;
        QKFeedbackItemList sent;
        for (Op op : ops) {
            outcomes.push_back(std::make_unique<Outcome>());
            sent.append(start(s, op, *outcomes.back()));
        }
        for (auto &outcome : outcomes)
            QTRY_VERIFY_WITH_TIMEOUT(outcome->done(), 20000);
        QVERIFY(settle(session));
        for (qsizetype i = 0; i < ops.size(); ++i) {
            const Op op = ops[i];
            const Outcome &o = *outcomes[i];
            QVERIFY2(o.calls == 1, QByteArray::number(int(op)).constData());
            if (code != 0) {
                QCOMPARE(o.error, platformError(code, failureMessage(op)));
                QVERIFY(!o.items && o.image.isNull());
                continue;
            }
            QVERIFY2(!o.error, qPrintable(describe(o.error)));
            QCOMPARE(o.items.has_value(), op == Op::List || op == Op::Comments);
            QVERIFY((!o.items || o.items->isEmpty()) && o.image.isNull());
            if (op == Op::Comment) // it takes the empty record
                QVERIFY(sent[i]->key().isNull() && sent[i]->text().isNull());
        }
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_service.start());
        QVERIFY(m_fake.listen());
        QVERIFY(m_other.listen());
        m_session = QSharedPointer<QKURLSession>::create();
        m_session->addCaCertificates(FakeService::caCertificates());
        useTestDevice();
    }

    void init()
    {
        m_service.clearRequests();
        for (FakeService *service : {&m_fake, &m_other}) {
            service->clearRequests();
            service->clearAnswers();
        }
    }

    void missingValues()
    {
        QCOMPARE(Source().baseURL(), "https://platform.wendax.com/feedback/api/v1");
        QVERIFY(Source("K", "U", QString(), {}).baseURL().isNull()); // no fall-back
        auto s = source(QString());
        Outcome outcome;
        try {
            s->feedbackItemsByState(QString(), 0, outcome.items_());
            QFAIL("listed without a UID");
        } catch (const QKException &e) {
            QCOMPARE(e.name(), "QKPlatformFeedbackSource");
            QCOMPARE(e.reason(), "Please provide the UID property to work properly with Wendax Platform service.");
        }
        QVERIFY_THROWS_EXCEPTION(QKException, start(*s, Op::Send, outcome));
        QVERIFY_THROWS_EXCEPTION(QKException, start(*s, Op::Comment, outcome));
        QVERIFY_THROWS_EXCEPTION(QKException, s->addFeedbackItems({QKFeedbackItem::create()}, outcome.error_()));
        QVERIFY_THROWS_EXCEPTION(QKException, source()->addFeedback(QKFeedbackItem::create(), outcome.error_()));
        // An empty UID is a UID: its listing is the one request sent and the one call made.
        auto empty = source(QStringLiteral(""));
        start(*empty, Op::List, outcome);
        WAIT_ONCE(outcome, *m_session);
        QVERIFY(!outcome.error);
        QCOMPARE(m_service.requests().size(), 1);
        // A missing base URL: "(null)/KEY/threads" is no address.
        auto nowhere = source();
        nowhere->setBaseURL(QString());
        Outcome unsent;
        start(*nowhere, Op::Delete, unsent);
        WAIT_ONCE(unsent, *m_session);
        QCOMPARE(unsent.error, platformError(-1002, failureMessage(Op::Delete)));
    }

    void listingRequest_data()
    {
        QTest::addColumn<bool>("nilKey");
        QTest::addColumn<QString>("state");
        QTest::addColumn<qint64>("skip");
        QTest::addColumn<QByteArray>("filter");
        const QByteArray all = "{\"$and\":[{\"RootId\" : null}, {\"Uid\" : \"device-1\"}]}";
        QTest::newRow("all") << false << QString() << qint64(0) << all;
        QTest::newRow("open, page 2")
            << false << "Open" << qint64(20)
            << QByteArray("{\"$and\":[{\"RootId\" : null}, {\"Uid\" : \"device-1\"}, {\"State\" : \"Open\"}]}");
        QTest::newRow("resolved, negative")
            << false << "Resolved" << qint64(-1)
            << QByteArray("{\"$and\":[{\"RootId\" : null}, {\"Uid\" : \"device-1\"}, {\"State\" : \"Resolved\"}]}");
        // The platform prints a nil object as "(null)", a key the service does not know.
        QTest::newRow("nil application key") << true << QString() << qint64(0) << all;
    }
    void listingRequest()
    {
        QFETCH(bool, nilKey);
        QFETCH(QString, state);
        QFETCH(qint64, skip);
        QFETCH(QByteArray, filter);
        auto s = source();
        if (nilKey)
            s->setApiKey(QString());
        Outcome outcome;
        s->feedbackItemsByState(state, skip, outcome.items_());
        WAIT_ONCE(outcome, *m_session);
        QCOMPARE(outcome.error, nilKey ? std::optional(refused(QKServiceRefusal::UnknownApplication)) : std::nullopt);
        QCOMPARE(m_service.requests().size(), 1);
        const RecordedRequest r = m_service.requests().first();
        QCOMPARE(r.method, QByteArray("GET"));
        QCOMPARE(r.target, nilKey ? QByteArray("/feedback/api/v1/(null)/threads") : collection());
        QCOMPARE(r.header("x-sort-meta"), QByteArray("{\"CreatedAt\" : -1}"));
        QCOMPARE(r.header("x-filter-meta"), filter);
        QCOMPARE(r.header("x-skip-meta"), QByteArray::number(skip));
        QVERIFY(!r.hasHeader("Content-Type") && !r.hasHeader("Idempotency-Key"));
        QVERIFY(r.body.isEmpty());
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
        m_fake.answer("GET", ".*", answer);
        auto s = source();
        s->setBaseURL(m_fake.baseUrl());
        const auto items = list(*s);
        QVERIFY(items);
        QCOMPARE(items->size(), 2);
        const auto first = items->at(0), second = items->at(1);
        QCOMPARE(first->key(), "A");
        QCOMPARE(first->createdAt(), QDateTime(QDate(2026, 5, 6), QTime(9, 38, 9, 10), Qt::UTC));
        QVERIFY(first->author().isNull() && first->state().isNull()); // JSON null is absent
        QCOMPARE(first->params().value(QStringLiteral("ImageUri")).toString(), "https://x/1.png");
        QCOMPARE(first->params().value(QStringLiteral("CommentsCount")).toInt(), 3);
        QVERIFY(first->image().isNull());
        QCOMPARE(first->subItems()->size(), 0);
        QCOMPARE(second->state(), "Resolved");
        QCOMPARE(second->createdAt(), QDateTime(QDate(2026, 3, 4), QTime(5, 6, 7, 89), Qt::UTC));
        QVERIFY(!second->modifiedAt().isValid()); // no fraction: no date
        QVERIFY(second->params().isEmpty());      // Image without Uri, no count
    }

    // Error answers the real service does not give (its refusals are in the tables below).
    void answers_data()
    {
        QTest::addColumn<Op>("op");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<qint64>("code"); // 0: success
        QTest::addColumn<QString>("message");
        const auto row = [](const char *name, Op op, const char *body, qint64 code, const QString &message) {
            QTest::newRow(name) << op << QByteArray(body) << code << message;
        };
        row("list: negative code", Op::List, R"({"code": -12, "message": "m"})", -12, "m");
        row("list: code as text", Op::List, R"({"code": "107", "message": "m"})", 107, "m");
        row("list: code wraps to 32 bits", Op::List, R"({"code": 4294967297, "message": "m"})", 1, "m");
        row("list: no message", Op::List, R"({"code": 9})", 9, failureMessage(Op::List));
        row("list: object without code", Op::List, R"({"a": 1})", 0, {});
        row("list: null code", Op::List, R"({"code": null})", 0, {});
        row("edit: not JSON", Op::Edit, "ok", 0, {});
        row("delete: empty", Op::Delete, "", 0, {});
        row("image: JSON error is not looked at", Op::Image, R"({"code": 107, "message": "m"})", 0, {});
    }
    void answers()
    {
        QFETCH(Op, op);
        QFETCH(qint64, code);
        QFETCH(QString, message);
        QFETCH(QByteArray, body);
        FakeService::Answer answer;
        answer.body = body;
        m_fake.answer(QByteArray(), ".*", answer);
        auto s = source();
        s->setBaseURL(m_fake.baseUrl());
        Outcome outcome;
        start(*s, op, outcome);
        WAIT_ONCE(outcome, *m_session);
        if (code == 0) {
            QVERIFY2(!outcome.error, qPrintable(describe(outcome.error)));
            QCOMPARE(outcome.items.has_value(), op == Op::List);
            QVERIFY(!outcome.items || outcome.items->isEmpty());
            QVERIFY(outcome.image.isNull());
        } else {
            QCOMPARE(outcome.error, platformError(code, message));
            QVERIFY(!outcome.items);
        }
    }

    void newItemBody_data()
    {
        QTest::addColumn<QString>("userName");
        QTest::addColumn<QString>("author");
        QTest::newRow("name") << "Ada"
                              << "Ada";
        QTest::newRow("Anonymous") << "Anonymous" << QString("");
        QTest::newRow("aNONymous") << "aNONymous" << QString("");
        QTest::newRow("no name") << QString() << QString("");
        QTest::newRow("empty") << "" << QString("");
    }
    void newItemBody()
    {
        QFETCH(QString, userName);
        auto s = source();
        s->setUserName(userName);
        s->setParameters({{"Text", "replaced?"}, {"Uid", "other"}, {"Build", 42}});
        auto item = QKFeedbackItem::create();
        item->setText("It crashed");
        item->setState("Open");
        item->setAuthor("ignored");
        item->setImage(sampleImage());
        Outcome outcome;
        s->addFeedback(item, outcome.error_());
        WAIT_ONCE(outcome, *m_session);
        QVERIFY(!outcome.error);
        const RecordedRequest r = m_service.requests().first();
        QCOMPARE(r.method, QByteArray("POST"));
        QCOMPARE(r.target, collection());
        QCOMPARE(r.header("Content-Type"), QByteArray("application/json"));
        QVERIFY(isUuid(r.header("Idempotency-Key")));
        const QJsonObject body = bodyOf(r);
        QCOMPARE(keysOf(body), (QStringList{"Author", "Build", "Image", "SystemInfo", "Text", "Uid"}));
        QCOMPARE(body.value(QStringLiteral("Text")).toString(), "It crashed");
        QCOMPARE(body.value(QStringLiteral("Uid")).toString(), "device-1");
        QTEST(body.value(QStringLiteral("Author")).toString(), "author");
        QCOMPARE(body.value(QStringLiteral("Build")).toInt(), 42);
        const QJsonObject image = body.value(QStringLiteral("Image")).toObject();
        QCOMPARE(image.value(QStringLiteral("Filename")).toString(), "nimbrel.png");
        QCOMPARE(image.value(QStringLiteral("ContentType")).toString(), "image/png");
        const QString base64 = image.value(QStringLiteral("base64")).toString();
        QCOMPARE(base64.indexOf("\r\n"), 64);
        QCOMPARE(QKPNGCodec::decode(QKBase64::decodeIgnoringUnknownCharacters(base64)), sampleImage());
        QCOMPARE(body.value(QStringLiteral("SystemInfo")).toObject(), (QJsonObject{{"Model", "Test Phone"},
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
        s->setUserName("Ada");
        auto shot = QKFeedbackItem::create();
        shot->setText("It crashed");
        shot->setImage(sampleImage());
        auto plain = QKFeedbackItem::create();
        plain->setText("");
        Outcome sent;
        s->addFeedbackItems({shot, plain}, sent.error_());
        WAIT_ONCE(sent, *m_session);
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
        QVERIFY(!items->at(1 - at)->params().contains("ImageUri"));
        const QKFeedbackItemPtr back = items->at(at);
        const QList<QKServiceThread> stored =
            m_service.threads(QStringLiteral("{\"Id\":\"%1\"}").arg(back->key()).toUtf8());
        QCOMPARE(back->author(), "Ada");
        QCOMPARE(back->state(), "Open");
        QCOMPARE(back->createdAt().toMSecsSinceEpoch(), stored.value(0).createdAt);
        QCOMPARE(back->modifiedAt(), back->createdAt());
        QCOMPARE(back->params().value(QStringLiteral("CommentsCount")).toInt(), 1);

        m_service.clearRequests();
        Outcome image;
        s->imageForKey(back->params().value(QStringLiteral("ImageUri")).toString(), image.image_());
        WAIT_ONCE(image, *m_session);
        QVERIFY(!image.error);
        QCOMPARE(image.image.convertToFormat(QImage::Format_RGB32), sampleImage());
        QVERIFY(!m_service.requests().first().hasHeader("x-filter-meta"));
    }

    void batch()
    {
        auto s = source();
        s->setBaseURL(m_fake.baseUrl());
        QKFeedbackItemList items;
        for (const char *text : {"one", "two", "three", "four"}) {
            items.append(QKFeedbackItem::create());
            items.last()->setText(QString::fromLatin1(text));
        }
        // The third item fails; the fourth is never sent. Newest answers are used first.
        FakeService::Answer full;
        full.body = R"({"code": 500, "message": "Full"})";
        m_fake.answer("POST", ".*", full);
        FakeService::Answer accepted;
        accepted.body = "{}";
        accepted.delayMs = 200;
        m_fake.answer("POST", ".*", accepted, 2);
        // Each acceptance takes 200 ms: a request sent before the previous answer arrives sooner.
        QElapsedTimer clock;
        clock.start();
        QList<qint64> arrivals;
        const auto arrived =
            connect(&m_fake, &FakeService::requestReceived, this, [&] { arrivals.append(clock.elapsed()); });
        Outcome outcome;
        s->addFeedbackItems(items, outcome.error_());
        s.reset(); // the batch does not need the source any more
        WAIT_ONCE(outcome, *m_session);
        disconnect(arrived);
        QCOMPARE(outcome.error, platformError(500, "Full"));
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
        WAIT_ONCE(empty, *m_session);
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
        QTest::newRow("edit") << Op::Edit << "T1" << QByteArray("PUT") << QByteArray() << rootFilter("T1") << false;
        QTest::newRow("edit, nil key") << Op::Edit << QString() << QByteArray("PUT") << QByteArray()
                                       << rootFilter("(null)") << false;
        QTest::newRow("delete") << Op::Delete << "T1" << QByteArray("DELETE") << QByteArray("/T1") << QByteArray()
                                << false;
        QTest::newRow("delete, nil key") << Op::Delete << QString() << QByteArray("DELETE") << QByteArray("/(null)")
                                         << QByteArray() << false;
        QTest::newRow("comments, nil key")
            << Op::Comments << QString() << QByteArray("GET") << QByteArray() << rootFilter("(null)") << true;
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
        start(*s, op, outcome, key);
        WAIT_ONCE(outcome, *m_session);
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
        const QString id = m_service.addThread("device-1", "t");
        const qint64 past = QDateTime::currentMSecsSinceEpoch() - 60000;
        m_service.addComment(id, "oldest", past);
        m_service.addComment(id, "older", past + 1);
        auto s = source();
        s->setUserName("Bo");
        auto comment = QKFeedbackItem::create();
        comment->setText("newest");
        Outcome posted;
        s->addSubItemForKey(id, comment, posted.error_());
        WAIT_ONCE(posted, *m_session);
        QVERIFY(!posted.error);
        const RecordedRequest post = m_service.requests().first();
        QVERIFY(isUuid(post.header("Idempotency-Key")));
        QCOMPARE(keysOf(bodyOf(post)), (QStringList{"Author", "SystemInfo", "Text", "Uid"}));
        QCOMPARE(bodyOf(post).value(QStringLiteral("Author")).toString(), "Bo");
        QCOMPARE(comment->author(), "Bo");

        m_service.clearRequests();
        Outcome listed;
        s->subItemsForKey(id, listed.items_());
        WAIT_ONCE(listed, *m_session);
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

    void serviceDates_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QDateTime>("date");
        const QDateTime instant(QDate(2026, 11, 21), QTime(20, 34, 14, 123), Qt::UTC);
        QTest::newRow("utc") << "2026-11-21T20:34:14.123+0000" << instant;
        QTest::newRow("east") << "2026-11-21T22:04:14.123+0130" << instant;
        QTest::newRow("west") << "2026-11-21T15:34:14.123-0500" << instant;
        QTest::newRow("no fraction") << "2026-11-21T20:34:14+0000" << QDateTime();
        QTest::newRow("Z") << "2026-11-21T20:34:14.123Z" << QDateTime();
        QTest::newRow("colon offset") << "2026-11-21T20:34:14.123+00:00" << QDateTime();
        QTest::newRow("February 30") << "2026-02-30T20:34:14.123+0000" << QDateTime();
        QTest::newRow("hour 24") << "2026-11-21T24:00:00.000+0000" << QDateTime();
        QTest::newRow("letters") << "2026-1a-21T20:34:14.123+0000" << QDateTime();
        QTest::newRow("Arabic digits") << "٢٠٢٦-11-21T20:34:14.123+0000" << QDateTime();
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
    // Each row runs the reading and posting operations at once (every operation where
    // nothing listens). Code 0: the answer is no service error, so each operation gives
    // its defined result for it (an empty list, or success).
    void hostileServer_data()
    {
        QTest::addColumn<FakeService::Answer>("answer");
        QTest::addColumn<int>("idleMs");
        QTest::addColumn<int>("overallMs");
        QTest::addColumn<qint64>("code");

        FakeService::Answer nobody;
        nobody.status = 0; // nothing listens at the address
        QTest::newRow("nobody listens") << nobody << 60000 << 0 << qint64(-1004);
        FakeService::Answer silent;
        silent.neverAnswer = true;
        QTest::newRow("accepts, never answers") << silent << 400 << 0 << qint64(-1001);

        // One byte a second: the idle timer restarts with every byte of the body.
        FakeService::Answer drip;
        drip.body = "[]";
        drip.dripMs = 1000;
        QTest::newRow("drip, idle shorter than a byte") << drip << 400 << 0 << qint64(-1001);
        QTest::newRow("drip, overall time-out") << drip << 1500 << 1500 << qint64(-1001);
        QTest::newRow("drip, within both") << drip << 1500 << 0 << qint64(0);

        QTest::newRow("Content-Length longer, then close")
            << raw("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n[]", true) << 60000 << 0 << qint64(-1005);
        QTest::newRow("Content-Length of 100 GiB")
            << raw("HTTP/1.1 200 OK\r\nContent-Length: 107374182400\r\n\r\n[]") << 60000 << 0 << qint64(-1103);
        // The extra bytes must not answer the next request on that connection (the batch's second).
        QTest::newRow("Content-Length shorter, an answer after it")
            << raw("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n[]HTTP/1.1 200 OK\r\nContent-Length: 31\r\n\r\n"
                   "{\"code\":666,\"message\":\"smuggled\"}")
            << 60000 << 0 << qint64(0);
        // Qt reads a chunk size it cannot parse as the last chunk: an empty answer.
        QTest::newRow("chunk size overflows")
            << raw("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nFFFFFFFFFFFFFFFFF\r\n[]\r\n0\r\n\r\n") << 60000
            << 0 << qint64(0);
        QTest::newRow("not HTTP, then close")
            << raw("SSH-2.0-OpenSSH_9.2\r\n\r\n", true) << 60000 << 0 << qint64(-1005);

        FakeService::Answer deep;
        deep.body = QByteArray(100000, '[') + QByteArray(100000, ']');
        QTest::newRow("100,000 nested arrays") << deep << 60000 << 0 << qint64(0);
        QByteArray objects;
        for (int i = 0; i < 100000; ++i)
            objects += "{\"a\":";
        deep.body = objects + "1" + QByteArray(100000, '}');
        QTest::newRow("100,000 nested objects") << deep << 60000 << 0 << qint64(0);

        FakeService::Answer html;
        html.contentType = "text/html";
        html.body = "<!DOCTYPE html><html><body><h1>500 Internal Server Error</h1></body></html>";
        html.status = 500;
        QTest::newRow("HTML page, 500") << html << 60000 << 0 << qint64(0);
        html.status = 200;
        QTest::newRow("HTML page, 200") << html << 60000 << 0 << qint64(0);

        FakeService::Answer toHttp;
        toHttp.status = 302;
        QTest::newRow("redirect to http") << toHttp << 60000 << 0 << qint64(-1022);
        FakeService::Answer loop; // 307 keeps the method, so every operation loops
        loop.status = 307;
        QTest::newRow("redirect to itself") << loop << 60000 << 0 << qint64(-1007);
    }
    void hostileServer()
    {
        QFETCH(FakeService::Answer, answer);
        QFETCH(int, idleMs);
        QFETCH(int, overallMs);
        QFETCH(qint64, code);
        QTcpServer plain; // the http end of a redirect, and an address where nothing listens
        QVERIFY(plain.listen(QHostAddress::LocalHost));
        if (answer.status == 302)
            answer.headers = {{"Location", QStringLiteral("http://127.0.0.1:%1/x").arg(plain.serverPort()).toUtf8()}};
        else if (answer.status == 307)
            answer.headers = {{"Location", m_fake.baseUrl().toUtf8() + "/KEY/threads"}};
        m_fake.answer(QByteArray(), ".*", answer);
        const quint16 closed = plain.serverPort();
        if (answer.status == 0)
            plain.close();

        const auto session = makeSession(idleMs, overallMs);
        auto s =
            fakeSource(session, answer.status == 0 ? QStringLiteral("https://127.0.0.1:%1/v1").arg(closed) : QString());
        checkAll(*s, *session, code, answer.status == 0 ? AllOps : ServerOps);
        QVERIFY(!plain.hasPendingConnections());
    }

    // An untrusted certificate, with a session that trusts only the system's CAs.
    void untrustedCertificate()
    {
        FakeService untrusted(FakeService::Certificate::Untrusted);
        QVERIFY(untrusted.listen());
        const auto session = QSharedPointer<QKURLSession>::create();
        auto s = fakeSource(session, untrusted.baseUrl());
        Outcome outcome;
        start(*s, Op::List, outcome);
        WAIT_ONCE(outcome, *session);
        QCOMPARE(outcome.error, platformError(-1202, failureMessage(Op::List)));
        QVERIFY(untrusted.requests().isEmpty());
    }

    // 1 GiB of zeros in 1 MB: Qt's decompression guard stops it (at a ratio over 40 once
    // 10 MiB came out), well before the 64 MiB cap; a smaller bomb meets a smaller cap.
    void gzipBomb_data()
    {
        QTest::addColumn<qint64>("size");
        QTest::addColumn<qint64>("cap");
        QTest::addColumn<qint64>("code");
        QTest::newRow("1 GiB, Qt's guard") << (qint64(1) << 30) << qint64(0) << qint64(-1016);
        QTest::newRow("8 MiB, cap 1 MiB") << qint64(8 << 20) << qint64(1 << 20) << qint64(-1103);
    }
    void gzipBomb()
    {
        QFETCH(qint64, size);
        QFETCH(qint64, cap);
        QFETCH(qint64, code);
        FakeService::Answer answer;
        answer.body = gzipOfZeros(size);
        answer.headers = {{"Content-Encoding", "gzip"}};
        m_fake.answer(QByteArray(), ".*", answer);
        const auto session = makeSession(60000, 0, cap);

        QVERIFY(resetPeakMemory()); // the peak starts again from here
        const qint64 before = statusKiB("VmRSS:");
        Outcome outcome;
        QKURLRequest request;
        request.url = QUrl(m_fake.baseUrl() + "/KEY/threads");
        session->dataTask(request, outcome.task_());
        WAIT_ONCE(outcome, *session);
        const qint64 growth = statusKiB("VmHWM:") - before;
        qInfo("%lld bytes on the wire for %lld: peak RSS growth %lld KiB", qint64(answer.body.size()), size, growth);
        QCOMPARE(outcome.error ? outcome.error->code() : 0, code);
        QVERIFY(outcome.body.isEmpty());
        QVERIFY(growth < 48 * 1024);
        // The same through the source: each operation fails with that code.
        checkAll(*fakeSource(session), *session, code);
    }

    // A redirect is followed within the service's own origin only, and for other methods
    // than GET only by 307 and 308, which keep the method and body. Anything else fails
    // with its own code: nothing reaches another server, and a POST never ends as a GET.
    void redirects_data()
    {
        QTest::addColumn<Op>("op");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("to"); // "same", "host" (localhost) or "port" (127.0.0.1, the other's port)
        QTest::addColumn<bool>("followed");
        QTest::newRow("listing, 302, same origin") << Op::List << 302 << "same" << true;
        QTest::newRow("new item, 307, same origin") << Op::Send << 307 << "same" << true;
        QTest::newRow("new item, 308, same origin") << Op::Send << 308 << "same" << true;
        QTest::newRow("new item, 302, same origin") << Op::Send << 302 << "same" << false;
        QTest::newRow("new item, 303, same origin") << Op::Send << 303 << "same" << false;
        QTest::newRow("edit, 301, same origin") << Op::Edit << 301 << "same" << false;
        QTest::newRow("delete, 302, same origin") << Op::Delete << 302 << "same" << false;
        QTest::newRow("listing, 307, another host") << Op::List << 307 << "host" << false;
        QTest::newRow("listing, 301, another port") << Op::List << 301 << "port" << false;
        QTest::newRow("new item, 307, another host") << Op::Send << 307 << "host" << false;
        QTest::newRow("comment, 308, another port") << Op::Comment << 308 << "port" << false;
    }
    void redirects()
    {
        QFETCH(Op, op);
        QFETCH(int, status);
        QFETCH(QString, to);
        QFETCH(bool, followed);
        const QString path = op == Op::List || op == Op::Send || op == Op::Edit ? "/threads" : "/threads/K1";
        const QString moved = "/feedback/api/v1/MOVED" + path;
        const QString origin = to == QLatin1String("same") ? m_fake.origin()
                               : to == QLatin1String("host")
                                   ? QStringLiteral("https://localhost:%1").arg(m_other.port())
                                   : QStringLiteral("https://127.0.0.1:%1").arg(m_other.port());
        FakeService::Answer answer;
        answer.status = status;
        answer.headers = {{"Location", (origin + moved).toUtf8()}};
        m_fake.answer(QByteArray(), "^/feedback/api/v1/KEY/", answer);
        FakeService::Answer there;
        there.body = "{}";
        m_fake.answer(QByteArray(), "^/feedback/api/v1/MOVED/", there);
        there.body = R"([{"Text":"over there"}])";
        m_fake.answer("GET", "^/feedback/api/v1/MOVED/", there);

        const auto session = makeSession();
        auto s = fakeSource(session);
        Outcome outcome;
        start(*s, op, outcome);
        WAIT_ONCE(outcome, *session);
        QVERIFY(m_other.requests().isEmpty());
        if (!followed) {
            QCOMPARE(outcome.error, platformError(QKURLSession::RedirectRefusedError, failureMessage(op)));
            QCOMPARE(m_fake.requests().size(), 1);
            return;
        }
        QVERIFY2(!outcome.error, qPrintable(describe(outcome.error)));
        const QList<RecordedRequest> requests = m_fake.requests();
        QCOMPARE(requests.size(), 2);
        QCOMPARE(requests[1].target, moved.toUtf8());
        QCOMPARE(requests[1].method, requests[0].method);
        QCOMPARE(requests[1].body, requests[0].body);
        QCOMPARE(requests[1].header("x-filter-meta"), requests[0].header("x-filter-meta"));
        if (op == Op::List)
            QCOMPARE(outcome.items->first()->text(), "over there");
    }

    // The session itself: a header name that would split into lines fails at once (values
    // are hostileValues' part), and a session destroyed with a task in flight ends it with
    // -999. Error statuses are answers with their body: threadRequests reads a refusal from one.
    void sessionRefusesHeaders()
    {
        const auto session = makeSession();
        for (const QByteArray &name : {QByteArray("X-Injected: 1\nx-a"), QByteArray("X-Injected: 1"), QByteArray()}) {
            QKURLRequest request;
            request.url = QUrl(m_fake.baseUrl() + "/KEY/threads");
            request.headers = {{"x-b", "2"}, {name, "1"}};
            Outcome outcome;
            session->dataTask(request, outcome.task_());
            WAIT_ONCE(outcome, *session);
            QCOMPARE(outcome.error ? outcome.error->code() : 0, -1002);
        }
        QVERIFY(m_fake.requests().isEmpty());
    }

    void destroyedSessionCancels()
    {
        FakeService::Answer silent;
        silent.neverAnswer = true;
        m_fake.answer(QByteArray(), ".*", silent);
        auto session = makeSession();
        auto s = fakeSource(session);
        Outcome outcome;
        start(*s, Op::List, outcome);
        QTRY_COMPARE(m_fake.requests().size(), 1);
        s.reset();
        session.reset(); // the last reference
        const auto fence = makeSession();
        WAIT_ONCE(outcome, *fence);
        QCOMPARE(outcome.error, platformError(-999, failureMessage(Op::List)));
    }

    // Values a host passes, to the real service: CR, LF and NUL are refused before
    // anything is sent; quotes and non-ASCII text go as they are.
    void hostileValues_data()
    {
        const qint64 invalidFilter = QKServiceRoutes::code(QKServiceRefusal::InvalidFilter);
        const qint64 noSuchThread = QKServiceRoutes::code(QKServiceRefusal::NoSuchThread);
        QTest::addColumn<Op>("op");
        QTest::addColumn<Values>("values");
        QTest::addColumn<qint64>("code");
        QTest::addColumn<QByteArray>("header"); // empty: the request target
        QTest::addColumn<QByteArray>("sent");

        const QString injected = "x\r\nX-Injected: 1";
        const QList<QPair<const char *, QString>> breaks{{"CR LF", injected},
                                                         {"LF", "x\nX-Injected: 1"},
                                                         {"CR", "x\rX-Injected: 1"},
                                                         {"NUL", QStringLiteral("x") + QChar(0) + "y"}};
        const auto with = [](QString Values::*field, const QString &value) {
            Values values;
            values.*field = value;
            return values;
        };
        const QList<std::tuple<const char *, QString Values::*, Op, const char *>> places{
            {"UID", &Values::uid, Op::List, "listing"},        {"state", &Values::state, Op::List, "listing"},
            {"key", &Values::key, Op::Edit, "edit"},           {"key", &Values::key, Op::Comments, "comments"},
            {"key", &Values::key, Op::Delete, "delete"},       {"key", &Values::key, Op::Comment, "comment"},
            {"API key", &Values::apiKey, Op::Send, "new item"}};
        for (const auto &[name, value] : breaks)
            for (const auto &[place, field, op, what] : places)
                QTest::addRow("%s %s, %s", place, name, what)
                    << op << with(field, value) << qint64(-1002) << QByteArray() << QByteArray();
        const auto filterOf = [](const QByteArray &uid, const QByteArray &state = {}) {
            return "{\"$and\":[{\"RootId\" : null}, {\"Uid\" : \"" + uid + "\"}" +
                   (state.isNull() ? QByteArray() : ", {\"State\" : \"" + state + "\"}") + "]}";
        };
        // The UID of a new item goes in the JSON body only, escaped there.
        QTest::newRow("UID CR LF, new item") << Op::Send << with(&Values::uid, injected) << qint64(0)
                                             << QByteArray("content-type") << QByteArray("application/json");
        // Quotes go verbatim: the filter the service sees is not JSON, and it says so.
        QTest::newRow("UID quote, listing") << Op::List << with(&Values::uid, "a\"b") << invalidFilter
                                            << QByteArray("x-filter-meta") << filterOf("a\"b");
        QTest::newRow("state quote, listing") << Op::List << with(&Values::state, "Open\"") << invalidFilter
                                              << QByteArray("x-filter-meta") << filterOf("device-1", "Open\"");
        QTest::newRow("key quote, edit") << Op::Edit << with(&Values::key, "K\"1") << invalidFilter
                                         << QByteArray("x-filter-meta") << rootFilter("K\"1");
        QTest::newRow("key quote, comments") << Op::Comments << with(&Values::key, "K\"1") << invalidFilter
                                             << QByteArray("x-filter-meta") << rootFilter("K\"1");
        QTest::newRow("edit to a state there is not") << Op::Edit << with(&Values::state, "Closed")
                                                      << qint64(QKServiceRoutes::code(QKServiceRefusal::InvalidState))
                                                      << QByteArray("x-filter-meta") << rootFilter("K1");

        // Non-ASCII: UTF-8 bytes as they are in a header; percent-encoded UTF-8 in the path,
        // where a blank makes the address unparsable (-1002, nothing sent).
        const QString world = "Zoë東京☃";
        const QByteArray encoded = "Zo%C3%AB%E6%9D%B1%E4%BA%AC%E2%98%83";
        QTest::newRow("UID non-ASCII, listing") << Op::List << with(&Values::uid, world) << qint64(0)
                                                << QByteArray("x-filter-meta") << filterOf(world.toUtf8());
        QTest::newRow("state non-ASCII, listing")
            << Op::List << with(&Values::state, world) << qint64(0) << QByteArray("x-filter-meta")
            << filterOf("device-1", world.toUtf8());
        QTest::newRow("key non-ASCII, edit") << Op::Edit << with(&Values::key, world) << noSuchThread
                                             << QByteArray("x-filter-meta") << rootFilter(world);
        QTest::newRow("key non-ASCII, delete")
            << Op::Delete << with(&Values::key, world) << noSuchThread << QByteArray()
            << "/feedback/api/v1/" + m_service.apiKey().toUtf8() + "/threads/" + encoded;
        QTest::newRow("key with a blank, delete")
            << Op::Delete << with(&Values::key, "a b") << qint64(-1002) << QByteArray() << QByteArray();
        QTest::newRow("API key non-ASCII, listing")
            << Op::List << with(&Values::apiKey, world)
            << qint64(QKServiceRoutes::code(QKServiceRefusal::UnknownApplication)) << QByteArray()
            << "/feedback/api/v1/" + encoded + "/threads";
    }
    void hostileValues()
    {
        QFETCH(Op, op);
        QFETCH(Values, values);
        QFETCH(qint64, code);
        QFETCH(QByteArray, header);
        QFETCH(QByteArray, sent);
        const auto session = makeSession();
        Source s(values.apiKey.isNull() ? m_service.apiKey() : values.apiKey, values.uid, m_service.baseUrl(), {});
        s.setSession(session);
        Outcome outcome;
        start(s, op, outcome, values.key, values.state);
        WAIT_ONCE(outcome, *session);
        const QList<RecordedRequest> requests = m_service.requests();
        QVERIFY(onlyWellFormedHeaders(requests));
        if (code == -1002) {
            QCOMPARE(outcome.error, platformError(-1002, failureMessage(op)));
            QVERIFY(requests.isEmpty()); // refused before anything was sent
            return;
        }
        QCOMPARE(requests.size(), 1);
        QCOMPARE(header.isEmpty() ? requests.first().target : requests.first().header(header), sent);
        if (code == 0)
            QVERIFY2(!outcome.error, qPrintable(describe(outcome.error)));
        else
            QCOMPARE(outcome.error ? outcome.error->code() : 0, code);
        if (op == Op::Send) // the UID went into the body, escaped
            QCOMPARE(QJsonDocument::fromJson(requests.first().body).object().value(QStringLiteral("Uid")).toString(),
                     values.uid);
    }

    // Children of this executable start requests at a service that never answers and quit
    // at a random moment: each must exit by itself within 2 s, every completion once, cancelled.
    void quitWhileRequestsAreInFlight()
    {
        FakeService::Answer silent;
        silent.neverAnswer = true;
        m_fake.answer(QByteArray(), ".*", silent);
        const int rounds = qEnvironmentVariableIntValue("MURMORA_QUIT_ROUNDS") > 0
                               ? qEnvironmentVariableIntValue("MURMORA_QUIT_ROUNDS")
                               : DefaultQuitRounds;
        const quint32 seed = qEnvironmentVariableIsSet("MURMORA_QUIT_SEED")
                                 ? quint32(qEnvironmentVariableIntValue("MURMORA_QUIT_SEED"))
                                 : QRandomGenerator::global()->generate();
        qInfo("%d rounds, seed %u (MURMORA_QUIT_SEED)", rounds, seed);
        QRandomGenerator random(seed);
        const auto line = [](const char *what, Op op) { return QLatin1String(what) + " -999 " + failureMessage(op); };
        const QMap<QString, QStringList> expected{
            {"batch", {line("batch", Op::Batch)}},
            {"reads", {line("comment", Op::Comment), line("image", Op::Image), line("list", Op::List)}}};

        int slowest = 0;
        for (int round = 0; round < rounds; ++round) {
            const QString mode = round % 2 ? "reads" : "batch";
            const int quitAfter = int(random.bounded(501));
            const QString what = QStringLiteral("%1 round quitting after %2 ms").arg(mode).arg(quitAfter);
            QProcess process;
            process.start(QCoreApplication::applicationFilePath(),
                          {"--child", mode, m_fake.baseUrl(), QString::number(quitAfter)});
            QByteArray out;
            QVERIFY2(QTest::qWaitFor(
                         [&] {
                             out += process.readAllStandardOutput();
                             return out.contains("quit\n");
                         },
                         10000),
                     qPrintable(what));
            QElapsedTimer sinceQuit;
            sinceQuit.start();
            // Still running 2 s after its quit: it hangs.
            if (!QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 2000)) {
                process.kill();
                process.waitForFinished();
            }
            slowest = qMax(slowest, int(sinceQuit.elapsed()));
            QVERIFY2(process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0,
                     qPrintable(what + " did not exit by itself within 2 s with status 0: " +
                                QString::fromLocal8Bit(process.readAllStandardError().right(2000))));
            QStringList lines =
                QString::fromUtf8(out + process.readAllStandardOutput()).split(u'\n', Qt::SkipEmptyParts);
            QCOMPARE(lines.removeAll("quit"), 1);
            lines.sort();
            QVERIFY2(lines == expected.value(mode), qPrintable(what + QStringLiteral(": ") + lines.join(u'|')));
        }
        qInfo("%d rounds; the slowest exit took %d ms after its quit", rounds, slowest);
    }
};

int main(int argc, char **argv)
{
    if (argc == 5 && std::strcmp(argv[1], "--child") == 0)
        return child(argc, argv);
    QCoreApplication app(argc, argv);
    TestPlatformFeedbackSource test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_qkplatformfeedbacksource.moc"
