// The feedback flow end to end, driven as a person would on a phone-size window:
// the menu, markers and comments on the screenshot, the name screen, the send through
// the local source and through the hosted service (over real TLS), and the alert.

#include "annotation/QKFeedbackPoint.h"
#include "annotation/QKFeedbackSendViewController.h"
#include "annotation/QKFeedbackSurfaceView.h"
#include "annotation/QKFeedbackTextView.h"
#include "base/QKBase64.h"
#include "base/QKDocumentsDirectory.h"
#include "base/QKPNGCodec.h"
#include "base/QKUnrecognizedSelectorException.h"
#include "core/QKFeedback.h"
#include "core/WendaxMurmora.h"
#include "data/QKLocalFeedbackSource.h"
#include "data/QKPlatformFeedbackSource.h"
#include "kit/QKActionSheet.h"
#include "kit/QKActivityIndicatorView.h"
#include "kit/QKAlertView.h"
#include "kit/QKAnimation.h"
#include "kit/QKButton.h"
#include "kit/QKNavigationBar.h"
#include "kit/QKNavigationController.h"
#include "kit/QKTextField.h"
#include "kit/QKWindow.h"
#include "screens/QKFeedbackSettingsViewController.h"
#include "support/ScreenDriver.h"
#include "support/TestService.h"

#include <QApplication>
#include <QLineEdit>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <cstring>

using namespace ScreenDriver;

namespace {

const QColor HostColour(200, 220, 240);

// Holds each batch until the test answers it, so the screens can be looked at mid-send.
class HeldSource : public QKFeedbackDataSource
{
public:
    QList<QKFeedbackItemList> batches;
    ErrorCompletion pending;
    QString name = QStringLiteral("Ada");

    void feedbackItems(ItemsCompletion completion) override { completion(QKFeedbackItemList(), std::nullopt); }
    void addFeedback(const QKFeedbackItemPtr &item, ErrorCompletion completion) override
    {
        addFeedbackItems({item}, std::move(completion));
    }
    void addFeedbackItems(const QKFeedbackItemList &items, ErrorCompletion completion) override
    {
        batches.append(items);
        pending = std::move(completion);
    }
    void editWithKey(const QString &, const QString &, ErrorCompletion completion) override { completion({}); }
    void deleteWithKey(const QString &, ErrorCompletion completion) override { completion({}); }
    QString userName() const override { return name; }
    void setUserName(const QString &userName) override { name = userName; }
};

QColor pixel(const QImage &image, const QPointF &points)
{
    const qreal ratio = image.devicePixelRatio();
    return QColor(image.pixel(qRound(points.x() * ratio), qRound(points.y() * ratio)));
}

} // namespace

class TestFeedback : public QObject
{
    Q_OBJECT

    QTemporaryDir m_documents;
    QKWindow *m_window = nullptr;
    TestService m_service;

    void tapBarItem(QKBarButtonItem *item)
    {
        QKNavigationBar *bar = shownNavigation()->navigationBar();
        tapWindow(m_window, bar->convertPointToView(bar->rectForItem(item).center(), nullptr));
    }

    void tapMenu(int index)
    {
        QTRY_COMPARE(QKActionSheet::visibleSheets().size(), 1);
        QPointer<QKActionSheet> sheet = QKActionSheet::visibleSheets().first();
        tapWindow(m_window, sheet->rectForButtonAtIndex(index).center());
        QTRY_VERIFY(!sheet); // reported to its delegate, then gone
    }

    // Drops a marker at `where` on the picture (in the surface) and writes its comment.
    void comment(QKFeedbackSendViewController *screen, const QPointF &where, const QString &text,
                 const QString &shot = QString())
    {
        QKFeedbackSurfaceView *surface = screen->surfaceView();
        tapWindow(m_window, surface->convertPointToView(where, nullptr));
        QTRY_VERIFY(screen->textView());
        QKTextField *field = screen->textView()->textField();
        QTRY_VERIFY(field->isFirstResponder());
        QTest::keyClicks(field->lineEdit(), text);
        if (!shot.isEmpty())
            save(shot);
        tapView(m_window, screen->textView()->sendButton());
        QTRY_VERIFY(!screen->textView());
    }

    // From the menu to the Send tap with two commented markers. Sets the send screen and
    // the markers' centres in the screenshot's points.
    void annotateAndSend(QKFeedbackSendViewController **screenOut, QList<QPointF> *centres = nullptr,
                         const QString &shot = QString())
    {
        QKFeedback::showFeedback();
        if (!shot.isEmpty())
            save(shot);
        tapMenu(0);
        QKFeedbackSendViewController *screen = nullptr;
        QTRY_VERIFY((screen = topScreen<QKFeedbackSendViewController>()));
        comment(screen, QPointF(60, 80), QStringLiteral("Too small"));
        comment(screen, QPointF(200, 300), QStringLiteral("Wrong colour"),
                shot.isEmpty() ? QString() : QStringLiteral("tour-send-screen"));
        QVERIFY2(screen->navigationItem()->rightBarButtonItem()->isEnabled(), "Send stays disabled");
        if (centres)
            for (const auto &point : screen->surfaceView()->feedbackPoints())
                centres->append(point->location());
        tapBarItem(screen->navigationItem()->rightBarButtonItem());
        *screenOut = screen;
    }

    void save(const QString &name) { ScreenDriver::save(m_window, QStringLiteral(MURMORA_TEST_OUTPUT), name); }

private slots:
    void initTestCase()
    {
        QKSetDocumentsDirectory(m_documents.path());
        QKAnimation::setAnimationsEnabled(false);
        QVERIFY(m_service.start());
        auto *host = new QKViewController;
        host->view()->setBackgroundColor(HostColour);
        m_window = ScreenDriver::phoneWindow(host);
        QVERIFY(QTest::qWaitForWindowActive(m_window));
    }
    void cleanupTestCase() { delete m_window; }

    void versionAndCaptions()
    {
        QCOMPARE(WendaxMurmora::versionString(), QStringLiteral("2017.2.914"));
        QCOMPARE(WendaxMurmoraVersionNumber, 1.0);
        QCOMPARE(QByteArray(reinterpret_cast<const char *>(WendaxMurmoraVersionString)),
                 QByteArray("@(#)PROGRAM:WendaxMurmora  PROJECT:Murmora-1\n"));
        const QKFeedbackSettings captions;
        QVERIFY(captions.showFeedbackSentAlert);
        QCOMPARE(captions.feedbackTitle, QStringLiteral("Murmora"));
        QCOMPARE(captions.feedbackSentAlertTitle, QStringLiteral("Wendax platform"));
        QCOMPARE(captions.feedbackSentAlertText, QStringLiteral("Your feedback was sent"));
        QCOMPARE((QStringList{captions.feedbackMenuSendCaption, captions.feedbackMenuMyFeedbackCaption,
                              captions.feedbackMenuSettingsCaption}),
                 (QStringList{"Send feedback", "Your feedback", "Settings"}));
    }

    void menu()
    {
        auto source = QSharedPointer<QKLocalFeedbackSource>::create();
        QKFeedback::setDataSource(source);
        QCOMPARE(source->userName(), QStringLiteral("")); // no settings file yet
        QVERIFY_THROWS_EXCEPTION(QKUnrecognizedSelectorException, QKFeedback::sharedInstance()->sendFeedback());

        QKFeedback::showFeedback();
        QVERIFY(QKFeedback::feedbackIsShown());
        QCOMPARE(QKActionSheet::visibleSheets().size(), 1);
        QKActionSheet *sheet = QKActionSheet::visibleSheets().first();
        QCOMPARE(sheet->title(), QStringLiteral("Murmora"));
        QCOMPARE(sheet->buttonTitleAtIndex(1), QStringLiteral("Your feedback"));
        QCOMPARE(sheet->cancelButtonIndex(), 3);
        const QImage shot = QKFeedback::sharedInstance()->screenshot();
        QCOMPARE(shot.size(), QSize(1179, 2556));
        QCOMPARE(pixel(shot, QPointF(100, 100)), HostColour);
        QKFeedback::sharedInstance()->sendFeedback(); // shown: nothing happens
        QKFeedback::showFeedback();                   // a second call changes nothing
        QCOMPARE(QKActionSheet::visibleSheets().size(), 1);
        QCOMPARE(QKFeedback::sharedInstance()->screenshot().cacheKey(), shot.cacheKey());
        save(QStringLiteral("tour-menu"));
        tapMenu(3);
        QVERIFY(!QKFeedback::feedbackIsShown());

        // Settings: the name screen without its two buttons; Back saves and closes.
        QKFeedback::showFeedback();
        tapMenu(2);
        QKFeedbackSettingsViewController *name = nullptr;
        QTRY_VERIFY((name = topScreen<QKFeedbackSettingsViewController>()));
        QVERIFY(name->continueButton()->isHidden() && name->sendAnonymousButton()->isHidden());
        QCOMPARE(shownNavigation()->navigationBar()->tintColor(), QColor::fromRgbF(10 / 255.0, 96 / 255.0, 1.0));
        tapView(m_window, name->nameTextField());
        QTest::keyClicks(name->nameTextField()->lineEdit(), QStringLiteral("  Bo \t"));
        tapBarItem(name->navigationItem()->leftBarButtonItem());
        QTRY_VERIFY(!QKFeedback::feedbackIsShown());
        QCOMPARE(QKFeedback::topMostController(), m_window->rootViewController());
        QCOMPARE(source->userName(), QStringLiteral("Bo"));
        QCOMPARE(QKFeedback::sharedInstance()->settings().value(QStringLiteral("Name")),
                 QVariant(QStringLiteral("Bo")));

        // A name of only blanks is saved as empty, so the next send asks again.
        QKFeedback::showFeedback();
        tapMenu(2);
        QTRY_VERIFY((name = topScreen<QKFeedbackSettingsViewController>()));
        QCOMPARE(name->nameTextField()->text(), QStringLiteral("Bo"));
        name->nameTextField()->setText(QStringLiteral("   "));
        tapBarItem(name->navigationItem()->leftBarButtonItem());
        QTRY_VERIFY(!QKFeedback::feedbackIsShown());
        QCOMPARE(source->userName(), QStringLiteral(""));
    }

    void sendThroughTheLocalSource()
    {
        auto source = QSharedPointer<QKLocalFeedbackSource>::create();
        QKFeedback::setDataSource(source);
        QKFeedbackSendViewController *screen = nullptr;
        QList<QPointF> centres;
        annotateAndSend(&screen, &centres, QStringLiteral("tour-menu-open"));
        QVERIFY(screen);
        QCOMPARE(centres.size(), 2);

        // No name yet: the name screen, with both buttons.
        QKFeedbackSettingsViewController *name = nullptr;
        QTRY_VERIFY((name = topScreen<QKFeedbackSettingsViewController>()));
        QVERIFY(!name->continueButton()->isHidden() && !name->sendAnonymousButton()->isHidden());
        tapView(m_window, name->nameTextField());
        QTest::keyClicks(name->nameTextField()->lineEdit(), QStringLiteral("Ada"));
        save(QStringLiteral("tour-name-screen"));
        tapView(m_window, name->continueButton());

        QTRY_COMPARE(QKAlertView::visibleAlerts().size(), 1);
        QKAlertView *alert = QKAlertView::visibleAlerts().first();
        QCOMPARE(alert->title(), QStringLiteral("Wendax platform"));
        QCOMPARE(alert->message(), QStringLiteral("Your feedback was sent"));
        save(QStringLiteral("tour-sent-alert"));
        QTRY_VERIFY(!QKFeedback::feedbackIsShown());
        QCOMPARE(QKFeedback::topMostController(), m_window->rootViewController());
        tapWindow(m_window, alert->rectForButtonAtIndex(0).center());
        QTRY_VERIFY(QKAlertView::visibleAlerts().isEmpty());

        // Two items, each with the whole screenshot and only its own marker.
        const QKFeedbackItemList items = source->items();
        QCOMPARE(items.size(), 2);
        QCOMPARE(items[0]->text(), QStringLiteral("Too small"));
        QCOMPARE(items[1]->text(), QStringLiteral("Wrong colour"));
        for (int i = 0; i < 2; ++i) {
            const QImage image = items[i]->image();
            QCOMPARE(items[i]->state(), QStringLiteral("Open"));
            QVERIFY(items[i]->createdAt().isValid());
            QCOMPARE(image.size(), QSize(1179, 2556));
            const QPointF own = centres[i], other = centres[1 - i];
            QCOMPARE(pixel(image, own), QColor(Qt::white));                 // centre
            QCOMPARE(pixel(image, own + QPointF(11, 0)), QColor(Qt::red));  // ring
            QCOMPARE(pixel(image, own + QPointF(0, -11)), QColor(Qt::red)); // ring
            QCOMPARE(pixel(image, own + QPointF(17, 0)), HostColour);       // outside, 30 points wide
            QCOMPARE(pixel(image, other), HostColour);                      // no other marker
            QCOMPARE(pixel(image, other + QPointF(11, 0)), HostColour);
        }
    }

    void transitionStyle()
    {
        // With animations on, style 0 slides the screens up; a negative style shows them at once.
        QKAnimation::setAnimationsEnabled(true);
        for (const qint64 style : {qint64(-1), qint64(0)}) {
            QKFeedback::sharedInstance()->showFeedback(style);
            tapMenu(2);
            QKFeedbackSettingsViewController *name = nullptr;
            QTRY_VERIFY((name = topScreen<QKFeedbackSettingsViewController>()));
            const int shownAt = shownNavigation()->view()->geometry().top();
            if (style < 0)
                QCOMPARE(shownAt, 0);
            else
                QVERIFY2(shownAt > 0, "the screens did not slide in");
            QTRY_COMPARE(shownNavigation()->view()->geometry().top(), 0);
            tapBarItem(name->navigationItem()->leftBarButtonItem());
            QTRY_VERIFY(!QKFeedback::feedbackIsShown());
        }
        QKAnimation::setAnimationsEnabled(false);
    }

    void savedNameComesBackInANewProcess()
    {
        QProcess process;
        process.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--saved-name"), m_documents.path()});
        QVERIFY(process.waitForFinished(30000));
        QCOMPARE(process.readAllStandardOutput().trimmed(), QByteArray("Ada"));
    }

    // Send with a comment bar open: input goes off under a centred grey spinner, but the
    // bar keeps editing; a failure shows the captions' title, and a second Send sends the
    // same items, the marker being edited with the comment it had before the edit.
    void sendWithTheCommentBarOpen()
    {
        auto source = QSharedPointer<HeldSource>::create();
        QKFeedback::setDataSource(source);
        source->setUserName(QStringLiteral("Ada"));
        QKFeedback::feedbackSettings()->feedbackSentAlertTitle = QStringLiteral("Not this time");
        QKFeedback::showFeedback();
        tapMenu(0);
        QKFeedbackSendViewController *screen = nullptr;
        QTRY_VERIFY((screen = topScreen<QKFeedbackSendViewController>()));
        comment(screen, QPointF(60, 80), QStringLiteral("Too small"));
        tapWindow(m_window, screen->surfaceView()->convertPointToView(QPointF(200, 300), nullptr));
        QTRY_VERIFY(screen->textView() && screen->textView()->textField()->isFirstResponder());
        QTest::keyClicks(screen->textView()->textField()->lineEdit(), QStringLiteral("half"));

        for (int round = 0; round < 2; ++round) {
            tapBarItem(screen->navigationItem()->rightBarButtonItem());
            QCOMPARE(source->batches.size(), round + 1);
            QKViewController *top = shownNavigation();
            QVERIFY(!top->view()->isUserInteractionEnabled());
            const auto spinners = top->view()->findChildren<QKActivityIndicatorView *>();
            QCOMPARE(spinners.size(), 1);
            QCOMPARE(spinners.first()->style(), QKActivityIndicatorView::Gray);
            QVERIFY(spinners.first()->isAnimating());
            QCOMPARE(spinners.first()->center(), top->view()->bounds().center());
            QVERIFY(screen->textView() && screen->textView()->textField()->isFirstResponder());

            source->pending(QKError::withMessage(QStringLiteral("Wendax Platform"), 507, QStringLiteral("Full")));
            QTRY_COMPARE(QKAlertView::visibleAlerts().size(), 1);
            QPointer<QKAlertView> alert = QKAlertView::visibleAlerts().first();
            QCOMPARE(alert->title(), QStringLiteral("Not this time"));
            QCOMPARE(alert->message(), QStringLiteral("Full"));
            QCOMPARE(alert->buttonTitles(), QStringList{QStringLiteral("OK")});
            QVERIFY(top->view()->isUserInteractionEnabled());
            QTRY_VERIFY(top->view()->findChildren<QKActivityIndicatorView *>().isEmpty());
            tapWindow(m_window, alert->rectForButtonAtIndex(0).center());
            QTRY_VERIFY(!alert);

            QCOMPARE(screen->surfaceView()->feedbackPoints().size(), 2);
            QVERIFY(screen->textView());
            QCOMPARE(screen->textView()->textField()->text(), QStringLiteral("half"));
        }
        for (const QKFeedbackItemList &batch : std::as_const(source->batches)) {
            QCOMPARE(batch.size(), 2);
            QCOMPARE(batch[0]->text(), QStringLiteral("Too small"));
            QVERIFY(batch[1]->text().isNull()); // a new marker had no comment before the edit
        }
        tapBarItem(screen->navigationItem()->leftBarButtonItem());
        QTRY_VERIFY(!QKFeedback::feedbackIsShown());
        QKFeedback::feedbackSettings()->feedbackSentAlertTitle = QKFeedbackSettings().feedbackSentAlertTitle;
    }

    void failureKeepsTheSendScreen()
    {
        // Back to no name, so that the name screen is on top when the answer comes.
        QKFeedback::sharedInstance()->settings().insert(QStringLiteral("Name"), QStringLiteral(""));
        auto session = QSharedPointer<QKURLSession>::create();
        session->addCaCertificates(FakeService::caCertificates());
        // A key the service does not know at first, so it refuses the items.
        auto source = QSharedPointer<QKPlatformFeedbackSource>::create(
            QStringLiteral("unknown"), QStringLiteral("device"), m_service.baseUrl(), QVariantMap());
        source->setSession(session);
        QKFeedback::setDataSource(source);

        QKFeedbackSendViewController *screen = nullptr;
        annotateAndSend(&screen);
        QVERIFY(screen);
        QKFeedbackSettingsViewController *name = nullptr;
        QTRY_VERIFY((name = topScreen<QKFeedbackSettingsViewController>()));
        tapView(m_window, name->nameTextField());
        QTest::keyClicks(name->nameTextField()->lineEdit(), QStringLiteral("Ada"));
        tapView(m_window, name->continueButton());

        QTRY_COMPARE(QKAlertView::visibleAlerts().size(), 1);
        QCOMPARE(QKAlertView::visibleAlerts().first()->message(),
                 TestService::message(QKServiceRefusal::UnknownApplication));
        QTRY_COMPARE(topScreen<QKFeedbackSendViewController>(), screen); // the name screen popped
        QVERIFY(QKFeedback::feedbackIsShown());
        const auto points = screen->surfaceView()->feedbackPoints();
        QCOMPARE(points.size(), 2);
        QCOMPARE(points[1]->annotationText(), QStringLiteral("Wrong colour"));
        QKAlertView::visibleAlerts().first()->dismissWithClickedButtonIndex(0, false);

        // With the alert switched off, a failure shows nothing.
        QKFeedback::feedbackSettings()->showFeedbackSentAlert = false;
        const int before = m_service.requests().size();
        tapBarItem(screen->navigationItem()->rightBarButtonItem());
        QTRY_VERIFY(m_service.requests().size() > before);
        QTRY_VERIFY(shownNavigation()->view()->isUserInteractionEnabled()); // the answer came back
        QVERIFY(QKAlertView::visibleAlerts().isEmpty());
        QVERIFY(QKFeedback::feedbackIsShown());

        // Then, with the right key, the service takes them: both items arrive, and the
        // screens close silently.
        source->setApiKey(m_service.apiKey());
        tapBarItem(screen->navigationItem()->rightBarButtonItem());
        QTRY_VERIFY(!QKFeedback::feedbackIsShown());
        QVERIFY(QKAlertView::visibleAlerts().isEmpty());
        const QList<QKServiceThread> threads = m_service.threads(R"({"Uid":"device"})");
        QCOMPARE(threads.size(), 2);
        for (const QKServiceThread &thread : threads) {
            QCOMPARE(thread.author, QStringLiteral("Ada"));
            QCOMPARE(QKPNGCodec::decode(m_service.store()->image(thread.imageId).value_or(QByteArray())).size(),
                     QSize(1179, 2556));
        }
        QCOMPARE(QSet<QString>({threads[0].text, threads[1].text}),
                 QSet<QString>({QStringLiteral("Too small"), QStringLiteral("Wrong colour")}));
        QKFeedback::feedbackSettings()->showFeedbackSentAlert = true;
    }
};

int main(int argc, char **argv)
{
    // A second process reads the saved name back.
    if (argc == 3 && std::strcmp(argv[1], "--saved-name") == 0) {
        QCoreApplication app(argc, argv);
        QKSetDocumentsDirectory(QString::fromLocal8Bit(argv[2]));
        std::printf("%s\n",
                    qPrintable(QKFeedback::sharedInstance()->settings().value(QStringLiteral("Name")).toString()));
        return 0;
    }
    qputenv("QT_SCALE_FACTOR", "3");
    QApplication app(argc, argv);
    TestFeedback test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_qkfeedback.moc"
