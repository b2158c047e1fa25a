// Hostile servers and hostile values: every operation ends in its completion exactly
// once, and nothing a host passes puts a header line of its own on the wire.

#include "base/QKDeviceInfo.h"
#include "data/QKPlatformFeedbackSource.h"
#include "support/CompletionOutcome.h"
#include "support/FakeService.h"
#include "support/TestService.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTcpServer>
#include <QtTest>

#include <libdeflate.h>

#include <atomic>
#include <mutex>

namespace {

using Source = QKPlatformFeedbackSource;

// Runs the network thread's queue through twice more: a second completion of a task
// that has ended would be queued before these and show in the count.
bool settle(QKURLSession &session)
{
    for (int round = 0; round < 2; ++round) {
        auto ran = std::make_shared<std::atomic<bool>>(false);
        QKURLRequest fence;
        fence.url = QUrl(QStringLiteral("about:blank"));
        session.dataTask(fence, [ran](const QByteArray &, int, std::optional<QKError>) { *ran = true; });
        if (!QTest::qWaitFor([&] { return ran->load(); }, 5000))
            return false;
    }
    return true;
}

#define WAIT_ONCE(outcome, session, ms)                                                                                \
    do {                                                                                                               \
        QTRY_VERIFY_WITH_TIMEOUT((outcome).done(), ms);                                                                \
        QVERIFY(settle(session));                                                                                      \
        QCOMPARE((outcome).count(), 1);                                                                                \
    } while (false)

QString describe(const std::optional<QKError> &error)
{
    return error ? QStringLiteral("%1 %2: %3").arg(error->domain).arg(error->code).arg(error->message()) : QString();
}

QKError platformError(qint64 code, const QString &message)
{
    return QKError::withMessage(QStringLiteral("Wendax Platform"), code, message);
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

// The operations a host and the screens use; each row of a hostile server runs them all at once.
enum class Op { List, Send, Comment, Batch, Comments, Edit, Delete };
const QList<Op> ServerOps{Op::List, Op::Send, Op::Comment, Op::Batch, Op::Comments};

const char *failureMessage(Op op)
{
    switch (op) {
    case Op::List:
        return "Feedback could not be retrieved";
    case Op::Send:
    case Op::Batch:
        return "Feedback could not be send";
    case Op::Comment:
        return "Feedback comments could not be send";
    case Op::Comments:
        return "Feedback comments could not be retrieved";
    case Op::Edit:
        return "Feedback could not be edit";
    case Op::Delete:
        return "Feedback could not be deleted";
    }
    return "";
}

struct Run
{
    explicit Run(Op o) : op(o) {}
    Op op;
    Outcome outcome;
    QKFeedbackItemPtr comment = QKFeedbackItem::create();
};

QKFeedbackItemPtr textItem(const QString &text)
{
    auto item = QKFeedbackItem::create();
    item->setText(text);
    return item;
}

void start(Source &s, Run &run, const QString &key = QStringLiteral("K1"), const QString &state = QString())
{
    run.comment->setText(QStringLiteral("a comment"));
    run.comment->setKey(QStringLiteral("before"));
    switch (run.op) {
    case Op::List:
        s.feedbackItemsByState(state, 0, run.outcome.items_());
        break;
    case Op::Send:
        s.addFeedback(textItem(QStringLiteral("one")), run.outcome.error_());
        break;
    case Op::Comment:
        s.addSubItemForKey(key, run.comment, run.outcome.error_());
        break;
    case Op::Batch:
        s.addFeedbackItems({textItem(QStringLiteral("first")), textItem(QStringLiteral("second"))},
                           run.outcome.error_());
        break;
    case Op::Comments:
        s.subItemsForKey(key, run.outcome.items_());
        break;
    case Op::Edit:
        s.editWithKey(key, QStringLiteral("Resolved"), run.outcome.error_());
        break;
    case Op::Delete:
        s.deleteWithKey(key, run.outcome.error_());
        break;
    }
}

// A gzip body of 1 + 258 * repeats zero bytes in one dynamic Huffman block where a
// length of 258 and a distance of 1 take one bit each: two bits per 258 bytes.
QByteArray gzipOfZeros(qint64 repeats)
{
    QByteArray out("\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\xff", 10);
    out.reserve(repeats / 4 + 64);
    quint64 pending = 0;
    int bits = 0;
    const auto put = [&](quint32 value, int count) { // numbers go least significant bit first
        pending |= quint64(value) << bits;
        for (bits += count; bits >= 8; bits -= 8, pending >>= 8)
            out.append(char(pending & 0xff));
    };
    const auto code = [&](quint32 value, int length) { // Huffman codes go most significant bit first
        for (int i = length - 1; i >= 0; --i)
            put((value >> i) & 1, 1);
    };
    put(1, 1); // the last block
    put(2, 2); // dynamic codes
    put(286 - 257, 5);
    put(1 - 1, 5);
    put(18 - 4, 4);
    // Code-length code lengths in the format's order 16 17 18 0 8 7 9 6 10 5 11 4 12 3 13 2 14 1:
    // 18 (a run of zeros) gets "0", 1 gets "10", 2 gets "11".
    for (int length : {0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 2})
        put(length, 3);
    const auto zeroRun = [&](int n) {
        code(0, 1);
        put(n - 11, 7);
    };
    code(3, 2); // literal 0: length 2 ("10")
    zeroRun(138);
    zeroRun(117);
    code(3, 2); // end of block: length 2 ("11")
    zeroRun(28);
    code(2, 2); // 285, a length of 258: length 1 ("0")
    code(2, 2); // distance code 0: length 1 ("0")
    code(2, 2); // the literal 0
    qint64 zeroBits = repeats * 2;
    for (; zeroBits > 0 && bits != 0; --zeroBits)
        put(0, 1);
    out.append(QByteArray(zeroBits / 8, '\0'));
    put(0, int(zeroBits % 8));
    code(3, 2); // end of block
    if (bits > 0)
        out.append(char(pending & 0xff));

    const qint64 size = 1 + 258 * repeats;
    static const QByteArray block(1 << 20, '\0');
    quint32 crc = 0;
    for (qint64 left = size; left > 0; left -= block.size())
        crc = libdeflate_crc32(crc, block.constData(), size_t(qMin<qint64>(left, block.size())));
    for (const quint32 word : {crc, quint32(size)})
        for (int i = 0; i < 4; ++i)
            out.append(char((word >> (8 * i)) & 0xff));
    return out;
}

qint64 statusKiB(const char *field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith(field))
            return line.mid(qstrlen(field)).trimmed().split(' ').first().toLongLong();
    return -1;
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
    QString uid = QStringLiteral("device-1");
    QString apiKey; // null: the service's
    QString state;
    QString key = QStringLiteral("K1");
};

} // namespace

Q_DECLARE_METATYPE(Op)
Q_DECLARE_METATYPE(Values)
Q_DECLARE_METATYPE(FakeService::Answer)

class TestHostileService : public QObject
{
    Q_OBJECT

    FakeService m_service;
    FakeService m_other; // "another host": reached as localhost, where m_service is 127.0.0.1
    TestService m_real;

    std::unique_ptr<Source> source(const QSharedPointer<QKURLSession> &session)
    {
        auto s = std::make_unique<Source>(QStringLiteral("KEY"), QStringLiteral("device-1"), m_service.baseUrl(),
                                          QVariantMap());
        s->setSession(session);
        return s;
    }

    QString otherUrl(const QString &path) const
    {
        return QStringLiteral("https://localhost:%1%2").arg(m_other.port()).arg(path);
    }

    static FakeService::Answer raw(const QByteArray &bytes, bool closeAfter = false)
    {
        FakeService::Answer answer;
        answer.raw = bytes;
        answer.closeAfter = closeAfter;
        return answer;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_service.listen());
        QVERIFY(m_other.listen());
        QVERIFY(m_real.start());
        QKDeviceInfo::setProviders({[] { return QStringLiteral("Test Phone"); }, [] { return QStringLiteral("17.2"); },
                                    [] { return QStringLiteral("com.example.notes"); }, [] { return QString(); },
                                    [] { return QSizeF(375, 667); }});
    }

    void init()
    {
        for (FakeService *service : {&m_service, &m_other}) {
            service->clearRequests();
            service->clearAnswers();
        }
        m_real.clearRequests();
    }

    // Each row runs listing, new item, new comment, a batch of two and the comments at once.
    // Code 0: the answer is no service error, so each operation gives its defined result
    // for it (an empty list, or success; a new comment takes the empty record).
    void hostileServer_data()
    {
        QTest::addColumn<FakeService::Answer>("answer");
        QTest::addColumn<int>("idleMs");
        QTest::addColumn<int>("overallMs");
        QTest::addColumn<qint64>("code");

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
        QTcpServer plain; // the http end of a redirect: it must never be reached
        QVERIFY(plain.listen(QHostAddress::LocalHost));
        if (answer.status == 302)
            answer.headers = {{"Location", QStringLiteral("http://127.0.0.1:%1/x").arg(plain.serverPort()).toUtf8()}};
        else if (answer.status == 307)
            answer.headers = {{"Location", m_service.baseUrl().toUtf8() + "/KEY/threads"}};
        m_service.answer(QByteArray(), QStringLiteral(".*"), answer);

        const auto session = makeSession(idleMs, overallMs);
        auto s = source(session);
        std::vector<std::unique_ptr<Run>> runs;
        for (Op op : ServerOps) {
            runs.push_back(std::make_unique<Run>(op));
            start(*s, *runs.back());
        }
        for (auto &run : runs)
            QTRY_VERIFY_WITH_TIMEOUT(run->outcome.done(), 20000);
        QVERIFY(settle(*session));
        for (auto &run : runs) {
            const Outcome &o = run->outcome;
            const QByteArray what = QByteArray::number(int(run->op));
            QVERIFY2(o.calls == 1, what.constData());
            if (code != 0) {
                QVERIFY2(o.error, what.constData());
                QCOMPARE(*o.error, platformError(code, QString::fromLatin1(failureMessage(run->op))));
                QVERIFY(!o.items);
                continue;
            }
            QVERIFY2(!o.error, qPrintable(describe(o.error)));
            if (run->op == Op::List || run->op == Op::Comments)
                QVERIFY(o.items && o.items->isEmpty());
            if (run->op == Op::Comment)
                QVERIFY(run->comment->key().isNull() && run->comment->text().isNull());
        }
        QVERIFY(!plain.hasPendingConnections());
    }

    // 1 GiB of zeros in 1 MB: Qt's decompression guard stops it (at a ratio over 40 once
    // 10 MiB came out), well before the 64 MiB cap; a smaller bomb meets a smaller cap.
    void gzipBomb_data()
    {
        QTest::addColumn<qint64>("repeats");
        QTest::addColumn<qint64>("cap");
        QTest::addColumn<qint64>("code");
        QTest::newRow("1 GiB, Qt's guard") << qint64(4161790) << qint64(0) << qint64(-1016);
        QTest::newRow("8 MiB, cap 1 MiB") << qint64(32513) << qint64(1 << 20) << qint64(-1103);
    }
    void gzipBomb()
    {
        QFETCH(qint64, repeats);
        QFETCH(qint64, cap);
        QFETCH(qint64, code);
        FakeService::Answer answer;
        answer.body = gzipOfZeros(repeats);
        answer.headers = {{"Content-Encoding", "gzip"}};
        m_service.answer(QByteArray(), QStringLiteral(".*"), answer);
        const auto session = makeSession(60000, 0, cap);

        QFile clear(QStringLiteral("/proc/self/clear_refs"));
        QVERIFY(clear.open(QIODevice::WriteOnly) && clear.write("5") == 1); // the peak starts again from here
        clear.close();
        const qint64 before = statusKiB("VmRSS:");
        Outcome outcome;
        QKURLRequest request;
        request.url = QUrl(m_service.baseUrl() + QStringLiteral("/KEY/threads"));
        session->dataTask(request, outcome.task_());
        WAIT_ONCE(outcome, *session, 20000);
        const qint64 growth = statusKiB("VmHWM:") - before;
        qInfo("%lld bytes on the wire for %lld: peak RSS growth %lld KiB", qint64(answer.body.size()),
              1 + 258 * repeats, growth);
        QCOMPARE(outcome.error ? outcome.error->code : 0, code);
        QVERIFY(outcome.body.isEmpty());
        QVERIFY(growth < 48 * 1024);

        // The same through the source: each operation fails with that code.
        auto s = source(session);
        std::vector<std::unique_ptr<Run>> runs;
        for (Op op : ServerOps) {
            runs.push_back(std::make_unique<Run>(op));
            start(*s, *runs.back());
        }
        for (auto &run : runs) {
            WAIT_ONCE(run->outcome, *session, 20000);
            QCOMPARE(run->outcome.error, platformError(code, QString::fromLatin1(failureMessage(run->op))));
        }
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
        QTest::newRow("listing, 302, same origin") << Op::List << 302 << QStringLiteral("same") << true;
        QTest::newRow("new item, 307, same origin") << Op::Send << 307 << QStringLiteral("same") << true;
        QTest::newRow("new item, 308, same origin") << Op::Send << 308 << QStringLiteral("same") << true;
        QTest::newRow("new item, 302, same origin") << Op::Send << 302 << QStringLiteral("same") << false;
        QTest::newRow("new item, 303, same origin") << Op::Send << 303 << QStringLiteral("same") << false;
        QTest::newRow("edit, 301, same origin") << Op::Edit << 301 << QStringLiteral("same") << false;
        QTest::newRow("delete, 302, same origin") << Op::Delete << 302 << QStringLiteral("same") << false;
        QTest::newRow("listing, 307, another host") << Op::List << 307 << QStringLiteral("host") << false;
        QTest::newRow("listing, 301, another port") << Op::List << 301 << QStringLiteral("port") << false;
        QTest::newRow("new item, 307, another host") << Op::Send << 307 << QStringLiteral("host") << false;
        QTest::newRow("comment, 308, another port") << Op::Comment << 308 << QStringLiteral("port") << false;
    }
    void redirects()
    {
        QFETCH(Op, op);
        QFETCH(int, status);
        QFETCH(QString, to);
        QFETCH(bool, followed);
        const QString path = op == Op::List || op == Op::Send || op == Op::Edit ? QStringLiteral("/threads")
                                                                                : QStringLiteral("/threads/K1");
        const QString moved = QStringLiteral("/feedback/api/v1/MOVED") + path;
        const QString origin = to == QLatin1String("same") ? m_service.origin()
                               : to == QLatin1String("host")
                                   ? QStringLiteral("https://localhost:%1").arg(m_other.port())
                                   : QStringLiteral("https://127.0.0.1:%1").arg(m_other.port());
        FakeService::Answer answer;
        answer.status = status;
        answer.headers = {{"Location", (origin + moved).toUtf8()}};
        m_service.answer(QByteArray(), QStringLiteral("^/feedback/api/v1/KEY/"), answer);
        FakeService::Answer there;
        there.body = "{}";
        m_service.answer(QByteArray(), QStringLiteral("^/feedback/api/v1/MOVED/"), there);
        there.body = R"([{"Text":"over there"}])";
        m_service.answer("GET", QStringLiteral("^/feedback/api/v1/MOVED/"), there);

        const auto session = makeSession();
        auto s = source(session);
        Run run(op);
        start(*s, run);
        WAIT_ONCE(run.outcome, *session, 10000);
        QVERIFY(m_other.requests().isEmpty());
        if (!followed) {
            QCOMPARE(run.outcome.error,
                     platformError(QKURLSession::RedirectRefusedError, QString::fromLatin1(failureMessage(op))));
            QCOMPARE(m_service.requests().size(), 1);
            return;
        }
        QVERIFY2(!run.outcome.error, qPrintable(describe(run.outcome.error)));
        const QList<RecordedRequest> requests = m_service.requests();
        QCOMPARE(requests.size(), 2);
        QCOMPARE(requests[1].target, moved.toUtf8());
        QCOMPARE(requests[1].method, requests[0].method);
        QCOMPARE(requests[1].body, requests[0].body);
        QCOMPARE(requests[1].header("x-filter-meta"), requests[0].header("x-filter-meta"));
        if (op == Op::List)
            QCOMPARE(run.outcome.items->first()->text(), QStringLiteral("over there"));
    }

    // The session itself: a header that would split into lines fails at once, and a
    // session destroyed with a task in flight ends it with -999.
    void sessionRefusesHeaders_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<QByteArray>("value");
        QTest::newRow("value CR LF") << QByteArray("x-a") << QByteArray("1\r\nX-Injected: 1");
        QTest::newRow("value NUL") << QByteArray("x-a") << QByteArray("1\0X-Injected: 1", 15);
        QTest::newRow("name LF") << QByteArray("X-Injected: 1\nx-a") << QByteArray("1");
        QTest::newRow("name with a colon") << QByteArray("X-Injected: 1") << QByteArray("1");
        QTest::newRow("empty name") << QByteArray() << QByteArray("1");
    }
    void sessionRefusesHeaders()
    {
        QFETCH(QByteArray, name);
        QFETCH(QByteArray, value);
        const auto session = makeSession();
        QKURLRequest request;
        request.url = QUrl(m_service.baseUrl() + QStringLiteral("/KEY/threads"));
        request.headers = {{"x-b", "2"}, {name, value}};
        Outcome outcome;
        session->dataTask(request, outcome.task_());
        WAIT_ONCE(outcome, *session, 5000);
        QCOMPARE(outcome.error ? outcome.error->code : 0, -1002);
        QVERIFY(m_service.requests().isEmpty());
    }

    // Every error status is an answer with its body, whichever error Qt gives it.
    void errorStatusesAreAnswers()
    {
        const auto session = makeSession();
        for (int status : {400, 401, 403, 404, 405, 409, 410, 418, 422, 429, 500, 501, 502, 503, 599}) {
            FakeService::Answer answer;
            answer.status = status;
            answer.body = "page " + QByteArray::number(status);
            m_service.answer(QByteArray(), QStringLiteral(".*"), answer, 1);
            QKURLRequest request;
            request.url = QUrl(m_service.baseUrl());
            Outcome outcome;
            session->dataTask(request, outcome.task_());
            WAIT_ONCE(outcome, *session, 5000);
            QVERIFY2(!outcome.error, qPrintable(describe(outcome.error)));
            QCOMPARE(outcome.status, status);
            QCOMPARE(outcome.body, answer.body);
        }
    }

    void destroyedSessionCancels()
    {
        FakeService::Answer silent;
        silent.neverAnswer = true;
        m_service.answer(QByteArray(), QStringLiteral(".*"), silent);
        auto session = makeSession();
        auto s = source(session);
        Run list(Op::List);
        start(*s, list);
        QTRY_COMPARE(m_service.requests().size(), 1);
        s.reset();
        session.reset(); // the last reference
        const auto fence = makeSession();
        WAIT_ONCE(list.outcome, *fence, 5000);
        QCOMPARE(list.outcome.error, platformError(-999, QStringLiteral("Feedback could not be retrieved")));
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

        const QString injected = QStringLiteral("x\r\nX-Injected: 1");
        const QList<QPair<const char *, QString>> breaks{{"CR LF", injected},
                                                         {"LF", QStringLiteral("x\nX-Injected: 1")},
                                                         {"CR", QStringLiteral("x\rX-Injected: 1")},
                                                         {"NUL", QStringLiteral("x") + QChar(0) + QStringLiteral("y")}};
        for (const auto &[name, value] : breaks) {
            Values uid, state, key, apiKey;
            uid.uid = state.state = key.key = apiKey.apiKey = value;
            QTest::addRow("UID %s, listing", name) << Op::List << uid << qint64(-1002) << QByteArray() << QByteArray();
            QTest::addRow("state %s, listing", name)
                << Op::List << state << qint64(-1002) << QByteArray() << QByteArray();
            QTest::addRow("key %s, edit", name) << Op::Edit << key << qint64(-1002) << QByteArray() << QByteArray();
            QTest::addRow("key %s, comments", name)
                << Op::Comments << key << qint64(-1002) << QByteArray() << QByteArray();
            QTest::addRow("key %s, delete", name) << Op::Delete << key << qint64(-1002) << QByteArray() << QByteArray();
            QTest::addRow("key %s, comment", name)
                << Op::Comment << key << qint64(-1002) << QByteArray() << QByteArray();
            QTest::addRow("API key %s, new item", name)
                << Op::Send << apiKey << qint64(-1002) << QByteArray() << QByteArray();
        }
        // The UID of a new item goes in the JSON body only, escaped there.
        Values uid;
        uid.uid = injected;
        QTest::newRow("UID CR LF, new item")
            << Op::Send << uid << qint64(0) << QByteArray("content-type") << QByteArray("application/json");

        // Quotes go verbatim: the filter the service sees is not JSON, and it says so.
        Values quoted;
        quoted.uid = QStringLiteral("a\"b");
        QTest::newRow("UID quote, listing") << Op::List << quoted << invalidFilter << QByteArray("x-filter-meta")
                                            << QByteArray("{\"$and\":[{\"RootId\" : null}, {\"Uid\" : \"a\"b\"}]}");
        quoted = Values();
        quoted.state = QStringLiteral("Open\"");
        QTest::newRow("state quote, listing")
            << Op::List << quoted << invalidFilter << QByteArray("x-filter-meta")
            << QByteArray("{\"$and\":[{\"RootId\" : null}, {\"Uid\" : \"device-1\"}, {\"State\" : \"Open\"\"}]}");
        quoted = Values();
        quoted.key = QStringLiteral("K\"1");
        QTest::newRow("key quote, edit") << Op::Edit << quoted << invalidFilter << QByteArray("x-filter-meta")
                                         << QByteArray("{\"RootId\":\"K\"1\"}");
        QTest::newRow("key quote, comments") << Op::Comments << quoted << invalidFilter << QByteArray("x-filter-meta")
                                             << QByteArray("{\"RootId\":\"K\"1\"}");

        // Non-ASCII: UTF-8 bytes as they are in a header; percent-encoded UTF-8 in the path,
        // where a blank makes the address unparsable (-1002, nothing sent).
        const QString world = QStringLiteral("Zoë東京☃");
        Values text;
        text.uid = world;
        QTest::newRow("UID non-ASCII, listing")
            << Op::List << text << qint64(0) << QByteArray("x-filter-meta")
            << ("{\"$and\":[{\"RootId\" : null}, {\"Uid\" : \"" + world.toUtf8() + "\"}]}");
        text = Values();
        text.state = world;
        QTest::newRow("state non-ASCII, listing")
            << Op::List << text << qint64(0) << QByteArray("x-filter-meta")
            << ("{\"$and\":[{\"RootId\" : null}, {\"Uid\" : \"device-1\"}, {\"State\" : \"" + world.toUtf8() + "\"}]}");
        text = Values();
        text.key = world;
        QTest::newRow("key non-ASCII, edit") << Op::Edit << text << noSuchThread << QByteArray("x-filter-meta")
                                             << ("{\"RootId\":\"" + world.toUtf8() + "\"}");
        QTest::newRow("key non-ASCII, delete")
            << Op::Delete << text << noSuchThread << QByteArray()
            << "/feedback/api/v1/" + m_real.apiKey().toUtf8() + "/threads/Zo%C3%AB%E6%9D%B1%E4%BA%AC%E2%98%83";
        text.key = QStringLiteral("a b");
        QTest::newRow("key with a blank, delete")
            << Op::Delete << text << qint64(-1002) << QByteArray() << QByteArray();
        text = Values();
        text.apiKey = world;
        QTest::newRow("API key non-ASCII, listing")
            << Op::List << text << qint64(QKServiceRoutes::code(QKServiceRefusal::UnknownApplication)) << QByteArray()
            << QByteArray("/feedback/api/v1/Zo%C3%AB%E6%9D%B1%E4%BA%AC%E2%98%83/threads");
    }
    void hostileValues()
    {
        QFETCH(Op, op);
        QFETCH(Values, values);
        QFETCH(qint64, code);
        QFETCH(QByteArray, header);
        QFETCH(QByteArray, sent);
        const auto session = makeSession();
        Source s(values.apiKey.isNull() ? m_real.apiKey() : values.apiKey, values.uid, m_real.baseUrl(), {});
        s.setSession(session);
        Run run(op);
        start(s, run, values.key, values.state);
        WAIT_ONCE(run.outcome, *session, 10000);
        const QList<RecordedRequest> requests = m_real.requests();
        QVERIFY(onlyWellFormedHeaders(requests));
        if (code == -1002) {
            QCOMPARE(run.outcome.error, platformError(-1002, QString::fromLatin1(failureMessage(op))));
            QVERIFY(requests.isEmpty()); // refused before anything was sent
            return;
        }
        QCOMPARE(requests.size(), 1);
        QCOMPARE(header.isEmpty() ? requests.first().target : requests.first().header(header), sent);
        if (code == 0)
            QVERIFY2(!run.outcome.error, qPrintable(describe(run.outcome.error)));
        else
            QCOMPARE(run.outcome.error ? run.outcome.error->code : 0, code);
        if (op == Op::Send) // the UID went into the body, escaped
            QCOMPARE(QJsonDocument::fromJson(requests.first().body).object().value(QStringLiteral("Uid")).toString(),
                     values.uid);
    }
};

QTEST_MAIN(TestHostileService)
#include "tst_qkhostileservice.moc"
