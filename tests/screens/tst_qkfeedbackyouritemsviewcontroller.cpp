// "Your feedback" end to end: paging through the fake service over real TLS, filters,
// opening an item with its screenshot and comments, the local source, errors, and
// pictures of the list and the details for a person to look at.

#include "base/QKBase64.h"
#include "base/QKDocumentsDirectory.h"
#include "base/QKPNGCodec.h"
#include "core/QKFeedback.h"
#include "data/QKLocalFeedbackSource.h"
#include "data/QKPlatformFeedbackSource.h"
#include "kit/QKActionSheet.h"
#include "kit/QKAlertView.h"
#include "kit/QKAnimation.h"
#include "kit/QKLabel.h"
#include "kit/QKNavigationBar.h"
#include "kit/QKNavigationController.h"
#include "kit/QKSegmentedControl.h"
#include "kit/QKTableView.h"
#include "kit/QKWindow.h"
#include "screens/QKFeedbackItemDetailsViewController.h"
#include "screens/QKFeedbackYourItemsViewController.h"
#include "support/FakeService.h"
#include "support/ScreenDriver.h"

#include <QApplication>
#include <QJsonArray>
#include <QPainter>
#include <QTemporaryDir>
#include <QtTest>

using namespace ScreenDriver;

namespace {

const QString Key = QStringLiteral("APP");
const QString Device = QStringLiteral("device-1");

QString screenshotBase64(const QColor &colour)
{
    QImage image(120, 260, QImage::Format_RGB32);
    image.fill(colour);
    QPainter painter(&image);
    painter.fillRect(0, 0, 120, 30, QColor(52, 120, 246));
    painter.end();
    return QKBase64::encodeWithLineBreaks(QKPNGCodec::encode(image));
}

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
    FakeService m_service;
    QString m_newestId;

    QSharedPointer<QKPlatformFeedbackSource> platformSource()
    {
        auto session = QSharedPointer<QKURLSession>::create();
        session->addCaCertificates(FakeService::caCertificates());
        auto source = QSharedPointer<QKPlatformFeedbackSource>::create(Key, Device, m_service.baseUrl(), QVariantMap());
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
        for (int i = 0; i < 200 && !topScreen<QKFeedbackYourItemsViewController>(); ++i)
            QTest::qWait(10);
        return topScreen<QKFeedbackYourItemsViewController>();
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
        QVERIFY(m_service.listen());
        // Resolved ones first, so that the newest of all is an open one; another device's
        // items in between.
        for (int i = 1; i <= 5; ++i)
            m_service.addThread(
                Key, {{"Uid", Device}, {"Text", QStringLiteral("Resolved %1").arg(i)}, {"State", "Resolved"}});
        for (int i = 1; i <= 3; ++i)
            m_service.addThread(
                Key, {{"Uid", "device-2"}, {"Text", QStringLiteral("Not mine %1").arg(i)}, {"State", "Open"}});
        for (int i = 1; i <= 45; ++i) {
            const QJsonObject image{{"Filename", "nimbrel.png"},
                                    {"ContentType", "image/png"},
                                    {"base64", screenshotBase64(QColor::fromHsv(i * 7 % 360, 60, 240))}};
            const QJsonObject thread = m_service.addThread(
                Key,
                {{"Uid", Device}, {"Text", QStringLiteral("Item %1").arg(i)}, {"State", "Open"}, {"Image", image}});
            m_newestId = thread.value(QStringLiteral("Id")).toString();
        }
        for (const char *text : {"Older comment", "Newer comment"})
            m_service.addThread(Key, {{"Uid", Device}, {"RootId", m_newestId}, {"Text", text}, {"Author", "Support"}});

        m_window = ScreenDriver::phoneWindow(new QKViewController);
        QVERIFY(QTest::qWaitForWindowActive(m_window));
    }
    void cleanupTestCase() { delete m_window; }
    void init() { m_service.clearRequests(); }

    void pagesThroughTheService()
    {
        QKFeedback::setDataSource(platformSource());
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
        m_service.clearRequests();
        tapSegment(list->itemsFilter(), 2);
        QTRY_COMPARE(list->feedbackItems().size(), 20);
        QCOMPARE(m_service.requests().first().header("x-filter-meta"),
                 QByteArray("{\"$and\":[{\"RootId\" : null}, {\"Uid\" : \"device-1\"}]}"));

        // Opening the newest item fetches its screenshot and its comments.
        const QKFeedbackItemPtr item = list->feedbackItems().first();
        QCOMPARE(item->key(), m_newestId);
        QVERIFY(item->image().isNull());
        // A slow screenshot shows the loading state first.
        FakeService::Answer slowImage;
        slowImage.delayMs = 300;
        slowImage.contentType = "image/png";
        slowImage.body = m_service.storedImage(item->params().value(QStringLiteral("ImageUri")).toString());
        m_service.answer("GET", QStringLiteral("/files/"), slowImage, 1);
        tapWindow(m_window, list->itemsTableView()->convertPointToView(
                                list->itemsTableView()->rectForRowAtIndexPath(QKIndexPath(0, 0)).center(), nullptr));
        QKFeedbackItemDetailsViewController *details = nullptr;
        QTRY_VERIFY((details = topScreen<QKFeedbackItemDetailsViewController>()));
        QVERIFY(details->feedbackTableView()->isHidden());
        save(QStringLiteral("tour-details-loading"));
        QTRY_VERIFY(!details->feedbackTableView()->isHidden());
        QCOMPARE(item->image().size(), QSize(120, 260));
        QTRY_COMPARE(item->subItems()->size(), 2);
        QCOMPARE(item->subItems()->first()->text(), QStringLiteral("Newer comment"));
        save(QStringLiteral("tour-details"));
        // Opening it again does not add its comments twice.
        shownNavigation()->popViewControllerAnimated(false);
        QTRY_VERIFY(topScreen<QKFeedbackYourItemsViewController>());
        list->didSelectRowAtIndexPath(list->itemsTableView(), QKIndexPath(0, 0));
        QTRY_VERIFY((details = topScreen<QKFeedbackItemDetailsViewController>()));
        QTest::qWait(100);
        QCOMPARE(item->subItems()->size(), 2);
        shownNavigation()->popViewControllerAnimated(false);
        QTRY_VERIFY(topScreen<QKFeedbackYourItemsViewController>());
        closeAll();
    }

    void firstPageError()
    {
        QKFeedback::setDataSource(platformSource());
        m_service.answerServiceError("GET", QStringLiteral("threads"), 107, QStringLiteral("Invalid key"), 200);
        QKFeedbackYourItemsViewController *list = openList();
        QVERIFY(list);
        QTRY_COMPARE(QKAlertView::visibleAlerts().size(), 1);
        QKAlertView *alert = QKAlertView::visibleAlerts().first();
        QCOMPARE(alert->title(), QStringLiteral("Wendax Platform"));
        QCOMPARE(alert->message(), QStringLiteral("Invalid key"));
        QCOMPARE(alert->buttonTitles(), QStringList{QStringLiteral("Cancel")});
        QVERIFY(list->itemsTableView()->isHidden() && list->noFeedbackLabel()->isHidden());
        alert->dismissWithClickedButtonIndex(0, false);
        m_service.clearAnswers();
        closeAll();
    }

    void emptyAndLoading()
    {
        auto source = platformSource();
        source->setUID(QStringLiteral("nobody"));
        QKFeedback::setDataSource(source);
        FakeService::Answer slow;
        slow.delayMs = 400;
        slow.body = "[]";
        m_service.answer("GET", QStringLiteral("threads"), slow, 1);
        QKFeedbackYourItemsViewController *list = openList();
        QVERIFY(list);
        QVERIFY(list->itemsTableView()->isHidden());
        save(QStringLiteral("tour-list-loading"));
        QTRY_VERIFY(!list->noFeedbackLabel()->isHidden());
        QVERIFY(list->itemsTableView()->isHidden());
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
        QVERIFY(!source->implements(QKFeedbackDataSource::Operation::AddSubItemForKey));
        QVERIFY(!source->implements(QKFeedbackDataSource::Operation::ImageForKey));
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
