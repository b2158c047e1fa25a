// The models without a view: the list's paging against murmora-server and the local
// source, an item's comments and the name asked for first, the markers and the items
// made from them, and the send flow with its alerts.

#include "base/QKDocumentsDirectory.h"
#include "base/QKPNGCodec.h"
#include "data/QKLocalFeedbackSource.h"
#include "data/QKPlatformFeedbackSource.h"
#include "models/QKAnnotationModel.h"
#include "models/QKFeedbackDetailsModel.h"
#include "models/QKFeedbackListModel.h"
#include "models/QKFeedbackSendFlow.h"
#include "support/TestService.h"

#include <QPainter>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QString Device = QStringLiteral("device-1");

enum Close { Done, TapElsewhere, FocusLost };

QKFeedbackItemPtr item(const QString &text, const QImage &image = QImage())
{
    auto made = QKFeedbackItem::create();
    made->setText(text);
    made->setState(QStringLiteral("Open"));
    made->setImage(image);
    return made;
}

QImage picture(int width = 60, int height = 120)
{
    QImage image(width, height, QImage::Format_RGB32);
    image.fill(QColor(52, 120, 246));
    return image;
}

} // namespace

Q_DECLARE_METATYPE(Close)
Q_DECLARE_METATYPE(QKFeedbackListModel::Filter)
Q_DECLARE_METATYPE(QKFeedbackSendFlow::NameAction)

class TestModels : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_documents;
    TestService m_service;
    QString m_newest;

    QSharedPointer<QKFeedbackDataSource> source(const QString &kind)
    {
        if (kind == QLatin1String("local")) {
            auto local = QSharedPointer<QKLocalFeedbackSource>::create();
            for (int i = 1; i <= 3; ++i)
                local->addFeedback(item(QStringLiteral("Local %1").arg(i), picture()), [](auto) {});
            return local;
        }
        auto session = QSharedPointer<QKURLSession>::create();
        session->addCaCertificates(FakeService::caCertificates());
        auto hosted = QSharedPointer<QKPlatformFeedbackSource>::create(
            kind == QLatin1String("unknown") ? QStringLiteral("unknown") : m_service.apiKey(),
            kind == QLatin1String("stranger") ? QStringLiteral("stranger") : Device, m_service.baseUrl(),
            QVariantMap());
        hosted->setSession(session);
        return hosted;
    }

    QList<RecordedRequest> listings() const
    {
        QList<RecordedRequest> out;
        for (const RecordedRequest &request : m_service.requests())
            if (request.method == "GET" && request.target.endsWith("/threads"))
                out.append(request);
        return out;
    }

    QStringList skips() const
    {
        QStringList out;
        for (const RecordedRequest &request : listings())
            out.append(QString::fromLatin1(request.header("x-skip-meta")));
        return out;
    }

    // A marker with `text`, made as a tap and a confirmed comment make it.
    static QKFeedbackPointPtr addMarker(QKAnnotationModel &model, const QPointF &at, const QString &text)
    {
        model.beginEditing(at);
        const QKFeedbackPointPtr point = model.currentPoint();
        model.finishEditing(text);
        return point;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_service.start());
        // Resolved ones first, then another device's, then 45 open ones, a second apart.
        qint64 at = QDateTime::currentMSecsSinceEpoch() - 3600000;
        for (int i = 1; i <= 5; ++i)
            m_service.addThread(Device, QStringLiteral("Resolved %1").arg(i), QStringLiteral("Resolved"), at += 1000);
        m_service.addThread(QStringLiteral("device-2"), QStringLiteral("Not mine"));
        QImage shot = picture(120, 260);
        for (int i = 1; i <= 45; ++i)
            m_newest = m_service.addThread(Device, QStringLiteral("Item %1").arg(i), QStringLiteral("Open"), at += 1000,
                                           QKPNGCodec::encode(shot));
        for (const char *text : {"Older comment", "Newer comment"})
            m_service.addComment(m_newest, QString::fromLatin1(text), at += 1000);
    }
    void init()
    {
        m_documents = std::make_unique<QTemporaryDir>();
        QKSetDocumentsDirectory(m_documents->path());
        m_service.clearRequests();
    }

    void paging_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QKFeedbackListModel::Filter>("filter");
        QTest::addColumn<QStringList>("skips"); // of every listing, in order
        QTest::addColumn<QString>("first");
        QTest::newRow("open, until a page brings nothing")
            << "hosted" << QKFeedbackListModel::Open << QStringList{"0", "20", "40", "45"} << "Item 45";
        QTest::newRow("resolved: a short page is no page size")
            << "hosted" << QKFeedbackListModel::Resolved << QStringList{"0", "5"} << "Resolved 5";
        QTest::newRow("all, no state asked")
            << "hosted" << QKFeedbackListModel::All << QStringList{"0", "20", "40", "50"} << "Item 45";
        // The local source ignores the skip: its one further page repeats everything, and ends the paging.
        QTest::newRow("local stops after one next page")
            << "local" << QKFeedbackListModel::Open << QStringList() << "Local 1";
    }
    void paging()
    {
        QFETCH(QString, kind);
        QFETCH(QKFeedbackListModel::Filter, filter);
        QFETCH(QStringList, skips);
        QFETCH(QString, first);
        QKFeedbackListModel list;
        list.setFilter(filter);
        QCOMPARE(list.state(), QStringList({"Open", "Resolved", QString()}).at(filter));
        list.setDataSource(source(kind));
        QSignalSpy firstPage(&list, &QKFeedbackListModel::firstPageLoaded);
        QSignalSpy nextPage(&list, &QKFeedbackListModel::nextPageLoaded);
        list.reload();
        QVERIFY(list.isLoading() && list.showIndicator() && !list.isListVisible());
        QVERIFY(firstPage.wait());
        QVERIFY(!list.isLoading() && list.isListVisible() && !list.isEmptyMessageVisible());
        QCOMPARE(list.item(0)->text(), first);
        const int firstCount = list.rowCount();
        for (int pages = 0; list.showIndicator() && pages < 10; ++pages) {
            list.rowShown(list.rowCount() - 2); // only the last item's row pages
            list.rowShown(list.rowCount() - 1);
            QVERIFY(nextPage.wait());
        }
        QVERIFY(!list.showIndicator());
        list.rowShown(list.rowCount() - 1); // paging is over
        if (kind == QLatin1String("local")) {
            QCOMPARE(list.rowCount(), 2 * firstCount);
            return;
        }
        QTRY_COMPARE(this->skips(), skips);
        QCOMPARE(list.rowCount(), skips.last().toInt());
        for (const RecordedRequest &request : listings()) {
            QVERIFY(request.header("x-filter-meta").contains("\"Uid\" : \"device-1\""));
            QCOMPARE(request.header("x-filter-meta").contains("State"), filter != QKFeedbackListModel::All);
        }
    }

    void firstPageFailsOrIsEmpty_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<bool>("fails");
        QTest::newRow("refused") << "unknown" << true;
        QTest::newRow("nothing sent yet") << "stranger" << false;
    }
    void firstPageFailsOrIsEmpty()
    {
        QFETCH(QString, kind);
        QFETCH(bool, fails);
        QKFeedbackListModel list;
        list.setDataSource(source(kind));
        QSignalSpy failed(&list, &QKFeedbackListModel::firstPageFailed);
        QSignalSpy loaded(&list, &QKFeedbackListModel::firstPageLoaded);
        list.reload();
        QTRY_VERIFY(!list.isLoading());
        QCOMPARE(failed.size(), fails ? 1 : 0);
        QCOMPARE(loaded.size(), fails ? 0 : 1);
        if (fails)
            QCOMPARE(failed.first(), (QVariantList{QStringLiteral("Wendax Platform"),
                                                   TestService::message(QKServiceRefusal::UnknownApplication)}));
        // A failure leaves both hidden until the next reload; an empty list says so.
        QVERIFY(!list.isListVisible());
        QCOMPARE(list.isEmptyMessageVisible(), !fails);
    }

    void openingAnItemFetchesItsScreenshotAndCommentsOnce()
    {
        QKFeedbackListModel list;
        list.setDataSource(source(QStringLiteral("hosted")));
        QSignalSpy loaded(&list, &QKFeedbackListModel::firstPageLoaded);
        list.reload();
        QVERIFY(loaded.wait());
        const QKFeedbackItemPtr newest = list.item(0);
        QCOMPARE(newest->key(), m_newest);
        QVERIFY(list.data(list.index(0), QKFeedbackListModel::ImageRole).value<QImage>().isNull());
        QSignalSpy changed(&list, &QAbstractItemModel::dataChanged);
        for (int open = 0; open < 2; ++open) {
            QKFeedbackDetailsModel details;
            QSignalSpy reloaded(&details, &QKFeedbackDetailsModel::reloaded);
            list.openItem(0, &details);
            QCOMPARE(details.item(), newest);
            QTRY_COMPARE(reloaded.size(), open == 0 ? 2 : 1); // the screenshot is fetched only once
            QVERIFY(!details.isBusy());
            QCOMPARE(details.rowCount(), 2); // the second opening adds nothing
            QCOMPARE(details.data(details.index(0), QKFeedbackDetailsModel::TextRole).toString(), "Newer comment");
        }
        QCOMPARE(newest->image().size(), QSize(120, 260));
        QCOMPARE(list.data(list.index(0), QKFeedbackListModel::CommentCountRole).toLongLong(), 2);
        QCOMPARE(changed.size(), 2); // image, then comments
    }

    void commentCount_data()
    {
        QTest::addColumn<QVariant>("counted"); // the service's "CommentsCount", the item included
        QTest::addColumn<int>("loaded");
        QTest::addColumn<qint64>("count");
        QTest::newRow("missing") << QVariant() << 0 << qint64(0);
        QTest::newRow("zero") << QVariant(0) << 0 << qint64(0);
        QTest::newRow("one: the item itself") << QVariant(1) << 0 << qint64(0);
        QTest::newRow("five") << QVariant(5) << 0 << qint64(4);
        QTest::newRow("text with a fraction") << QVariant(QStringLiteral(" 7.9x")) << 0 << qint64(6);
        QTest::newRow("loaded comments win") << QVariant(5) << 2 << qint64(2);
    }
    void commentCount()
    {
        QFETCH(QVariant, counted);
        QFETCH(int, loaded);
        QFETCH(qint64, count);
        const QKFeedbackItemPtr shown = item(QStringLiteral("Crash"));
        if (counted.isValid())
            shown->setParams({{QStringLiteral("CommentsCount"), counted}});
        for (int i = 0; i < loaded; ++i)
            shown->addSubItem(item(QStringLiteral("Comment")));
        QCOMPARE(QKFeedbackListModel::commentCount(shown), count);
    }

    // A comment on an item of the service, under the saved name or after the name is asked for.
    void commentNeedsAName_data()
    {
        QTest::addColumn<QString>("name"); // the source's name at first
        QTest::addColumn<QKFeedbackSendFlow::NameAction>("action");
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("saved"); // the name afterwards, on the source and in the file
        QTest::newRow("named") << "Ada" << QKFeedbackSendFlow::Back << QString() << "Ada";
        QTest::newRow("anonymous") << "" << QKFeedbackSendFlow::SendAnonymous << "Bo"
                                   << "Anonymous";
        QTest::newRow("back keeps the comment") << "" << QKFeedbackSendFlow::Back << "  Grace\t"
                                                << "Grace";
        QTest::newRow("continue") << "" << QKFeedbackSendFlow::SendWithName << " Lin Wu "
                                  << "Lin Wu";
    }
    void commentNeedsAName()
    {
        QFETCH(QString, name);
        QFETCH(QKFeedbackSendFlow::NameAction, action);
        QFETCH(QString, typed);
        QFETCH(QString, saved);
        const QKFeedbackItemPtr shown = item(QStringLiteral("Total is wrong"), picture());
        shown->setKey(m_service.addThread(Device, shown->text()));
        shown->addSubItem(item(QStringLiteral("Older")));
        const QKFeedbackDataSourcePtr hosted = source(QStringLiteral("hosted"));
        hosted->setUserName(name);
        QKFeedbackSendFlow flow;
        QKFeedbackDetailsModel details;
        details.setItem(shown);
        details.setDataSource(hosted);
        details.setSendFlow(&flow);
        QVERIFY(details.isBusy());
        details.reload();
        QVERIFY(!details.isBusy());
        QSignalSpy nameNeeded(&details, &QKFeedbackDetailsModel::nameNeeded);
        QSignalSpy sent(&details, &QKFeedbackDetailsModel::commentSent);

        details.sendComment(QStringLiteral("Fixed in 2.1?"));
        const bool asked = name.isEmpty();
        QCOMPARE(nameNeeded.size(), asked ? 1 : 0);
        QCOMPARE(details.isBusy(), !asked);
        if (asked) {
            QCOMPARE(details.pendingComment(), QStringLiteral("Fixed in 2.1?"));
            QCOMPARE(details.chooseName(action, typed), saved);
            QKFeedbackSendFlow reread;
            reread.loadSettings();
            QCOMPARE(reread.savedName(), saved);
        }
        QCOMPARE(hosted->userName(), saved);
        if (asked && action == QKFeedbackSendFlow::Back) {
            QVERIFY(!details.isBusy());
            QCOMPARE(details.rowCount(), 1);
            QCOMPARE(details.pendingComment(), QStringLiteral("Fixed in 2.1?"));
            return;
        }
        QVERIFY(sent.wait());
        QVERIFY(!details.isBusy());
        QCOMPARE(details.rowCount(), 2);
        QCOMPARE(details.comment(0)->text(), QStringLiteral("Fixed in 2.1?")); // the newest first
        QCOMPARE(details.comment(1)->text(), QStringLiteral("Older"));
        QCOMPARE(nameNeeded.size(), asked ? 1 : 0);
    }

    void failedCommentStaysBusy_data()
    {
        QTest::addColumn<bool>("fails");
        QTest::addColumn<bool>("released"); // the screen went before the answer
        QTest::newRow("failed") << true << false;
        QTest::newRow("failed after the screen went") << true << true;
        QTest::newRow("sent after the screen went") << false << true;
    }
    void failedCommentStaysBusy()
    {
        QFETCH(bool, fails);
        QFETCH(bool, released);
        const QKFeedbackItemPtr shown = item(QStringLiteral("Gone"), picture());
        shown->setKey(fails ? QStringLiteral("deleted-meanwhile") : m_service.addThread(Device, shown->text()));
        const QKFeedbackDataSourcePtr hosted = source(QStringLiteral("hosted"));
        hosted->setUserName(QStringLiteral("Ada"));
        QPointer<QKFeedbackDetailsModel> details = new QKFeedbackDetailsModel;
        details->setItem(shown);
        details->setDataSource(hosted);
        details->reload();
        QSignalSpy failed(details.data(), &QKFeedbackDetailsModel::commentFailed);
        details->sendComment(QStringLiteral("Lost"));
        if (released)
            details->deleteWhenIdle();
        QVERIFY(details); // kept for the answer
        if (fails) {
            QTRY_COMPARE(failed.size(), 1);
            QCOMPARE(failed.first(),
                     (QVariantList{QStringLiteral("Network error"), QStringLiteral("Could not send data to server")}));
        }
        QTRY_COMPARE(details.isNull(), released);
        QCOMPARE(failed.size(), fails ? 1 : 0);
        QVERIFY(shown->subItems()->isEmpty()); // nothing added once the screen went
        if (!released) {
            QVERIFY(details->isBusy());
            delete details;
        }
    }

    // A is at (100, 100), B at (120, 100): their grown boxes overlap in x 104..116.
    void hitTest_data()
    {
        QTest::addColumn<QPointF>("item");
        QTest::addColumn<int>("expected"); // row; -1 for a new marker
        QTest::newRow("overlap picks the newer") << QPointF(110, 100) << 1;
        QTest::newRow("older alone") << QPointF(90, 100) << 0;
        QTest::newRow("under 1 outside the box") << QPointF(84.5, 100) << 0;
        QTest::newRow("minimum x edge") << QPointF(84, 100) << 0;
        QTest::newRow("minimum y edge") << QPointF(90, 84) << 0;
        QTest::newRow("just inside maximum x and y") << QPointF(135.75, 115.75) << 1;
        QTest::newRow("maximum x edge") << QPointF(136, 100) << -1;
        QTest::newRow("maximum y edge") << QPointF(130, 116) << -1;
    }
    void hitTest()
    {
        QFETCH(QPointF, item);
        QFETCH(int, expected);
        QKAnnotationModel model;
        const QList<QKFeedbackPointPtr> ab{model.feedbackAtPoint(QPointF(100, 100)),
                                           model.feedbackAtPoint(QPointF(120, 100))};
        QCOMPARE(ab[1]->bounds(), QRectF(105, 85, 30, 30));
        QSignalSpy changed(&model, &QKAnnotationModel::pointsChanged);
        QCOMPARE(model.indexAt(item), expected);
        const QKFeedbackPointPtr found = model.feedbackAtPoint(item);
        if (expected >= 0) {
            QCOMPARE(found, ab[expected]);
            QCOMPARE(model.points(), ab);
        } else {
            QCOMPARE(model.points(), ab + QList<QKFeedbackPointPtr>{found});
            QCOMPARE(found->location(), item);
            QCOMPARE(found->size(), QSizeF(30, 30));
            QVERIFY(found->annotationText().isNull());
        }
        QCOMPARE(changed.size(), expected >= 0 ? 0 : 1);
        QVERIFY(!model.removePoint(QKFeedbackPointPtr::create(item))); // by identity only
        QCOMPARE(changed.size(), expected >= 0 ? 0 : 1);
    }

    void commentsAreKeptOnlyWithText_data()
    {
        QTest::addColumn<QString>("before"); // null: the edit starts on empty picture
        QTest::addColumn<QString>("typed");
        QTest::addColumn<Close>("close");
        QTest::addColumn<bool>("another");
        QTest::addColumn<QString>("after"); // null: the marker is gone
        const QString a = QStringLiteral("A"), b = QStringLiteral("B"), blanks = QStringLiteral(" \t\u00A0");
        QTest::newRow("new, done with text") << QString() << b << Done << false << b;
        QTest::newRow("new, done with blanks") << QString() << blanks << Done << false << QString();
        QTest::newRow("new, done with blanks, another remains") << QString() << blanks << Done << true << QString();
        QTest::newRow("new, tap elsewhere") << QString() << b << TapElsewhere << false << QString();
        QTest::newRow("new, focus lost") << QString() << b << FocusLost << true << QString();
        QTest::newRow("A to B, done") << a << b << Done << false << b;
        QTest::newRow("A to B, tap elsewhere") << a << b << TapElsewhere << false << a;
        QTest::newRow("A to B, focus lost") << a << b << FocusLost << true << a;
        QTest::newRow("A to blanks, done") << a << blanks << Done << false << QString();
    }
    void commentsAreKeptOnlyWithText()
    {
        QFETCH(QString, before);
        QFETCH(QString, typed);
        QFETCH(Close, close);
        QFETCH(bool, another);
        QFETCH(QString, after);
        QKAnnotationModel model;
        const QKFeedbackPointPtr other =
            another ? addMarker(model, QPointF(300, 700), QStringLiteral("Keep")) : nullptr;
        const QKFeedbackPointPtr existing = before.isNull() ? nullptr : addMarker(model, QPointF(120, 300), before);
        QCOMPARE(model.canSend(), another || existing);

        const int row = existing ? int(model.points().indexOf(existing)) : int(model.points().size());
        QCOMPARE(model.beginEditing(QPointF(128, 294)), row); // inside the existing marker's box
        const QKFeedbackPointPtr point = model.currentPoint();
        QVERIFY(model.isEditing() && point);
        QVERIFY(existing ? point == existing : point->location() == QPointF(128, 294));
        QCOMPARE(model.originalText(), before);
        if (close == Done) {
            model.finishEditing(typed);
        } else if (close == TapElsewhere) {
            point->setAnnotationText(typed); // as a front end that writes while the user types
            model.cancelEditing();
        } else {
            model.endEditing();
        }
        QVERIFY(!model.isEditing() && !model.currentPoint());
        QList<QKFeedbackPointPtr> remaining;
        if (another)
            remaining.append(other);
        if (!after.isNull())
            remaining.append(point);
        QCOMPARE(model.points(), remaining);
        if (!after.isNull())
            QCOMPARE(point->annotationText(), after);
        QCOMPARE(model.canSend(), !remaining.isEmpty());
    }

    void itemsCarryTheirOwnMarker()
    {
        QImage screenshot(1179, 2556, QImage::Format_ARGB32_Premultiplied);
        screenshot.setDevicePixelRatio(3);
        screenshot.fill(QColor(238, 242, 250));
        {
            QPainter painter(&screenshot);
            for (int i = 0; i < 8; ++i)
                painter.fillRect(QRectF(20, 120 + i * 85, 353, 65), i % 2 ? Qt::white : QColor(255, 214, 160));
        }
        QKAnnotationModel model;
        model.setImageSize(screenshot.deviceIndependentSize());
        QVERIFY(model.feedbackItems(screenshot).isEmpty());
        const QStringList texts{QStringLiteral("Header is cut off"), QStringLiteral("Wrong colour")};
        addMarker(model, QPointF(100, 160), texts[0]);
        addMarker(model, QPointF(280, 520), texts[1]);
        const QDateTime before = QDateTime::currentDateTimeUtc();
        const QKFeedbackItemList items = model.feedbackItems(screenshot);
        QCOMPARE(items.size(), 2);
        for (int i = 0; i < 2; ++i) {
            QCOMPARE(items[i]->text(), texts[i]);
            QCOMPARE(items[i]->state(), QStringLiteral("Open"));
            QVERIFY(items[i]->createdAt() >= before && items[i]->createdAt() <= QDateTime::currentDateTimeUtc());
            // Exactly the whole picture with only its own marker, however the item keeps it.
            QImage whole(screenshot.size(), QImage::Format_ARGB32_Premultiplied);
            whole.setDevicePixelRatio(3.0);
            whole.fill(Qt::transparent);
            {
                QPainter painter(&whole);
                painter.drawImage(QRectF(0, 0, 393, 852), screenshot);
                model.pointAt(i)->drawAt(painter, model.pointAt(i)->location());
            }
            const QImage image = items[i]->image().convertToFormat(QImage::Format_ARGB32);
            QCOMPARE(image.devicePixelRatio(), 3.0);
            QCOMPARE(image, whole.convertToFormat(QImage::Format_ARGB32));
            QImage decoded = QImage::fromData(items[i]->imagePNG()).convertToFormat(QImage::Format_ARGB32);
            decoded.setDevicePixelRatio(3.0);
            QCOMPARE(decoded, image);
            const QPoint own = (model.pointAt(i)->location() * 3).toPoint();
            QCOMPARE(image.pixel(own), qRgba(255, 255, 255, 255));
            QCOMPARE(image.pixel(own + QPoint(0, 33)), qRgba(255, 0, 0, 255));
        }
    }

    void sendFlow_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("alert");
        QTest::addColumn<QString>("message"); // null: no alert
        QTest::newRow("no name: asked first") << "local"
                                              << "" << true << QString();
        QTest::newRow("sent") << "local"
                              << "Ada" << true << "Your feedback was sent";
        QTest::newRow("sent, alert off") << "local"
                                         << "Ada" << false << QString();
        QTest::newRow("refused") << "unknown"
                                 << "Ada" << true << TestService::message(QKServiceRefusal::UnknownApplication);
        QTest::newRow("refused, alert off") << "unknown"
                                            << "Ada" << false << QString();
    }
    void sendFlow()
    {
        QFETCH(QString, kind);
        QFETCH(QString, name);
        QFETCH(bool, alert);
        QFETCH(QString, message);
        QKFeedbackSendFlow flow;
        QVERIFY(flow.needsName());
        flow.feedbackSettings()->setShowFeedbackSentAlert(alert);
        flow.feedbackSettings()->setFeedbackSentAlertTitle(QStringLiteral("Sent?"));
        const QKFeedbackDataSourcePtr target = source(kind);
        flow.setDataSource(target);
        QCOMPARE(target->userName(), QStringLiteral("")); // the saved name, none yet
        target->setUserName(name);
        flow.setFeedbackItems({item(QStringLiteral("Broken"), picture())});
        QSignalSpy nameNeeded(&flow, &QKFeedbackSendFlow::nameNeeded);
        QSignalSpy busy(&flow, &QKFeedbackSendFlow::busyChanged);
        QSignalSpy alerts(&flow, &QKFeedbackSendFlow::alertRequested);
        QSignalSpy sent(&flow, &QKFeedbackSendFlow::sent);
        QSignalSpy failed(&flow, &QKFeedbackSendFlow::sendFailed);
        flow.send();
        if (name.isEmpty()) {
            QCOMPARE(nameNeeded.size(), 1);
            QVERIFY(flow.showsNameButtons() && busy.isEmpty());
            return;
        }
        QVERIFY(flow.isBusy());
        QTRY_COMPARE(sent.size() + failed.size(), 1);
        QCOMPARE(busy, (QList<QVariantList>{{true}, {false}}));
        QCOMPARE(failed.size(), kind == QLatin1String("unknown") ? 1 : 0);
        // The switch silences failures as well as successes.
        const QList<QVariantList> expected =
            message.isNull() ? QList<QVariantList>() : QList<QVariantList>{{QStringLiteral("Sent?"), message}};
        QCOMPARE(alerts, expected);
        QCOMPARE(nameNeeded.size(), 0);
    }

    void chooseName_data()
    {
        QTest::addColumn<QString>("action"); // as the name screen's delegate hears it
        QTest::addColumn<QKFeedbackSendFlow::NameAction>("typedAction");
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("saved");
        QTest::newRow("continue") << "SendWithName" << QKFeedbackSendFlow::SendWithName << "  Bo \t"
                                  << "Bo";
        QTest::newRow("anonymous") << "SendAnonymous" << QKFeedbackSendFlow::SendAnonymous << "Bo"
                                   << "Anonymous";
        QTest::newRow("back, blanks saved as empty") << "" << QKFeedbackSendFlow::Back << "   "
                                                     << "";
        QTest::newRow("any other action sends") << "Go" << QKFeedbackSendFlow::SendWithName << "Cy"
                                                << "Cy";
    }
    void chooseName()
    {
        QFETCH(QString, action);
        QFETCH(QKFeedbackSendFlow::NameAction, typedAction);
        QFETCH(QString, typed);
        QFETCH(QString, saved);
        QCOMPARE(QKFeedbackSendFlow::nameAction(action), typedAction);
        if (action != QLatin1String("Go"))
            QCOMPARE(QKFeedbackSendFlow::nameActionString(typedAction), action);
        QKFeedbackSendFlow flow;
        flow.setDataSource(source(QStringLiteral("local")));
        QSignalSpy sent(&flow, &QKFeedbackSendFlow::sent);
        QSignalSpy nameNeeded(&flow, &QKFeedbackSendFlow::nameNeeded);
        QCOMPARE(flow.chooseName(typedAction, typed), saved);
        QCOMPARE(flow.dataSource()->userName(), saved);
        const bool sends = typedAction != QKFeedbackSendFlow::Back;
        QCOMPARE(flow.isBusy(), sends);
        QTRY_COMPARE(sent.size(), sends ? 1 : 0);
        QVERIFY(nameNeeded.isEmpty());

        // Saved for the next run, which hands it to the next source.
        QKFeedbackSendFlow next;
        next.loadSettings();
        auto later = QSharedPointer<QKLocalFeedbackSource>::create();
        next.setDataSource(later);
        QCOMPARE(later->userName(), saved);
        QCOMPARE(next.needsName(), saved.isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestModels)
#include "tst_qkmodels.moc"
