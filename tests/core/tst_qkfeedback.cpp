// The feedback flow end to end, driven as a person would on a phone-size window: the
// menu, markers and comments on the screenshot, the name screen, the send through the
// local source and through one held back, the busy state and the alert. What the flow
// decides is tested on its own in tests/models.

#include "annotation/QKFeedbackSendViewController.h"
#include "annotation/QKFeedbackSurfaceView.h"
#include "annotation/QKFeedbackTextView.h"
#include "base/QKDocumentsDirectory.h"
#include "base/QKUnrecognizedSelectorException.h"
#include "core/WendaxMurmora.h"
#include "data/QKLocalFeedbackSource.h"
#include "kit/QKActionSheet.h"
#include "kit/QKActivityIndicatorView.h"
#include "kit/QKAlertView.h"
#include "kit/QKAnimation.h"
#include "kit/QKButton.h"
#include "kit/QKNavigationBar.h"
#include "kit/QKTextField.h"
#include "screens/QKFeedbackSettingsViewController.h"
#include "support/ScreenDriver.h"

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

} // namespace

class TestFeedback : public QObject
{
    Q_OBJECT

    QTemporaryDir m_documents;
    QKWindow *m_window = nullptr;

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

    // Drops a marker at `where` on the picture (in the surface) and writes its comment,
    // confirmed unless `open` is set.
    void comment(QKFeedbackSendViewController *screen, const QPointF &where, const QString &text, bool open = false)
    {
        tapWindow(m_window, screen->surfaceView()->convertPointToView(where, nullptr));
        QTRY_VERIFY(screen->textView() && screen->textView()->textField()->isFirstResponder());
        QTest::keyClicks(screen->textView()->textField()->lineEdit(), text);
        if (open)
            return;
        tapView(m_window, screen->textView()->sendButton());
        QTRY_VERIFY(!screen->textView());
    }

    // From the menu to the Send tap with two commented markers.
    QKFeedbackSendViewController *annotateAndSend(bool tour = false)
    {
        QKFeedback::showFeedback();
        tapMenu(0);
        QKFeedbackSendViewController *screen = nullptr;
        if (!QTest::qWaitFor([&] { return (screen = topScreen<QKFeedbackSendViewController>()); }))
            return nullptr;
        comment(screen, QPointF(60, 80), QStringLiteral("Too small"));
        comment(screen, QPointF(200, 300), QStringLiteral("Wrong colour"), tour);
        if (tour) {
            save(QStringLiteral("tour-send-screen"));
            tapView(m_window, screen->textView()->sendButton());
        }
        tapBarItem(screen->navigationItem()->rightBarButtonItem());
        return screen;
    }

    QKFeedbackSettingsViewController *nameScreen()
    {
        QKFeedbackSettingsViewController *name = nullptr;
        return QTest::qWaitFor([&] { return (name = topScreen<QKFeedbackSettingsViewController>()); }) ? name : nullptr;
    }

    void save(const QString &name) { ScreenDriver::save(m_window, QStringLiteral(MURMORA_TEST_OUTPUT), name); }

private slots:
    void initTestCase()
    {
        QKSetDocumentsDirectory(m_documents.path());
        QKAnimation::setAnimationsEnabled(false);
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
        QVERIFY(captions.showFeedbackSentAlert());
        QCOMPARE((QStringList{captions.feedbackTitle(), captions.feedbackSentAlertTitle(),
                              captions.feedbackSentAlertText(), captions.feedbackMenuSendCaption(),
                              captions.feedbackMenuMyFeedbackCaption(), captions.feedbackMenuSettingsCaption()}),
                 (QStringList{"Murmora", "Wendax platform", "Your feedback was sent", "Send feedback", "Your feedback",
                              "Settings"}));
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
        QCOMPARE(QColor(shot.pixel(300, 300)), HostColour);
        QKFeedback::sharedInstance()->sendFeedback(); // shown: nothing happens
        QKFeedback::showFeedback();                   // a second call changes nothing
        QCOMPARE(QKActionSheet::visibleSheets().size(), 1);
        QCOMPARE(QKFeedback::sharedInstance()->screenshot().cacheKey(), shot.cacheKey());
        save(QStringLiteral("tour-menu"));
        tapMenu(3);
        QVERIFY(!QKFeedback::feedbackIsShown());

        // Settings: the name screen without its two buttons; Back saves the trimmed name and closes.
        QKFeedback::showFeedback();
        tapMenu(2);
        QKFeedbackSettingsViewController *name = nameScreen();
        QVERIFY(name);
        QVERIFY(name->continueButton()->isHidden() && name->sendAnonymousButton()->isHidden());
        QCOMPARE(shownNavigation()->navigationBar()->tintColor(), QColor::fromRgbF(10 / 255.0, 96 / 255.0, 1.0));
        tapView(m_window, name->nameTextField());
        QTest::keyClicks(name->nameTextField()->lineEdit(), QStringLiteral("  Bo \t"));
        tapBarItem(name->navigationItem()->leftBarButtonItem());
        QTRY_VERIFY(!QKFeedback::feedbackIsShown());
        QCOMPARE(QKFeedback::topMostController(), m_window->rootViewController());
        QCOMPARE(source->userName(), QStringLiteral("Bo"));
        QKFeedback::showFeedback();
        tapMenu(2);
        QVERIFY((name = nameScreen()));
        QCOMPARE(name->nameTextField()->text(), QStringLiteral("Bo"));
        tapBarItem(name->navigationItem()->leftBarButtonItem());
        QTRY_VERIFY(!QKFeedback::feedbackIsShown());
    }

    void sendThroughTheLocalSource()
    {
        QKFeedback::sharedInstance()->settings().insert(QStringLiteral("Name"), QStringLiteral(""));
        auto source = QSharedPointer<QKLocalFeedbackSource>::create();
        QKFeedback::setDataSource(source);
        QVERIFY(annotateAndSend(true));
        // No name yet: the name screen, pushed with both buttons.
        QKFeedbackSettingsViewController *name = nameScreen();
        QVERIFY(name);
        QVERIFY(!name->continueButton()->isHidden() && !name->sendAnonymousButton()->isHidden());
        tapView(m_window, name->nameTextField());
        QTest::keyClicks(name->nameTextField()->lineEdit(), QStringLiteral("Ada"));
        save(QStringLiteral("tour-name-screen"));
        tapView(m_window, name->continueButton());

        QTRY_COMPARE(QKAlertView::visibleAlerts().size(), 1);
        QKAlertView *alert = QKAlertView::visibleAlerts().first();
        QCOMPARE(alert->title(), QStringLiteral("Wendax platform"));
        QCOMPARE(alert->message(), QStringLiteral("Your feedback was sent"));
        QCOMPARE(alert->buttonTitles(), QStringList{QStringLiteral("OK")});
        save(QStringLiteral("tour-sent-alert"));
        QTRY_VERIFY(!QKFeedback::feedbackIsShown());
        QCOMPARE(QKFeedback::topMostController(), m_window->rootViewController());
        tapWindow(m_window, alert->rectForButtonAtIndex(0).center());
        QTRY_VERIFY(QKAlertView::visibleAlerts().isEmpty());
        const QKFeedbackItemList items = source->items();
        QCOMPARE(items.size(), 2);
        QCOMPARE(items[1]->text(), QStringLiteral("Wrong colour"));
        QCOMPARE(items[1]->image().size(), QSize(1179, 2556));
    }

    void transitionStyle()
    {
        // With animations on, a style of 0 or more slides the screens up; a negative one shows them at once.
        QKAnimation::setAnimationsEnabled(true);
        for (const bool animated : {false, true}) {
            if (animated)
                QKFeedback::sharedInstance()->showFeedback(QKFeedback::CoverVertical);
            else
                QKFeedback::sharedInstance()->showFeedback(qint64(-5));
            QCOMPARE(QKFeedback::sharedInstance()->transitionStyle(), animated ? 0 : -5);
            tapMenu(2);
            QKFeedbackSettingsViewController *name = nameScreen();
            QVERIFY(name);
            QCOMPARE(shownNavigation()->view()->geometry().top() > 0, animated);
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

    // Without a name the name screen comes first; then input goes off under a centred grey
    // spinner. A refusal brings the captions' title over the error's message, pops the name
    // screen and keeps the send screen with its markers.
    void busyThenRefused()
    {
        QKFeedback::sharedInstance()->settings().insert(QStringLiteral("Name"), QStringLiteral(""));
        auto source = QSharedPointer<HeldSource>::create();
        QKFeedback::setDataSource(source);
        QKFeedbackSendViewController *screen = annotateAndSend();
        QVERIFY(screen);
        QKFeedbackSettingsViewController *name = nameScreen();
        QVERIFY(name);
        tapView(m_window, name->nameTextField());
        QTest::keyClicks(name->nameTextField()->lineEdit(), QStringLiteral("Ada"));
        tapView(m_window, name->continueButton());
        QCOMPARE(source->batches.size(), 1);
        QKViewController *top = shownNavigation();
        QVERIFY(!top->view()->isUserInteractionEnabled());
        const auto spinners = top->view()->findChildren<QKActivityIndicatorView *>();
        QCOMPARE(spinners.size(), 1);
        QCOMPARE(spinners.first()->style(), QKActivityIndicatorView::Gray);
        QVERIFY(spinners.first()->isAnimating());
        QCOMPARE(spinners.first()->center(), top->view()->bounds().center());

        source->pending(QKError::withMessage(QStringLiteral("Wendax Platform"), 507, QStringLiteral("Full")));
        QTRY_COMPARE(QKAlertView::visibleAlerts().size(), 1);
        QPointer<QKAlertView> alert = QKAlertView::visibleAlerts().first();
        QCOMPARE(alert->title(), QStringLiteral("Wendax platform"));
        QCOMPARE(alert->message(), QStringLiteral("Full"));
        QVERIFY(top->view()->isUserInteractionEnabled());
        QTRY_VERIFY(top->view()->findChildren<QKActivityIndicatorView *>().isEmpty());
        tapWindow(m_window, alert->rectForButtonAtIndex(0).center());
        QTRY_VERIFY(!alert);
        QTRY_COMPARE(topScreen<QKFeedbackSendViewController>(), screen);
        QVERIFY(QKFeedback::feedbackIsShown());
        QCOMPARE(screen->surfaceView()->feedbackPoints().size(), 2);
        QCOMPARE(source->batches.first().size(), 2);
        tapBarItem(screen->navigationItem()->leftBarButtonItem());
        QTRY_VERIFY(!QKFeedback::feedbackIsShown());
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
