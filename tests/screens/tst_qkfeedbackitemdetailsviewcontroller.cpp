// The item details screen on a phone-size window, as the list screen shows it and as a
// person uses it: its layout while loading, the item with its screenshot and comments,
// a comment sent to murmora-server, the name screen on the way, the failure alert and
// the keyboard. The rules behind them are the details model's (tests/models).

#include "annotation/QKFeedbackTextView.h"
#include "base/QKDeviceInfo.h"
#include "base/QKDocumentsDirectory.h"
#include "data/QKPlatformFeedbackSource.h"
#include "kit/QKActivityIndicatorView.h"
#include "kit/QKAlertView.h"
#include "kit/QKAnimation.h"
#include "kit/QKApplication.h"
#include "kit/QKButton.h"
#include "kit/QKDateFormatter.h"
#include "kit/QKFont.h"
#include "kit/QKKeyboard.h"
#include "kit/QKLabel.h"
#include "kit/QKNavigationBar.h"
#include "kit/QKNotificationCenter.h"
#include "kit/QKTableView.h"
#include "kit/QKTextField.h"
#include "screens/QKFeedbackItemCommentTableViewCell.h"
#include "screens/QKFeedbackItemDetailsViewController.h"
#include "screens/QKFeedbackItemImageTableViewCell.h"
#include "screens/QKFeedbackItemTableViewCell.h"
#include "screens/QKFeedbackSettingsViewController.h"
#include "support/ScreenDriver.h"
#include "support/TestService.h"

#include <QApplication>
#include <QLineEdit>
#include <QPainter>
#include <QTemporaryDir>
#include <QtTest>

using namespace ScreenDriver;

// A phone screen of some app: a blue bar, a few grey rows.
static QImage appScreenshot(const QSize &size)
{
    QImage image(size, QImage::Format_RGB32);
    image.fill(QColor(245, 245, 250));
    QPainter painter(&image);
    const qreal unit = size.width() / 40.0;
    painter.fillRect(QRectF(0, 0, size.width(), 9 * unit), QColor(30, 90, 200));
    for (int row = 0; row < 6; ++row)
        painter.fillRect(QRectF(2 * unit, (12 + 6 * row) * unit, 36 * unit, 4 * unit), QColor(215, 218, 225));
    return image;
}

static QKFeedbackItemPtr comment(const QString &author, const QString &text, const QDateTime &createdAt)
{
    auto item = QKFeedbackItem::create();
    item->setAuthor(author);
    item->setText(text);
    item->setCreatedAt(createdAt);
    return item;
}

static void scrollToBottom(QKTableView *table)
{
    table->layoutIfNeeded();
    table->setContentOffset(QPointF(0, qMax(0.0, table->contentSize().height() - table->bounds().height())));
    table->layoutIfNeeded();
}

// The section header's label once the table laid out, or null.
static QKLabel *headerLabel(QKTableView *table)
{
    for (QKLabel *label : table->findChildren<QKLabel *>())
        if (label->isVisible() && label->text().endsWith(QLatin1String("COMMENTS")))
            return label;
    return nullptr;
}

class TestItemDetailsViewController : public QObject
{
    Q_OBJECT

    QTemporaryDir m_documents;
    TestService m_service;
    QKWindow *m_window = nullptr;
    QKNavigationController *m_navigation = nullptr;
    QKFeedbackItemDetailsViewController *m_screen = nullptr;
    QSharedPointer<QKPlatformFeedbackSource> m_source;
    QKFeedbackItemPtr m_item;

    // An item stored on the service, with its screenshot and `comments`, shown as the
    // list screen shows it: item and source first, then the push; loaded when asked.
    void show(const QKFeedbackItemList &comments = {}, bool loaded = true)
    {
        m_item = QKFeedbackItem::create();
        m_item->setText(QStringLiteral("The total on the receipt is wrong"));
        m_item->setKey(m_service.addThread(QStringLiteral("device"), m_item->text()));
        m_item->setState(QStringLiteral("Open"));
        m_item->setCreatedAt(QDateTime(QDate(2026, 11, 21), QTime(20, 34)));
        m_item->setImage(appScreenshot(QSize(393, 852)));
        for (const auto &each : comments)
            m_item->addSubItem(each);
        m_screen = new QKFeedbackItemDetailsViewController;
        m_screen->setFeedbackItem(m_item);
        m_screen->setDataSource(m_source);
        m_navigation = new QKNavigationController(m_screen);
        m_window->setRootViewController(m_navigation);
        m_window->layoutIfNeeded();
        if (loaded) {
            m_screen->reloadData();
            m_screen->feedbackTableView()->layoutIfNeeded();
        }
    }

    void typeAndSend(const QString &text)
    {
        QKTextField *field = m_screen->textView()->textField();
        tapView(m_window, field);
        QTRY_VERIFY(field->isFirstResponder());
        QTest::keyClicks(field->lineEdit(), text);
        tapView(m_window, m_screen->textView()->sendButton());
    }

    void verifyLoading(bool loading)
    {
        QCOMPARE(m_screen->feedbackTableView()->isHidden(), loading);
        QCOMPARE(m_screen->activityIndicator()->isAnimating(), loading);
        QCOMPARE(m_screen->activityIndicator()->isVisible(), loading);
    }

private slots:
    void initTestCase()
    {
        QKSetDocumentsDirectory(m_documents.path());
        QKDateFormatter::setLocaleForTesting(QStringLiteral("en_US"));
        QKAnimation::setAnimationsEnabled(false);
        QVERIFY(m_service.start());
    }
    void init()
    {
        auto session = QSharedPointer<QKURLSession>::create();
        session->addCaCertificates(FakeService::caCertificates());
        m_source = QSharedPointer<QKPlatformFeedbackSource>::create(m_service.apiKey(), QStringLiteral("device"),
                                                                    m_service.baseUrl(), QVariantMap());
        m_source->setSession(session);
        m_source->setUserName(QStringLiteral("Ada"));
        m_window = ScreenDriver::phoneWindow(nullptr);
        QVERIFY(QTest::qWaitForWindowActive(m_window));
    }
    void cleanup()
    {
        for (QKAlertView *alert : QKAlertView::visibleAlerts())
            alert->dismissWithClickedButtonIndex(0, false);
        delete m_window;
        m_window = nullptr;
        m_item.reset();
        QKAnimation::setAnimationsEnabled(false);
        QKDeviceInfo::setProviders(QKDeviceInfo::defaultProviders());
    }

    void loadingUntilTheImageArrives()
    {
        show({}, false);
        QCOMPARE(m_screen->title(), QStringLiteral("Feedback"));
        QKTableView *table = m_screen->feedbackTableView();
        QKFeedbackTextView *bar = m_screen->textView();
        // The bar along the bottom, the table above it, the spinner in the table's middle.
        const QSizeF size = m_screen->view()->bounds().size();
        const qreal barHeight = bar->sizeThatFits(size).height();
        QVERIFY(barHeight > 30);
        QCOMPARE(bar->frame(), QRectF(0, size.height() - barHeight, size.width(), barHeight));
        QCOMPARE(table->frame(), QRectF(0, 0, size.width(), size.height() - barHeight));
        QCOMPARE(m_screen->activityIndicator()->center(), table->center());
        QCOMPARE(bar->sendButton()->currentTitle(), QStringLiteral("Send"));
        QVERIFY(!bar->textField()->isFirstResponder());
        verifyLoading(true);
        const QImage screenshot = m_item->image();
        m_item->setImage(QImage());
        m_screen->reloadData();
        verifyLoading(true);
        m_item->setImage(screenshot);
        m_screen->reloadData();
        verifyLoading(false);
    }

    void sectionsHeaderAndRowHeights()
    {
        show();
        QKTableView *table = m_screen->feedbackTableView();
        QCOMPARE(table->numberOfSections(), 2);
        QCOMPARE(table->numberOfRowsInSection(1), 0);
        scrollToBottom(table);
        QKLabel *label = headerLabel(table);
        QVERIFY(label);
        QCOMPARE(label->text(), QStringLiteral("0 COMMENTS"));
        QCOMPARE(label->font(), QKFont::boldSystem(14));
        QCOMPARE(label->frame(), QRectF(10, 1, table->frame().width() - 10, 14));
        QCOMPARE(table->rectForHeaderInSection(0).height(), 0.0);
        QCOMPARE(table->rectForHeaderInSection(1).height(), 16.0);

        // The comments arrive, in the order the source gave them.
        const QKFeedbackItemList comments{
            comment(QStringLiteral("Bo"), QStringLiteral("Seen it too"), QDateTime(QDate(2026, 11, 22), QTime(9, 5))),
            comment(QString(), QStringLiteral("It adds the tip twice, once before and once after the tax."),
                    QDateTime(QDate(2026, 11, 21), QTime(21, 0)))};
        for (const auto &each : comments)
            m_item->addSubItem(each);
        m_screen->reloadData();
        table->setContentOffset(QPointF(0, 0));
        table->layoutIfNeeded();
        auto *itemCell = qobject_cast<QKFeedbackItemTableViewCell *>(table->cellForRowAtIndexPath({0, 0}));
        auto *imageCell = qobject_cast<QKFeedbackItemImageTableViewCell *>(table->cellForRowAtIndexPath({0, 1}));
        QVERIFY(itemCell && imageCell);
        QCOMPARE(itemCell->feedbackItem(), m_item);
        QCOMPARE(imageCell->image()->image(), m_item->image());
        scrollToBottom(table);
        QCOMPARE(headerLabel(table)->text(), QStringLiteral("2 COMMENTS"));
        const qreal width = table->bounds().width();
        for (int row = 0; row < 2; ++row) {
            auto *cell = qobject_cast<QKFeedbackItemCommentTableViewCell *>(table->cellForRowAtIndexPath({1, row}));
            QCOMPARE(cell->feedbackItem(), comments[row]);
            QCOMPARE(table->rectForRowAtIndexPath({1, row}).height(),
                     QKFeedbackItemCommentTableViewCell::heightForComment(m_item, comments[row], width));
        }
        QCOMPARE(table->rectForRowAtIndexPath({0, 0}).height(),
                 QKFeedbackItemTableViewCell::heightForItem(m_item, width, table->bounds().height()));

        // A 1000 by 2000 screenshot on a 320-point table: 2 × 280 + 40.
        m_item->setImage(appScreenshot(QSize(1000, 2000)));
        m_window->setFrame(QRectF(0, 0, 320, 700));
        m_window->layoutIfNeeded();
        m_screen->reloadData();
        table->layoutIfNeeded();
        QCOMPARE(table->bounds().width(), 320.0);
        QCOMPARE(table->rectForRowAtIndexPath({0, 1}).height(), 600.0);
    }

    void sentCommentShowsFirstAndSelected()
    {
        const auto older = comment(QStringLiteral("Bo"), QStringLiteral("Seen it too"), QDateTime::currentDateTime());
        show({older});
        QKFeedbackTextView *bar = m_screen->textView();
        typeAndSend(QStringLiteral("Fixed in 2.1?"));
        verifyLoading(true);
        QTRY_COMPARE(m_item->subItems()->size(), 2);
        QTRY_VERIFY(!m_screen->activityIndicator()->isAnimating());
        verifyLoading(false);
        const QKFeedbackItemPtr sent = m_item->subItems()->first();
        QCOMPARE(sent->author(), QStringLiteral("Ada")); // filled from the service's answer
        QKTableView *table = m_screen->feedbackTableView();
        QCOMPARE(table->indexPathForSelectedRow(), QKIndexPath(1, 0));
        QVERIFY(table->indexPathsForVisibleRows().contains(QKIndexPath(1, 0)));
        auto *cell = qobject_cast<QKFeedbackItemCommentTableViewCell *>(table->cellForRowAtIndexPath({1, 0}));
        QVERIFY(cell && cell->isSelected());
        QCOMPARE(cell->feedbackItem(), sent);
        QCOMPARE(bar->textField()->text(), QString());
        QVERIFY(!bar->sendButton()->isEnabled());
        QVERIFY(!bar->textField()->isFirstResponder());
    }

    // Without a name the name screen comes first, pushed with both buttons; its action
    // pops it and sends, and its own Back only pops it.
    void asksForANameFirst()
    {
        show();
        m_source->setUserName(QString());
        QKNavigationBar *navigationBar = m_navigation->navigationBar();
        for (const bool anonymous : {false, true}) {
            typeAndSend(anonymous ? QStringLiteral("Second") : QStringLiteral("First"));
            QPointer<QKFeedbackSettingsViewController> name;
            QTRY_VERIFY((name = qobject_cast<QKFeedbackSettingsViewController *>(m_navigation->topViewController())));
            QTRY_VERIFY(!m_screen->view()->isVisible()); // the push is over
            QVERIFY(!name->exitOnBackTouched());
            QTRY_VERIFY(name->sendAnonymousButton()->isVisible() && name->continueButton()->isVisible());
            if (anonymous) {
                tapView(m_window, name->sendAnonymousButton());
                QCOMPARE(name->nameTextField()->text(), QStringLiteral("Anonymous"));
            } else {
                tapWindow(
                    m_window,
                    navigationBar->convertPointToView(
                        navigationBar->rectForItem(name->navigationItem()->leftBarButtonItem()).center(), nullptr));
            }
            QTRY_VERIFY(!name); // popped and gone
            QCOMPARE(m_navigation->topViewController(), m_screen);
            if (!anonymous) {
                QCOMPARE(m_screen->textView()->textField()->text(), QStringLiteral("First"));
                m_screen->textView()->textField()->setText(QString());
            }
        }
        // Back kept the first comment in the bar; the anonymous choice sent the second.
        QTRY_COMPARE(m_item->subItems()->size(), 1);
        QCOMPARE(m_item->subItems()->first()->text(), QStringLiteral("Second"));
        QCOMPARE(QKFeedback::sharedInstance()->settings().value(QStringLiteral("Name")).toString(),
                 QStringLiteral("Anonymous"));
    }

    void failedSendShowsTheAlertAndKeepsWaiting()
    {
        show();
        m_item->setKey(QStringLiteral("deleted-meanwhile")); // the service refuses the comment
        QKFeedbackTextView *bar = m_screen->textView();
        typeAndSend(QStringLiteral("Lost"));
        QTRY_COMPARE(QKAlertView::visibleAlerts().size(), 1);
        QKAlertView *alert = QKAlertView::visibleAlerts().first();
        QCOMPARE(alert->title(), QStringLiteral("Network error"));
        QCOMPARE(alert->message(), QStringLiteral("Could not send data to server"));
        QCOMPARE(alert->buttonTitles(), QStringList{QStringLiteral("Cancel")});
        QPointer<QKView> overlay = alert->view();
        tapWindow(m_window, alert->rectForButtonAtIndex(0).center());
        QTRY_VERIFY(!overlay);
        verifyLoading(true);
        QCOMPARE(bar->textField()->text(), QStringLiteral("Lost"));

        // A screen closed before the answer is not kept for it; the alert still comes.
        tapView(m_window, bar->sendButton());
        QPointer<QKFeedbackItemDetailsViewController> screen(m_screen);
        delete m_window;
        m_window = nullptr;
        QVERIFY(!screen);
        QTRY_COMPARE(QKAlertView::visibleAlerts().size(), 1);
    }

    void keyboardMovesTheBar()
    {
        show();
        QKAnimation::setAnimationsEnabled(true);
        QKFeedbackTextView *bar = m_screen->textView();
        QKView *root = m_screen->view();
        const qreal barHeight = bar->frame().height();
        const auto barAt = [&](qreal keyboard) {
            return QRectF(0, root->bounds().height() - keyboard - barHeight, root->bounds().width(), barHeight);
        };
        const QRectF down = barAt(0);
        QCOMPARE(bar->frame(), down);
        const QRectF keyboard(0, 852 - 291, 393, 291);
        QKNotificationCenter::defaultCenter()->postNotification(QKKeyboard::WillShowNotification,
                                                                {{QKKeyboard::FrameBeginUserInfoKey, keyboard}});
        QVERIFY(m_screen->keyboardIsVisible());
        QCOMPARE(bar->frame(), barAt(291));
        QCOMPARE(bar->geometry(), down.toRect()); // it moves there over time
        QTRY_COMPARE(bar->geometry(), barAt(291).toRect());

        // A layout pass keeps it above the keyboard's height, in landscape (the offscreen
        // screen is 800 by 600) on a system below 8.0 too; the table ends at the bar.
        QKAnimation::setAnimationsEnabled(false);
        QVERIFY(!QKFeedbackItemDetailsViewController::isPortrait(
            QKApplication::sharedApplication()->statusBarOrientation()));
        QKDeviceInfo::Providers providers;
        providers.systemVersion = [] { return QStringLiteral("7.1"); };
        QKDeviceInfo::setProviders(providers);
        m_window->setFrame(QRectF(0, 0, 393, 800));
        m_window->layoutIfNeeded();
        QCOMPARE(bar->frame(), barAt(291));
        QCOMPARE(m_screen->feedbackTableView()->frame().height(), root->bounds().height() - barHeight);

        // A tap on the content closes the keyboard; the notice brings the bar down.
        tapView(m_window, bar->textField());
        QTRY_VERIFY(bar->textField()->isFirstResponder());
        tapWindow(m_window, m_screen->feedbackTableView()->convertPointToView(QPointF(100, 20), nullptr));
        QTRY_VERIFY(!bar->textField()->isFirstResponder());
        QKNotificationCenter::defaultCenter()->postNotification(QKKeyboard::WillHideNotification);
        QVERIFY(!m_screen->keyboardIsVisible());
        QCOMPARE(bar->frame(), barAt(0));
    }

    void detailsPicture()
    {
        show({comment(QStringLiteral("Bo"), QStringLiteral("Seen it too, on the lunch receipt of yesterday."),
                      QDateTime(QDate(2026, 11, 22), QTime(9, 5))),
              comment(QString(), QStringLiteral("It adds the tip twice: once before the tax and once after it."),
                      QDateTime(QDate(2026, 11, 21), QTime(21, 0)))});
        QKTableView *table = m_screen->feedbackTableView();
        m_window->snapshot().save(QStringLiteral(MURMORA_TEST_OUTPUT "/details-top.png"));
        scrollToBottom(table);
        QCoreApplication::processEvents();
        const QImage shot = m_window->snapshot();
        QVERIFY(shot.save(QStringLiteral(MURMORA_TEST_OUTPUT "/details.png")));
        // The grey line under the header's label shows.
        const QPointF line = headerLabel(table)->convertPointToView(QPointF(150, 14.5), nullptr);
        QCOMPARE(QColor(shot.pixel((line * 3).toPoint())), QColor(170, 170, 170));
        QCOMPARE(QColor(shot.pixel(((line - QPointF(0, 16)) * 3).toPoint())), QColor(Qt::white));
    }
};

int main(int argc, char **argv)
{
    qputenv("QT_SCALE_FACTOR", "3"); // snapshots at the pixel ratio of a phone
    QApplication app(argc, argv);
    TestItemDetailsViewController test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_qkfeedbackitemdetailsviewcontroller.moc"
