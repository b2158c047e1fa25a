// "Your feedback" driven as a person would against murmora-server over real TLS:
// scrolling and pulling for more, the filter, opening an item, the empty, loading and
// failed states, and pictures for a person to look at. Paging and its rules are the
// list model's (tests/models); here the views follow it and taps reach it.

#include "base/QKDocumentsDirectory.h"
#include "base/QKPNGCodec.h"
#include "data/QKPlatformFeedbackSource.h"
#include "kit/QKActionSheet.h"
#include "kit/QKAlertView.h"
#include "kit/QKAnimation.h"
#include "kit/QKLabel.h"
#include "kit/QKRefreshControl.h"
#include "kit/QKSegmentedControl.h"
#include "kit/QKTableView.h"
#include "screens/QKFeedbackItemDetailsViewController.h"
#include "screens/QKFeedbackYourItemsViewController.h"
#include "support/ScreenDriver.h"
#include "support/TestService.h"

#include <QApplication>
#include <QTemporaryDir>
#include <QtTest>

using namespace ScreenDriver;

class TestYourItems : public QObject
{
    Q_OBJECT

    QTemporaryDir m_documents;
    QKWindow *m_window = nullptr;
    TestService m_service;
    FakeService m_fake;

    QSharedPointer<QKPlatformFeedbackSource> source(const QString &key, const QString &base)
    {
        auto session = QSharedPointer<QKURLSession>::create();
        session->addCaCertificates(FakeService::caCertificates());
        auto made =
            QSharedPointer<QKPlatformFeedbackSource>::create(key, QStringLiteral("device-1"), base, QVariantMap());
        made->setSession(session);
        return made;
    }

    // Opens "Your feedback" from the menu over `source`, as a person would.
    QKFeedbackYourItemsViewController *openList(const QKFeedbackDataSourcePtr &source)
    {
        QKFeedback::setDataSource(source);
        QKFeedback::showFeedback();
        if (QKActionSheet::visibleSheets().size() != 1)
            return nullptr;
        tapWindow(m_window, QKActionSheet::visibleSheets().first()->rectForButtonAtIndex(1).center());
        const auto shown = [] { return topScreen<QKFeedbackYourItemsViewController>(); };
        return QTest::qWaitFor([&] { return shown() != nullptr; }) ? shown() : nullptr;
    }

    void closeAll()
    {
        for (QKAlertView *alert : QKAlertView::visibleAlerts())
            alert->dismissWithClickedButtonIndex(0, false);
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
        qint64 at = QDateTime::currentMSecsSinceEpoch() - 3600000;
        QImage shot(120, 260, QImage::Format_RGB32);
        for (int i = 1; i <= 3; ++i)
            m_service.addThread(QStringLiteral("device-1"), QStringLiteral("Resolved %1").arg(i),
                                QStringLiteral("Resolved"), at += 1000);
        for (int i = 1; i <= 25; ++i) {
            shot.fill(QColor::fromHsv(i * 7 % 360, 60, 240));
            const QString id = m_service.addThread(QStringLiteral("device-1"), QStringLiteral("Item %1").arg(i),
                                                   QStringLiteral("Open"), at += 1000, QKPNGCodec::encode(shot));
            if (i == 25)
                m_service.addComment(id, QStringLiteral("Seen it too"), at += 1000);
        }
        m_window = ScreenDriver::phoneWindow(new QKViewController);
        QVERIFY(QTest::qWaitForWindowActive(m_window));
    }
    void cleanupTestCase() { delete m_window; }

    void scrollFilterAndOpen()
    {
        QKFeedbackYourItemsViewController *list = openList(source(m_service.apiKey(), m_service.baseUrl()));
        QVERIFY(list);
        QKTableView *table = list->itemsTableView();
        QTRY_VERIFY(!table->isHidden());
        QVERIFY(list->noFeedbackLabel()->isHidden() && !list->activityIndicator()->isAnimating());
        QCOMPARE(table->numberOfRowsInSection(0), 21); // a page and the loading row, which takes no height
        QCOMPARE(table->rectForRowAtIndexPath(QKIndexPath(0, 20)).height(), 0.0);
        save(QStringLiteral("tour-list"));

        // The last item's row coming into view asks for more, until a page brings nothing.
        const auto scrollToBottom = [table] {
            table->setContentOffset(QPointF(0, qMax(0.0, table->contentSize().height() - table->bounds().height())));
            table->layoutIfNeeded();
        };
        scrollToBottom();
        QTRY_COMPARE(list->feedbackItems().size(), 25);
        scrollToBottom();
        QTRY_VERIFY(!list->showIndicator());
        QCOMPARE(table->numberOfRowsInSection(0), 25);

        // A segment's tap filters afresh.
        const auto tapSegment = [&](int index) {
            QKSegmentedControl *control = list->itemsFilter();
            const QRectF frame = control->frame();
            tapWindow(m_window, control->convertPointToView(
                                    QPointF(frame.width() * (index + 0.5) / 3, frame.height() / 2), nullptr));
        };
        tapSegment(1);
        QTRY_COMPARE(list->feedbackItems().size(), 3);
        QCOMPARE(list->model()->filter(), QKFeedbackListModel::Resolved);
        tapSegment(0);
        QTRY_COMPARE(list->feedbackItems().size(), 20);

        // A tap on the newest pushes its details, which show once its screenshot is in.
        tapWindow(m_window,
                  table->convertPointToView(table->rectForRowAtIndexPath(QKIndexPath(0, 0)).center(), nullptr));
        QKFeedbackItemDetailsViewController *details = nullptr;
        QTRY_VERIFY((details = topScreen<QKFeedbackItemDetailsViewController>()));
        QCOMPARE(details->feedbackItem(), list->feedbackItems().first());
        QTRY_VERIFY(!details->feedbackTableView()->isHidden());
        QTRY_COMPARE(details->feedbackTableView()->numberOfRowsInSection(1), 1);
        save(QStringLiteral("tour-details"));
        shownNavigation()->popViewControllerAnimated(false);
        closeAll();
    }

    void pullAppendsTheNextPage()
    {
        QKFeedbackYourItemsViewController *list = openList(source(m_service.apiKey(), m_service.baseUrl()));
        QVERIFY(list);
        QTRY_COMPARE(list->feedbackItems().size(), 20);
        // Dragged down from near the table's top, well past the distance that starts a refresh.
        QSignalSpy pulled(list->refreshControl(), &QKRefreshControl::valueChanged);
        QKTableView *table = list->itemsTableView();
        const QPoint from = table->convertPointToView(QPointF(table->bounds().width() / 2, 40), nullptr).toPoint();
        QTest::mousePress(m_window->windowHandle(), Qt::LeftButton, {}, from);
        for (int y = 10; y <= 300; y += 10)
            QTest::mouseMove(m_window->windowHandle(), from + QPoint(0, y));
        QTRY_COMPARE(pulled.size(), 1);
        QTest::mouseRelease(m_window->windowHandle(), Qt::LeftButton, {}, from + QPoint(0, 300));
        QTRY_COMPARE(list->feedbackItems().size(), 25); // appended, not reloaded
        QCOMPARE(list->feedbackItems().at(20)->text(), QStringLiteral("Item 5"));
        QTRY_VERIFY(!list->refreshControl()->isRefreshing());
        closeAll();
    }

    void firstPageError()
    {
        QKFeedbackYourItemsViewController *list = openList(source(QStringLiteral("unknown"), m_service.baseUrl()));
        QVERIFY(list);
        QTRY_COMPARE(QKAlertView::visibleAlerts().size(), 1);
        QKAlertView *alert = QKAlertView::visibleAlerts().first();
        QCOMPARE(alert->title(), QStringLiteral("Wendax Platform"));
        QCOMPARE(alert->message(), TestService::message(QKServiceRefusal::UnknownApplication));
        QCOMPARE(alert->buttonTitles(), QStringList{QStringLiteral("Cancel")});
        QVERIFY(list->itemsTableView()->isHidden() && list->noFeedbackLabel()->isHidden());
        QVERIFY(!list->activityIndicator()->isAnimating());
        closeAll();
    }

    void emptyAndLoading()
    {
        // An answer that takes its time, which only the fake gives.
        FakeService::Answer slow;
        slow.delayMs = 400;
        slow.body = "[]";
        m_fake.answer("GET", QStringLiteral("threads"), slow, 1);
        QKFeedbackYourItemsViewController *list = openList(source(QStringLiteral("APP"), m_fake.baseUrl()));
        QVERIFY(list);
        QVERIFY(list->itemsTableView()->isHidden() && list->activityIndicator()->isAnimating());
        QCOMPARE(list->activityIndicator()->center(), list->itemsTableView()->center());
        save(QStringLiteral("tour-list-loading"));
        QTRY_VERIFY(!list->noFeedbackLabel()->isHidden());
        QVERIFY(list->itemsTableView()->isHidden());
        QCOMPARE(list->noFeedbackLabel()->text(),
                 QStringLiteral("There are currently no items in this category. Try sending us feedback via the "
                                "'Send feedback' button."));
        // The message wraps within 30 points of each side, centred over the table area.
        QCOMPARE(list->noFeedbackLabel()->center(), list->itemsTableView()->center());
        QVERIFY(list->noFeedbackLabel()->bounds().width() <= 393 - 60);
        save(QStringLiteral("tour-list-empty"));
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
