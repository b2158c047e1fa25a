// The item details screen on a phone-size window, as the list screen shows it and as a
// person uses it: loading, the item with its screenshot and comments, and sending a
// comment to murmora-server, with and without a name, failing, with the keyboard up.

#include "annotation/QKFeedbackTextView.h"
#include "base/QKDeviceInfo.h"
#include "base/QKDocumentsDirectory.h"
#include "core/QKFeedback.h"
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
#include "kit/QKNavigationController.h"
#include "kit/QKNotificationCenter.h"
#include "kit/QKTableView.h"
#include "kit/QKTextField.h"
#include "kit/QKWindow.h"
#include "screens/QKFeedbackItemCommentTableViewCell.h"
#include "screens/QKFeedbackItemDetailsViewController.h"
#include "screens/QKFeedbackItemImageTableViewCell.h"
#include "screens/QKFeedbackItemTableViewCell.h"
#include "screens/QKFeedbackSettingsViewController.h"
#include "support/ScreenDriver.h"
#include "support/TestService.h"

#include <QApplication>
#include <QJsonDocument>
#include <QLineEdit>
#include <QPainter>
#include <QTemporaryDir>
#include <QtTest>

using namespace ScreenDriver;

// A phone screen of some app: a blue bar, a few grey rows and an orange button.
static QImage appScreenshot(const QSize &size)
{
    QImage image(size, QImage::Format_RGB32);
    image.fill(QColor(245, 245, 250));
    QPainter painter(&image);
    const qreal unit = size.width() / 40.0;
    painter.fillRect(QRectF(0, 0, size.width(), 9 * unit), QColor(30, 90, 200));
    for (int row = 0; row < 6; ++row)
        painter.fillRect(QRectF(2 * unit, (12 + 6 * row) * unit, 36 * unit, 4 * unit), QColor(215, 218, 225));
    painter.fillRect(QRectF(10 * unit, 52 * unit, 20 * unit, 5 * unit), QColor(240, 140, 30));
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

static void systemVersion(const QString &version)
{
    QKDeviceInfo::Providers providers;
    providers.systemVersion = [version] { return version; };
    QKDeviceInfo::setProviders(providers);
}

// As a person scrolls to the comments.
static void scrollToBottom(QKTableView *table)
{
    table->layoutIfNeeded();
    table->setContentOffset(QPointF(0, qMax(0.0, table->contentSize().height() - table->bounds().height())));
    table->layoutIfNeeded();
}

// The section header's label once the table laid out, or null.
static QKLabel *headerLabel(QKTableView *table)
{
    for (QKLabel *label : table->findChildren<QKLabel *>()) {
        if (label->isVisible() && label->text().endsWith(QLatin1String("COMMENTS")))
            return label;
    }
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

    // As the list screen does: the item and source first, then the push, then the fetches.
    void show(const QKFeedbackItemPtr &item)
    {
        m_item = item;
        m_screen = new QKFeedbackItemDetailsViewController;
        m_screen->setFeedbackItem(item);
        m_screen->setDataSource(m_source);
        m_navigation = new QKNavigationController(m_screen);
        m_window->setRootViewController(m_navigation);
        m_window->layoutIfNeeded();
    }

    // An item stored on the service, with `comments` older comments and its screenshot.
    QKFeedbackItemPtr hostedItem(const QKFeedbackItemList &comments = {})
    {
        auto item = QKFeedbackItem::create();
        item->setText(QStringLiteral("The total on the receipt is wrong"));
        item->setKey(m_service.addThread(QStringLiteral("device"), item->text()));
        item->setState(QStringLiteral("Open"));
        item->setCreatedAt(QDateTime(QDate(2026, 11, 21), QTime(20, 34)));
        item->setImage(appScreenshot(QSize(393, 852)));
        for (const auto &each : comments)
            item->addSubItem(each);
        return item;
    }

    void showLoaded(const QKFeedbackItemPtr &item)
    {
        show(item);
        m_screen->reloadData();
        m_screen->feedbackTableView()->layoutIfNeeded();
    }

    void typeComment(const QString &text)
    {
        QKTextField *field = m_screen->textView()->textField();
        tapView(m_window, field);
        QTRY_VERIFY(field->isFirstResponder());
        QTest::keyClicks(field->lineEdit(), text);
    }

    QList<QJsonObject> commentPosts() const
    {
        QList<QJsonObject> posts;
        const QString path = QStringLiteral("/threads/") + m_item->key();
        for (const RecordedRequest &request : m_service.requests()) {
            if (request.method == "POST" && QString::fromUtf8(request.target).endsWith(path))
                posts.append(QJsonDocument::fromJson(request.body).object());
        }
        return posts;
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
        // A failed test leaves no alert behind for the next one.
        for (QKAlertView *alert : QKAlertView::visibleAlerts())
            alert->dismissWithClickedButtonIndex(0, false);
        delete m_window;
        m_window = nullptr;
        m_item.reset();
        m_service.clearRequests();
        QKAnimation::setAnimationsEnabled(false);
        QKDeviceInfo::setProviders(QKDeviceInfo::defaultProviders());
    }

    void loadingUntilTheImageArrives()
    {
        auto item = hostedItem();
        const QImage screenshot = item->image();
        item->setImage(QImage());
        show(item);
        QCOMPARE(m_screen->title(), QStringLiteral("Feedback"));
        QKTableView *table = m_screen->feedbackTableView();
        QKFeedbackTextView *bar = m_screen->textView();
        QKActivityIndicatorView *spinner = m_screen->activityIndicator();

        // The bar along the bottom, the table above it, the spinner in the table's middle.
        const QSizeF size = m_screen->view()->bounds().size();
        const qreal barHeight = bar->sizeThatFits(size).height();
        QVERIFY(barHeight > 30);
        QCOMPARE(bar->frame(), QRectF(0, size.height() - barHeight, size.width(), barHeight));
        QCOMPARE(table->frame(), QRectF(0, 0, size.width(), size.height() - barHeight));
        QCOMPARE(spinner->center(), table->center());
        QCOMPARE(bar->sendButton()->currentTitle(), QStringLiteral("Send"));
        QVERIFY(!bar->textField()->isFirstResponder());

        // Sub-items came first: still loading.
        verifyLoading(true);
        item->addSubItem(comment(QStringLiteral("Bo"), QStringLiteral("Seen it too"), QDateTime::currentDateTime()));
        m_screen->reloadData();
        verifyLoading(true);

        item->setImage(screenshot);
        m_screen->reloadData();
        verifyLoading(false);
        table->layoutIfNeeded();
        QVERIFY(table->cellForRowAtIndexPath({0, 0}));

        // Blanks alone do not enable Send.
        typeComment(QStringLiteral("  "));
        QVERIFY(!bar->sendButton()->isEnabled());
        QTest::keyClicks(bar->textField()->lineEdit(), QStringLiteral("x"));
        QVERIFY(bar->sendButton()->isEnabled());

        // The list screen owns the item.
        m_item.reset();
        item.reset();
        QVERIFY(!m_screen->feedbackItem());
        m_screen->reloadData();
        verifyLoading(false);
    }

    void sectionsHeaderAndRowHeights()
    {
        showLoaded(hostedItem());
        QKTableView *table = m_screen->feedbackTableView();
        QCOMPARE(table->numberOfSections(), 2);
        QCOMPARE(table->numberOfRowsInSection(0), 2);
        QCOMPARE(table->numberOfRowsInSection(1), 0);
        scrollToBottom(table);
        QKLabel *label = headerLabel(table);
        QVERIFY(label);
        QCOMPARE(label->text(), QStringLiteral("0 COMMENTS"));
        QCOMPARE(label->font(), QKFont::boldSystem(14));
        QCOMPARE(label->textColor(), QColor::fromRgbF(1.0 / 3, 1.0 / 3, 1.0 / 3));
        QCOMPARE(label->frame(), QRectF(10, 1, table->frame().width() - 10, 14));
        QCOMPARE(table->rectForHeaderInSection(0).height(), 0.0);
        QCOMPARE(table->rectForHeaderInSection(1).height(), 16.0);

        // The sub-items arrive, in the order the source gave them.
        const QKFeedbackItemList comments{
            comment(QStringLiteral("Bo"), QStringLiteral("Seen it too"), QDateTime(QDate(2026, 11, 22), QTime(9, 5))),
            comment(QString(),
                    QStringLiteral("It adds the tip twice, once before and once after the tax. The "
                                   "receipt from Friday shows it too."),
                    QDateTime(QDate(2026, 11, 21), QTime(21, 0)))};
        for (const auto &each : comments)
            m_item->addSubItem(each);
        m_screen->reloadData();
        table->setContentOffset(QPointF(0, 0));
        table->layoutIfNeeded();
        QCOMPARE(table->numberOfRowsInSection(1), 2);
        auto *itemCell = qobject_cast<QKFeedbackItemTableViewCell *>(table->cellForRowAtIndexPath({0, 0}));
        auto *imageCell = qobject_cast<QKFeedbackItemImageTableViewCell *>(table->cellForRowAtIndexPath({0, 1}));
        QVERIFY(itemCell && imageCell);
        QCOMPARE(itemCell->feedbackItem(), m_item);
        QCOMPARE(imageCell->image()->image(), m_item->image());
        scrollToBottom(table);
        QVERIFY(headerLabel(table));
        QCOMPARE(headerLabel(table)->text(), QStringLiteral("2 COMMENTS"));
        for (int row = 0; row < 2; ++row) {
            auto *cell = qobject_cast<QKFeedbackItemCommentTableViewCell *>(table->cellForRowAtIndexPath({1, row}));
            QVERIFY(cell);
            QCOMPARE(cell->feedbackItem(), comments[row]);
        }

        const qreal width = table->bounds().width();
        QCOMPARE(table->rectForRowAtIndexPath({0, 0}).height(),
                 QKFeedbackItemTableViewCell::heightForItem(m_item, width, table->bounds().height()));
        QCOMPARE(table->rectForRowAtIndexPath({0, 1}).height(),
                 QKFeedbackItemImageTableViewCell::heightForImage(m_item->image(), width));
        for (int row = 0; row < 2; ++row)
            QCOMPARE(table->rectForRowAtIndexPath({1, row}).height(),
                     QKFeedbackItemCommentTableViewCell::heightForComment(m_item, comments[row], width));
        QVERIFY(table->rectForRowAtIndexPath({1, 0}).height() != table->rectForRowAtIndexPath({1, 1}).height());

        // A 1000 by 2000 screenshot on a 320-point table: 2 × 280 + 40.
        QKFeedbackItemDetailsViewController narrow;
        auto tall = hostedItem();
        tall->setImage(appScreenshot(QSize(1000, 2000)));
        narrow.setFeedbackItem(tall);
        narrow.view()->setFrame(QRectF(0, 0, 320, 700));
        narrow.view()->layoutIfNeeded();
        narrow.reloadData();
        narrow.feedbackTableView()->layoutIfNeeded();
        QCOMPARE(narrow.feedbackTableView()->bounds().width(), 320.0);
        QCOMPARE(narrow.feedbackTableView()->rectForRowAtIndexPath({0, 1}).height(), 600.0);
    }

    void sendsUnderTheSavedName()
    {
        const auto older = comment(QStringLiteral("Bo"), QStringLiteral("Seen it too"), QDateTime::currentDateTime());
        showLoaded(hostedItem({older}));
        QKFeedbackTextView *bar = m_screen->textView();
        typeComment(QStringLiteral("Fixed in 2.1?"));
        tapView(m_window, bar->sendButton());

        QTRY_COMPARE(m_item->subItems()->size(), 2);
        QTRY_VERIFY(!m_screen->activityIndicator()->isAnimating());
        const QList<QJsonObject> posts = commentPosts();
        QCOMPARE(posts.size(), 1);
        QCOMPARE(posts[0].value(QStringLiteral("Text")).toString(), QStringLiteral("Fixed in 2.1?"));
        QCOMPARE(posts[0].value(QStringLiteral("Author")).toString(), QStringLiteral("Ada"));

        // The newest first, filled from the service's answer, and selected.
        const QKFeedbackItemPtr sent = m_item->subItems()->first();
        QCOMPARE(sent->text(), QStringLiteral("Fixed in 2.1?"));
        QCOMPARE(sent->author(), QStringLiteral("Ada"));
        QVERIFY(sent->createdAt().isValid());
        QCOMPARE(m_item->subItems()->at(1), older);
        verifyLoading(false);
        QKTableView *table = m_screen->feedbackTableView();
        QCOMPARE(table->indexPathForSelectedRow(), QKIndexPath(1, 0));
        QVERIFY(table->indexPathsForVisibleRows().contains(QKIndexPath(1, 0)));
        auto *cell = qobject_cast<QKFeedbackItemCommentTableViewCell *>(table->cellForRowAtIndexPath({1, 0}));
        QVERIFY(cell && cell->isSelected());
        QCOMPARE(cell->feedbackItem(), sent);
        scrollToBottom(table);
        QVERIFY(headerLabel(table));
        QCOMPARE(headerLabel(table)->text(), QStringLiteral("2 COMMENTS"));
        QCOMPARE(bar->textField()->text(), QString());
        QVERIFY(!bar->sendButton()->isEnabled());
        QVERIFY(!bar->textField()->isFirstResponder());
        QCOMPARE(m_navigation->viewControllers().size(), 1);
    }

    void asksForANameFirst()
    {
        showLoaded(hostedItem());
        QKNavigationBar *navigationBar = m_navigation->navigationBar();
        struct Round
        {
            QString comment, typedName, action, expectedName, author;
        };
        const QList<Round> rounds{
            {QStringLiteral("First"), QString(), QStringLiteral("anonymous"), QStringLiteral("Anonymous"), QString()},
            {QStringLiteral("Second"), QStringLiteral("  Grace  "), QStringLiteral("back"), QStringLiteral("Grace"),
             QString()},
            {QStringLiteral("Third"), QStringLiteral(" Lin Wu "), QStringLiteral("continue"), QStringLiteral("Lin Wu"),
             QStringLiteral("Lin Wu")}};
        int sent = 0;
        for (const Round &round : rounds) {
            m_source->setUserName(QString());
            typeComment(round.comment);
            tapView(m_window, m_screen->textView()->sendButton());
            QPointer<QKFeedbackSettingsViewController> name;
            QTRY_VERIFY((name = qobject_cast<QKFeedbackSettingsViewController *>(m_navigation->topViewController())));
            QTRY_VERIFY(!m_screen->view()->isVisible()); // the push is over
            QCOMPARE(m_screen->commentText(), round.comment);
            QVERIFY(!name->exitOnBackTouched());
            QTRY_VERIFY(name->sendAnonymousButton()->isVisible() && name->continueButton()->isVisible());
            if (!round.typedName.isNull()) {
                tapView(m_window, name->nameTextField());
                QTest::keyClicks(name->nameTextField()->lineEdit(), round.typedName);
            }
            if (round.action == QLatin1String("anonymous"))
                tapView(m_window, name->sendAnonymousButton());
            else if (round.action == QLatin1String("continue"))
                tapView(m_window, name->continueButton());
            else
                tapWindow(
                    m_window,
                    navigationBar->convertPointToView(
                        navigationBar->rectForItem(name->navigationItem()->leftBarButtonItem()).center(), nullptr));
            QTRY_VERIFY(!name); // popped and gone
            QCOMPARE(m_navigation->topViewController(), m_screen);
            QCOMPARE(m_source->userName(), round.expectedName);
            QKFeedback::sharedInstance()->settings().clear();
            QKFeedback::sharedInstance()->loadSettings();
            QCOMPARE(QKFeedback::sharedInstance()->settings().value(QStringLiteral("Name")).toString(),
                     round.expectedName);

            if (round.action == QLatin1String("back")) {
                // The name is kept, the comment is not sent.
                QVERIFY(!m_screen->feedbackTableView()->isHidden());
                QCOMPARE(m_screen->textView()->textField()->text(), round.comment);
                m_screen->textView()->textField()->setText(QString());
                continue;
            }
            ++sent;
            QTRY_COMPARE(m_item->subItems()->size(), sent);
            QTRY_VERIFY(!m_screen->feedbackTableView()->isHidden());
            QCOMPARE(m_item->subItems()->first()->text(), round.comment);
            const QList<QJsonObject> posts = commentPosts();
            QCOMPARE(posts.size(), sent);
            QCOMPARE(posts.last().value(QStringLiteral("Text")).toString(), round.comment);
            QCOMPARE(posts.last().value(QStringLiteral("Author")).toString(), round.author);
            QVERIFY(posts.last().contains(QStringLiteral("Author")));
        }
        QCOMPARE(commentPosts().size(), 2);
    }

    void failedSendShowsTheAlertAndKeepsWaiting()
    {
        // An item the service no longer has: it refuses the comment.
        auto gone = hostedItem();
        gone->setKey(QStringLiteral("deleted-meanwhile"));
        showLoaded(gone);
        QKFeedbackTextView *bar = m_screen->textView();
        typeComment(QStringLiteral("Lost"));
        tapView(m_window, bar->sendButton());

        QTRY_COMPARE(QKAlertView::visibleAlerts().size(), 1);
        QKAlertView *alert = QKAlertView::visibleAlerts().first();
        QCOMPARE(alert->title(), QStringLiteral("Network error"));
        QCOMPARE(alert->message(), QStringLiteral("Could not send data to server"));
        QCOMPARE(alert->buttonTitles(), QStringList{QStringLiteral("Cancel")});
        QCOMPARE(alert->cancelButtonIndex(), 0);
        QPointer<QKView> overlay = alert->view();
        tapWindow(m_window, alert->rectForButtonAtIndex(0).center());
        QTRY_VERIFY(!overlay);
        QVERIFY(QKAlertView::visibleAlerts().isEmpty());

        verifyLoading(true);
        QVERIFY(m_item->subItems()->isEmpty());
        QCOMPARE(bar->textField()->text(), QStringLiteral("Lost"));
        QVERIFY(bar->sendButton()->isEnabled());

        // A screen closed before the answer is not kept for it; the alert still comes.
        tapView(m_window, bar->sendButton());
        QPointer<QKFeedbackItemDetailsViewController> screen(m_screen);
        delete m_window;
        m_window = nullptr;
        QVERIFY(!screen);
        QTRY_COMPARE(QKAlertView::visibleAlerts().size(), 1);
        QKAlertView::visibleAlerts().first()->dismissWithClickedButtonIndex(0, false);
        QTRY_VERIFY(QKAlertView::visibleAlerts().isEmpty());
        QVERIFY(m_item->subItems()->isEmpty());
    }

    void keyboardMovesTheBar()
    {
        systemVersion(QStringLiteral("17.2"));
        showLoaded(hostedItem());
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
        QKNotificationCenter::defaultCenter()->postNotification(
            QKKeyboard::WillShowNotification,
            {{QKKeyboard::FrameBeginUserInfoKey, keyboard}, {QKKeyboard::FrameEndUserInfoKey, keyboard}});
        QVERIFY(m_screen->keyboardIsVisible());
        QCOMPARE(m_screen->keyboardSize(), keyboard.size());
        QCOMPARE(bar->frame(), barAt(291));
        QCOMPARE(bar->geometry(), down.toRect()); // it moves there over time
        QTRY_COMPARE(bar->geometry(), barAt(291).toRect());

        // A layout pass keeps it above the keyboard; the table ends where the bar starts.
        QKAnimation::setAnimationsEnabled(false);
        m_window->setFrame(QRectF(0, 0, 393, 800));
        m_window->layoutIfNeeded();
        QCOMPARE(root->bounds().height(), 800 - 852 + down.bottom());
        QCOMPARE(bar->frame(), barAt(291));
        QCOMPARE(m_screen->feedbackTableView()->frame().height(), root->bounds().height() - barHeight);

        // In landscape (the offscreen screen is 800 by 600) on a system below 8.0, or with
        // no version at all, the bar still rides on the keyboard's height, never its width.
        QVERIFY(!QKFeedbackItemDetailsViewController::isPortrait(
            QKApplication::sharedApplication()->statusBarOrientation()));
        for (const QString &version : {QStringLiteral("7.1"), QString()}) {
            systemVersion(version);
            root->setNeedsLayout();
            root->layoutIfNeeded();
            QCOMPARE(bar->frame(), barAt(291));
        }
        QKNotificationCenter::defaultCenter()->postNotification(QKKeyboard::WillShowNotification,
                                                                {{QKKeyboard::FrameBeginUserInfoKey, keyboard}});
        QCOMPARE(bar->frame(), barAt(291));

        // A tap on the content closes the keyboard; the notice brings the bar down.
        tapView(m_window, bar->textField());
        QTRY_VERIFY(bar->textField()->isFirstResponder());
        QKTableView *table = m_screen->feedbackTableView();
        tapWindow(m_window, table->convertPointToView(QPointF(100, 20), nullptr));
        QTRY_VERIFY(!bar->textField()->isFirstResponder());
        QKAnimation::setAnimationsEnabled(true);
        QKNotificationCenter::defaultCenter()->postNotification(QKKeyboard::WillHideNotification);
        QVERIFY(!m_screen->keyboardIsVisible());
        QCOMPARE(bar->frame(), barAt(0));
        QTRY_COMPARE(bar->geometry(), barAt(0).toRect());
    }

    void orientations()
    {
        QVERIFY(QKFeedbackItemDetailsViewController::isPortrait(QKApplication::InterfaceOrientationPortrait));
        QVERIFY(QKFeedbackItemDetailsViewController::isPortrait(QKApplication::InterfaceOrientationPortraitUpsideDown));
        for (qint64 other : {0, 3, 4, 5, -1})
            QVERIFY(!QKFeedbackItemDetailsViewController::isPortrait(other));
    }

    void detailsPicture()
    {
        const QKFeedbackItemList comments{
            comment(QStringLiteral("Bo"), QStringLiteral("Seen it too, on the lunch receipt of yesterday."),
                    QDateTime(QDate(2026, 11, 22), QTime(9, 5))),
            comment(QString(), QStringLiteral("It adds the tip twice: once before the tax and once after it."),
                    QDateTime(QDate(2026, 11, 21), QTime(21, 0)))};
        showLoaded(hostedItem(comments));
        QKTableView *table = m_screen->feedbackTableView();
        m_window->snapshot().save(QStringLiteral(MURMORA_TEST_OUTPUT "/details-top.png"));
        scrollToBottom(table);
        QCoreApplication::processEvents();
        const QImage shot = m_window->snapshot();
        QCOMPARE(shot.size(), QSize(393 * 3, 852 * 3));
        QVERIFY(shot.save(QStringLiteral(MURMORA_TEST_OUTPUT "/details.png")));

        // The grey line under the header's label shows.
        QKLabel *label = headerLabel(table);
        QVERIFY(label);
        const QPointF line = label->convertPointToView(QPointF(150, 14.5), nullptr);
        QCOMPARE(QColor(shot.pixel((line * 3).toPoint())), QColor(170, 170, 170));
        QCOMPARE(QColor(shot.pixel(((line - QPointF(0, 16)) * 3).toPoint())), QColor(Qt::white));
    }
};

int main(int argc, char **argv)
{
    // Snapshots at the pixel ratio of a phone.
    qputenv("QT_SCALE_FACTOR", "3");
    QApplication app(argc, argv);
    TestItemDetailsViewController test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_qkfeedbackitemdetailsviewcontroller.moc"
