// "Your feedback" end to end: paging through murmora-server over real TLS, the pull,
// filters, opening an item with its screenshot and comments, the local source, errors,
// and pictures of the list and the details for a person to look at.

#include "base/QKDispatch.h"
#include "base/QKDocumentsDirectory.h"
#include "base/QKPNGCodec.h"
#include "core/QKFeedback.h"
#include "data/QKLocalFeedbackSource.h"
#include "data/QKPlatformFeedbackSource.h"
#include "kit/QKActionSheet.h"
#include "kit/QKAlertView.h"
#include "kit/QKAnimation.h"
#include "kit/QKLabel.h"
#include "kit/QKNavigationController.h"
#include "kit/QKRefreshControl.h"
#include "kit/QKSegmentedControl.h"
#include "kit/QKTableView.h"
#include "kit/QKWindow.h"
#include "screens/QKFeedbackItemDetailsViewController.h"
#include "screens/QKFeedbackYourItemsViewController.h"
#include "support/ScreenDriver.h"
#include "support/TestService.h"

#include <QApplication>
#include <QPainter>
#include <QTemporaryDir>
#include <QtTest>

using namespace ScreenDriver;

namespace {

const QString Device = QStringLiteral("device-1");

QByteArray screenshot(const QColor &colour)
{
    QImage image(120, 260, QImage::Format_RGB32);
    image.fill(colour);
    QPainter painter(&image);
    painter.fillRect(0, 0, 120, 30, QColor(52, 120, 246));
    painter.end();
    return QKPNGCodec::encode(image);
}

// Counts the comment listings handed back to the main thread; the screen's own
// main-queue block was posted first, so it has run by the time the count moves.
class CountingSource : public QKPlatformFeedbackSource
{
public:
    using QKPlatformFeedbackSource::QKPlatformFeedbackSource;
    int commentsDelivered = 0;

    void subItemsForKey(const QString &key, ItemsCompletion done) override
    {
        QKPlatformFeedbackSource::subItemsForKey(key, [self = QPointer(this), done](auto items, auto error) {
            done(items, error);
            QKDispatch::async(QKDispatch::mainQueue(), [self] {
                if (self)
                    ++self->commentsDelivered;
            });
        });
    }
};

QStringList texts(const QKFeedbackItemList &items)
{
    QStringList out;
    for (const auto &item : items)
        out.append(item->text());
    return out;
}

} // namespace

class TestYourItems : public QObject
{
    Q_OBJECT

    QTemporaryDir m_documents;
    QKWindow *m_window = nullptr;
    TestService m_service;
    FakeService m_fake;
    QString m_newestId;

    QSharedPointer<CountingSource> platformSource()
    {
        auto session = QSharedPointer<QKURLSession>::create();
        session->addCaCertificates(FakeService::caCertificates());
        auto source =
            QSharedPointer<CountingSource>::create(m_service.apiKey(), Device, m_service.baseUrl(), QVariantMap());
        source->setSession(session);
        return source;
    }

    QStringList skips()
    {
        QStringList out;
        for (const RecordedRequest &request : m_service.requests())
            if (request.method == "GET" && request.target.endsWith("/threads"))
                out.append(QString::fromLatin1(request.header("x-skip-meta")));
        return out;
    }

    // Opens "Your feedback" from the menu, as a person would.
    QKFeedbackYourItemsViewController *openList()
    {
        QKFeedback::showFeedback();
        if (QKActionSheet::visibleSheets().size() != 1)
            return nullptr;
        QPointer<QKActionSheet> sheet = QKActionSheet::visibleSheets().first();
        tapWindow(m_window, sheet->rectForButtonAtIndex(1).center());
        const auto shown = [] { return topScreen<QKFeedbackYourItemsViewController>(); };
        return QTest::qWaitFor([&] { return shown() != nullptr; }) ? shown() : nullptr;
    }

    void scrollToBottom(QKTableView *table)
    {
        table->setContentOffset(QPointF(0, qMax(0.0, table->contentSize().height() - table->bounds().height())));
        table->layoutIfNeeded();
    }

    void tapSegment(QKSegmentedControl *control, int index)
    {
        const QRectF frame = control->frame();
        const QPointF local(frame.width() * (index + 0.5) / control->numberOfSegments(), frame.height() / 2);
        tapWindow(m_window, control->convertPointToView(local, nullptr));
    }

    void closeAll()
    {
        if (QKFeedbackYourItemsViewController *list = topScreen<QKFeedbackYourItemsViewController>())
            list->backTouched();
        QTRY_VERIFY(!QKFeedback::feedbackIsShown());
    }

    void save(const QString &name) { ScreenDriver::save(m_window, QStringLiteral(MURMORA_TEST_OUTPUT), name); }

private slots:
    void initTestCase()
    {
        QKSetDocumentsDirectory(m_documents.path());
        QKAnimation::setAnimationsEnabled(false);
        QVERIFY(m_service.start());
        QVERIFY(m_fake.listen());
        // Resolved ones first, so that the newest of all is an open one; another device's
        // items in between; a second apart, so the order is the service's, not chance.
        qint64 at = QDateTime::currentMSecsSinceEpoch() - 3600000;
        for (int i = 1; i <= 5; ++i)
            m_service.addThread(Device, QStringLiteral("Resolved %1").arg(i), QStringLiteral("Resolved"), at += 1000);
        for (int i = 1; i <= 3; ++i)
            m_service.addThread(QStringLiteral("device-2"), QStringLiteral("Not mine %1").arg(i));
        for (int i = 1; i <= 45; ++i)
            m_newestId = m_service.addThread(Device, QStringLiteral("Item %1").arg(i), QStringLiteral("Open"),
                                             at += 1000, screenshot(QColor::fromHsv(i * 7 % 360, 60, 240)));
        for (const char *text : {"Older comment", "Newer comment"})
            m_service.addComment(m_newestId, QString::fromLatin1(text), at += 1000);

        m_window = ScreenDriver::phoneWindow(new QKViewController);
        QVERIFY(QTest::qWaitForWindowActive(m_window));
    }
    void cleanupTestCase() { delete m_window; }
    void init()
    {
        m_service.clearRequests();
        m_fake.clearRequests();
    }

    void pagesThroughTheService()
    {
        const auto source = platformSource();
        QKFeedback::setDataSource(source);
        QKFeedbackYourItemsViewController *list = openList();
        QVERIFY(list);
        QTRY_VERIFY(!list->itemsTableView()->isHidden());
        QCOMPARE(list->feedbackItems().size(), 20);
        QCOMPARE(list->feedbackItems().first()->text(), QStringLiteral("Item 45")); // newest first
        QVERIFY(list->noFeedbackLabel()->isHidden());
        QCOMPARE(m_service.requests().first().header("x-filter-meta"),
                 QByteArray("{\"$and\":[{\"RootId\" : null}, {\"Uid\" : \"device-1\"}, {\"State\" : \"Open\"}]}"));
        save(QStringLiteral("tour-list"));

        // The last item row coming into view asks for the next page.
        scrollToBottom(list->itemsTableView());
        QTRY_COMPARE(list->feedbackItems().size(), 40);
        scrollToBottom(list->itemsTableView());
        QTRY_COMPARE(list->feedbackItems().size(), 45);
        QVERIFY(list->showIndicator());
        scrollToBottom(list->itemsTableView());
        QTRY_VERIFY(!list->showIndicator()); // an empty page ends the paging
        QCOMPARE(list->itemsTableView()->numberOfRowsInSection(0), 45);
        QCOMPARE(skips(), (QStringList{"0", "20", "40", "45"}));
        QVERIFY(texts(list->feedbackItems()).filter(QStringLiteral("Not mine")).isEmpty());
        QCOMPARE(texts(list->feedbackItems()).last(), QStringLiteral("Item 1"));

        // Filters start again from the first page.
        m_service.clearRequests();
        tapSegment(list->itemsFilter(), 1);
        QTRY_COMPARE(list->feedbackItems().size(), 5);
        QCOMPARE(m_service.requests().first().header("x-skip-meta"), QByteArray("0"));
        QVERIFY(m_service.requests().first().header("x-filter-meta").contains("{\"State\" : \"Resolved\"}"));
        // Its last row shows at once, so it asks for the next page; that ends before the next filter.
        QTRY_COMPARE(skips(), (QStringList{"0", "5"}));
        QTRY_VERIFY(!list->showIndicator());
        m_service.clearRequests();
        tapSegment(list->itemsFilter(), 2);
        QTRY_COMPARE(list->feedbackItems().size(), 20);
        QCOMPARE(m_service.requests().first().header("x-filter-meta"),
                 QByteArray("{\"$and\":[{\"RootId\" : null}, {\"Uid\" : \"device-1\"}]}"));

        // Opening the newest item fetches its screenshot and its comments.
        const QKFeedbackItemPtr item = list->feedbackItems().first();
        QCOMPARE(item->key(), m_newestId);
        QVERIFY(item->image().isNull());
        tapWindow(m_window, list->itemsTableView()->convertPointToView(
                                list->itemsTableView()->rectForRowAtIndexPath(QKIndexPath(0, 0)).center(), nullptr));
        QKFeedbackItemDetailsViewController *details = nullptr;
        QTRY_VERIFY((details = topScreen<QKFeedbackItemDetailsViewController>()));
        QTRY_VERIFY(!details->feedbackTableView()->isHidden());
        QCOMPARE(item->image().size(), QSize(120, 260));
        QTRY_COMPARE(item->subItems()->size(), 2);
        QCOMPARE(item->subItems()->first()->text(), QStringLiteral("Newer comment"));
        save(QStringLiteral("tour-details"));
        // Opening it again does not add its comments twice.
        shownNavigation()->popViewControllerAnimated(false);
        QTRY_VERIFY(topScreen<QKFeedbackYourItemsViewController>());
        QTRY_COMPARE(source->commentsDelivered, 1);
        list->didSelectRowAtIndexPath(list->itemsTableView(), QKIndexPath(0, 0));
        QTRY_COMPARE(source->commentsDelivered, 2);
        QCOMPARE(item->subItems()->size(), 2);
        shownNavigation()->popViewControllerAnimated(false);
        QTRY_VERIFY(topScreen<QKFeedbackYourItemsViewController>());
        closeAll();
    }

    void pullAppendsTheNextPage()
    {
        // A first page of 19, which no page size explains, then older items arrive at the
        // service: the pull must skip exactly the 19.
        const QString puller = QStringLiteral("puller");
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        for (int i = 0; i < 19; ++i)
            m_service.addThread(puller, QStringLiteral("New %1").arg(i), QStringLiteral("Open"), now - i);
        auto source = platformSource();
        source->setUID(puller);
        QKFeedback::setDataSource(source);
        QKFeedbackYourItemsViewController *list = openList();
        QVERIFY(list);
        QTRY_COMPARE(list->feedbackItems().size(), 19);
        for (int i = 0; i < 25; ++i)
            m_service.addThread(puller, QStringLiteral("Old %1").arg(i), QStringLiteral("Open"), now - 1000 - i);

        // Dragged down from near the table's top, well past the distance that starts a refresh.
        QSignalSpy pulled(list->refreshControl(), &QKRefreshControl::valueChanged);
        QKTableView *table = list->itemsTableView();
        const QPoint from = table->convertPointToView(QPointF(table->bounds().width() / 2, 40), nullptr).toPoint();
        QTest::mousePress(m_window->windowHandle(), Qt::LeftButton, {}, from);
        for (int y = 10; y <= 300; y += 10)
            QTest::mouseMove(m_window->windowHandle(), from + QPoint(0, y));
        QTRY_COMPARE(pulled.size(), 1);
        QTest::mouseRelease(m_window->windowHandle(), Qt::LeftButton, {}, from + QPoint(0, 300));
        QTRY_COMPARE(list->feedbackItems().size(), 39);
        QCOMPARE(skips(), (QStringList{"0", "19"}));
        QCOMPARE(list->feedbackItems().at(19)->text(), QStringLiteral("Old 0"));
        QTRY_VERIFY(!list->refreshControl()->isRefreshing());
        closeAll();
    }

    void firstPageError()
    {
        auto source = platformSource();
        source->setApiKey(QStringLiteral("unknown"));
        QKFeedback::setDataSource(source);
        QKFeedbackYourItemsViewController *list = openList();
        QVERIFY(list);
        QTRY_COMPARE(QKAlertView::visibleAlerts().size(), 1);
        QKAlertView *alert = QKAlertView::visibleAlerts().first();
        QCOMPARE(alert->title(), QStringLiteral("Wendax Platform"));
        QCOMPARE(alert->message(), TestService::message(QKServiceRefusal::UnknownApplication));
        QCOMPARE(alert->buttonTitles(), QStringList{QStringLiteral("Cancel")});
        QVERIFY(list->itemsTableView()->isHidden() && list->noFeedbackLabel()->isHidden());
        alert->dismissWithClickedButtonIndex(0, false);
        closeAll();
    }

    void emptyAndLoading()
    {
        // An answer that takes its time, which only the fake gives.
        auto source = platformSource();
        source->setBaseURL(m_fake.baseUrl());
        QKFeedback::setDataSource(source);
        FakeService::Answer slow;
        slow.delayMs = 400;
        slow.body = "[]";
        m_fake.answer("GET", QStringLiteral("threads"), slow, 1);
        QKFeedbackYourItemsViewController *list = openList();
        QVERIFY(list);
        QVERIFY(list->itemsTableView()->isHidden());
        save(QStringLiteral("tour-list-loading"));
        QTRY_VERIFY(!list->noFeedbackLabel()->isHidden());
        QVERIFY(list->itemsTableView()->isHidden());
        QCOMPARE(list->noFeedbackLabel()->text(),
                 QStringLiteral("There are currently no items in this category. Try sending us feedback via the "
                                "'Send feedback' button."));
        // The message is centred over the table area.
        QCOMPARE(list->noFeedbackLabel()->center(), list->itemsTableView()->center());
        save(QStringLiteral("tour-list-empty"));
        closeAll();
    }

    void localSource()
    {
        auto source = QSharedPointer<QKLocalFeedbackSource>::create();
        QImage picture(60, 120, QImage::Format_RGB32);
        picture.fill(Qt::darkCyan);
        for (int i = 1; i <= 3; ++i) {
            auto item = QKFeedbackItem::create();
            item->setText(QStringLiteral("Local %1").arg(i));
            item->setState(QStringLiteral("Open"));
            item->setImage(picture);
            source->addFeedback(item, [](auto) {});
        }
        QKFeedback::setDataSource(source);
        QKFeedbackYourItemsViewController *list = openList();
        QVERIFY(list);
        QTRY_VERIFY(!list->showIndicator()); // the first next-page request turns it off
        // A source that ignores the skip count repeats its items on a further load.
        QCOMPARE(list->feedbackItems().size(), 6);
        QCOMPARE(list->itemsTableView()->numberOfRowsInSection(0), 6);
        tapWindow(m_window, list->itemsTableView()->convertPointToView(
                                list->itemsTableView()->rectForRowAtIndexPath(QKIndexPath(0, 0)).center(), nullptr));
        QKFeedbackItemDetailsViewController *details = nullptr;
        QTRY_VERIFY((details = topScreen<QKFeedbackItemDetailsViewController>()));
        QTRY_VERIFY(!details->feedbackTableView()->isHidden()); // the image was there at once
        shownNavigation()->popViewControllerAnimated(false);
        QTRY_VERIFY(topScreen<QKFeedbackYourItemsViewController>());
        closeAll();
    }
};

int main(int argc, char **argv)
{
    qputenv("QT_SCALE_FACTOR", "3");
    QApplication app(argc, argv);
    TestYourItems test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_qkfeedbackyouritemsviewcontroller.moc"
