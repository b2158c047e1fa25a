// Views, controllers, presentation, navigation, alerts and sheets, driven as a person would.

#include "kit/QKActionSheet.h"
#include "kit/QKActionSheetDelegate.h"
#include "kit/QKAlertView.h"
#include "kit/QKAnimation.h"
#include "kit/QKApplication.h"
#include "kit/QKDevice.h"
#include "kit/QKKeyboard.h"
#include "kit/QKNavigationBar.h"
#include "kit/QKNavigationController.h"
#include "kit/QKNotificationCenter.h"
#include "kit/QKScreen.h"
#include "kit/QKWindow.h"
#include "support/ScreenDriver.h"

#include <QApplication>
#include <QLineEdit>
#include <QScreen>
#include <QtTest>

using ScreenDriver::tapWindow;

namespace {

// Records its lifecycle calls and taps.
class Probe : public QKViewController
{
public:
    explicit Probe(QStringList *log, const QString &name) : m_log(log), m_name(name) {}
    ~Probe() override { m_log->append(m_name + QStringLiteral(" deleted")); }
    void viewDidLoad() override
    {
        m_log->append(m_name + QStringLiteral(" loaded"));
        view()->setBackgroundColor(Qt::white);
    }
    void viewDidLayoutSubviews() override
    {
        m_log->append(m_name +
                      QStringLiteral(" layout %1x%2").arg(view()->frame().width()).arg(view()->frame().height()));
    }
    void touchesEnded(const QPointF &location) override { taps.append(location); }
    QList<QPointF> taps;

private:
    QStringList *m_log;
    QString m_name;
};

class Delegate : public QKActionSheetDelegate
{
public:
    QList<int> clicked;
    QList<int> dismissed;
    void actionSheetClickedButtonAtIndex(QKActionSheet *, int index) override { clicked.append(index); }
    void actionSheetDidDismissWithButtonIndex(QKActionSheet *, int index) override { dismissed.append(index); }
};

// A real press and release on the overlay, at a point given in window coordinates.
void tapOverlay(QKView *overlay, const QPointF &inWindow)
{
    QVERIFY(overlay);
    QTest::mouseClick(overlay, Qt::LeftButton, {}, overlay->mapFrom(overlay->window(), inWindow.toPoint()));
}

bool isGrey(QRgb pixel)
{
    return qRed(pixel) > 120 && qRed(pixel) < 235 && qRed(pixel) == qGreen(pixel) && qGreen(pixel) == qBlue(pixel);
}

} // namespace

class TestViewController : public QObject
{
    Q_OBJECT

    QKWindow *m_window = nullptr;
    QStringList m_log;

private slots:
    void init()
    {
        m_log.clear();
        QKAnimation::setAnimationsEnabled(true);
        m_window = new QKWindow(QSizeF(393, 852));
        m_window->makeKeyAndVisible();
        QVERIFY(QTest::qWaitForWindowExposed(m_window));
    }
    void cleanup()
    {
        delete m_window;
        // Every controller that was shown goes with its window: none is left behind.
        const auto names = [this](const QString &suffix) {
            QStringList out;
            for (const QString &line : std::as_const(m_log))
                if (line.endsWith(suffix))
                    out.append(line.chopped(suffix.size()));
            return out;
        };
        for (const QString &name : names(QStringLiteral(" loaded")))
            QTRY_VERIFY2(names(QStringLiteral(" deleted")).contains(name), qPrintable(name));
    }

    void viewsAutoresizeAndLayOut()
    {
        QKView parent(QRectF(0, 0, 200, 100));
        auto *stretchy = new QKView(QRectF(10, 10, 180, 80));
        stretchy->setAutoresizingMask(QKView::FlexibleWidth | QKView::FlexibleHeight);
        auto *pinnedRight = new QKView(QRectF(150, 10, 40, 20));
        pinnedRight->setAutoresizingMask(QKView::FlexibleLeftMargin);
        auto *centred = new QKView(QRectF(80, 40, 40, 20));
        centred->setAutoresizingMask(QKView::FlexibleLeftMargin | QKView::FlexibleRightMargin);
        parent.addSubview(stretchy);
        parent.addSubview(pinnedRight);
        parent.addSubview(centred);
        parent.setFrame(QRectF(0, 0, 300, 150));
        QCOMPARE(stretchy->frame(), QRectF(10, 10, 280, 130));
        QCOMPARE(pinnedRight->frame(), QRectF(250, 10, 40, 20));
        QCOMPARE(centred->frame(), QRectF(130, 40, 40, 20));
        QCOMPARE(centred->center(), QPointF(150, 50));
        // Fractional frames are kept exactly; the widget shows them rounded.
        stretchy->setFrame(QRectF(17.323944091796875, 0, 225.35211181640625, 400));
        QCOMPARE(stretchy->frame().x(), 17.323944091796875);
        QCOMPARE(stretchy->geometry(), QRect(17, 0, 226, 400));
        QCOMPARE(stretchy->convertPointToView(QPointF(1, 2), &parent), QPointF(18.323944091796875, 2));
    }

    void lifecycleOrder()
    {
        auto *root = new Probe(&m_log, QStringLiteral("root"));
        QVERIFY(!root->isViewLoaded());
        m_window->setRootViewController(root);
        QCOMPARE(m_log.value(0), QStringLiteral("root loaded"));
        QCOMPARE(m_log.count(QStringLiteral("root loaded")), 1);
        QVERIFY(m_log.contains(QStringLiteral("root layout 393x852")));
        root->view();
        QCOMPARE(m_log.count(QStringLiteral("root loaded")), 1); // loaded once
        m_log.clear();
        m_window->setFrame(QRectF(0, 0, 852, 393)); // rotate
        QCOMPARE(m_log, QStringList{QStringLiteral("root layout 852x393")});
        // A tap on the root view reaches the controller with its location.
        tapWindow(root->view(), QPointF(40, 60));
        QCOMPARE(root->taps, QList<QPointF>{QPointF(40, 60)});
    }

    void presentAndDismiss()
    {
        auto *root = new Probe(&m_log, QStringLiteral("root"));
        m_window->setRootViewController(root);
        QCOMPARE(m_window->topMostController(), root);
        auto *first = new Probe(&m_log, QStringLiteral("first"));
        bool presented = false;
        root->presentViewController(first, true, [&] { presented = true; });
        QVERIFY(!presented); // after the transition, not during the call
        QTRY_VERIFY(presented);
        QCOMPARE(first->view()->frame(), QRectF(0, 0, 393, 852));
        auto *second = new Probe(&m_log, QStringLiteral("second"));
        first->presentViewController(second, false);
        QCOMPARE(m_window->topMostController(), second);
        QCOMPARE(second->presentingViewController(), first);
        // A second presentation from the same controller is refused.
        auto *refused = new Probe(&m_log, QStringLiteral("refused"));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("cannot present")));
        first->presentViewController(refused, false);
        QCOMPARE(first->presentedViewController(), second);
        delete refused;

        // Called on a controller that presents, it closes what it presents.
        second->view();
        first->dismissViewControllerAnimated(false);
        QCOMPARE(m_window->topMostController(), first);
        QTRY_VERIFY(m_log.contains(QStringLiteral("second deleted")));
        first->presentViewController(new Probe(&m_log, QStringLiteral("third")), false);

        // Dismissing from the root closes everything above it; the completion comes after.
        QStringList order;
        QPointer<QKView> firstView = first->view();
        root->dismissViewControllerAnimated(true, [&] {
            order.append(QStringLiteral("completion"));
            order.append(firstView && firstView->isVisible() ? QStringLiteral("still shown") : QStringLiteral("gone"));
        });
        QCOMPARE(m_window->topMostController(), root);
        QVERIFY(order.isEmpty());
        QTRY_COMPARE(order.size(), 2);
        QCOMPARE(order.last(), QStringLiteral("gone"));
        QTRY_VERIFY(m_log.contains(QStringLiteral("first deleted")) && m_log.contains(QStringLiteral("third deleted")));
        QCOMPARE(root->presentedViewController(), nullptr);
    }

    void navigation()
    {
        auto *rootScreen = new Probe(&m_log, QStringLiteral("a"));
        rootScreen->setTitle(QStringLiteral("Your feedback"));
        int backs = 0;
        rootScreen->navigationItem()->setLeftBarButtonItem(
            new QKBarButtonItem(QStringLiteral("Back"), QKBarButtonItem::Done, [&](QKBarButtonItem *) { ++backs; }));
        auto *navigation = new QKNavigationController(rootScreen);
        m_window->setRootViewController(new QKViewController);
        m_window->rootViewController()->presentViewController(navigation, false);
        QKNavigationBar *bar = navigation->navigationBar();
        QVERIFY(!bar->isTranslucent());
        QCOMPARE(bar->shownTitle(), QStringLiteral("Your feedback"));
        // Screens start below an opaque bar.
        QCOMPARE(rootScreen->view()->frame(), QRectF(0, 44, 393, 808));
        tapWindow(bar, bar->rectForItem(rootScreen->navigationItem()->leftBarButtonItem()).center());
        QCOMPARE(backs, 1);
        rootScreen->navigationItem()->leftBarButtonItem()->setEnabled(false);
        tapWindow(bar, bar->rectForItem(rootScreen->navigationItem()->leftBarButtonItem()).center());
        QCOMPARE(backs, 1);

        auto *pushed = new Probe(&m_log, QStringLiteral("b"));
        pushed->setTitle(QStringLiteral("Feedback"));
        navigation->pushViewController(pushed, true);
        QCOMPARE(navigation->viewControllers(), (QList<QKViewController *>{rootScreen, pushed}));
        QCOMPARE(pushed->navigationController(), navigation);
        QCOMPARE(bar->shownTitle(), QStringLiteral("Feedback"));
        QTRY_COMPARE(pushed->view()->geometry().topLeft(), QPoint(0, 44)); // slid in
        QTRY_VERIFY(rootScreen->view()->isHidden());
        // A pushed screen without a left button of its own gets a back button that pops.
        QKBarButtonItem *back = bar->leftItem();
        QVERIFY(back);
        QCOMPARE(back->title(), QStringLiteral("\u2039 Your feedback"));
        auto *second = new Probe(&m_log, QStringLiteral("c"));
        navigation->pushViewController(second, false);
        tapWindow(bar, bar->rectForItem(bar->leftItem()).center());
        QCOMPARE(navigation->topViewController(), pushed);
        QTRY_VERIFY(m_log.contains(QStringLiteral("c deleted")));
        QCOMPARE(navigation->popViewControllerAnimated(true), pushed);
        QCOMPARE(navigation->viewControllers(), QList<QKViewController *>{rootScreen});
        QCOMPARE(bar->shownTitle(), QStringLiteral("Your feedback"));
        QTRY_VERIFY(m_log.contains(QStringLiteral("b deleted")));
        QVERIFY(!rootScreen->view()->isHidden());
        QCOMPARE(navigation->popViewControllerAnimated(true), nullptr); // never the root

        // A screen its host deletes leaves the stack; the one below shows again.
        auto *deleted = new Probe(&m_log, QStringLiteral("d"));
        navigation->pushViewController(deleted, false);
        QVERIFY(rootScreen->view()->isHidden());
        delete deleted;
        QCOMPARE(navigation->viewControllers(), QList<QKViewController *>{rootScreen});
        QCOMPARE(bar->shownTitle(), QStringLiteral("Your feedback"));
        QVERIFY(!rootScreen->view()->isHidden());
        QCOMPARE(navigation->popViewControllerAnimated(false), nullptr);
    }

    void interactionOff()
    {
        auto *root = new Probe(&m_log, QStringLiteral("root"));
        m_window->setRootViewController(root);
        auto *cover = new QKView(QRectF(0, 0, 200, 200));
        auto *inner = new QKView(QRectF(10, 10, 100, 100));
        cover->addSubview(inner);
        auto *field = new QLineEdit(inner);
        field->setGeometry(0, 0, 80, 30);
        field->show();
        root->view()->addSubview(cover);
        cover->setUserInteractionEnabled(false);
        // The tap falls through to the root view, and so to the controller.
        tapWindow(m_window, QPointF(50, 50));
        QCOMPARE(root->taps.size(), 1);
        field->setFocus();
        QTest::keyClicks(field, QStringLiteral("abc"));
        QCOMPARE(field->text(), QString());           // keys stop too
        QCOMPARE(cover->backgroundColor(), QColor()); // the look is unchanged
        cover->setUserInteractionEnabled(true);
        field->setFocus();
        QTest::keyClicks(field, QStringLiteral("abc"));
        QCOMPARE(field->text(), QStringLiteral("abc"));
    }

    void animations()
    {
        QKView view(QRectF(0, 0, 100, 100));
        bool done = false;
        QKAnimation::animate(
            0.2, [&] { view.setFrame(QRectF(50, 0, 100, 100)); }, [&](bool) { done = true; });
        QCOMPARE(view.frame(), QRectF(50, 0, 100, 100)); // the model moves at once
        QVERIFY(view.geometry().x() < 50);               // what is shown follows
        QTRY_VERIFY(done);
        QCOMPARE(view.geometry().x(), 50);
        // Off: applied at once, the completion still runs, queued.
        QKAnimation::setAnimationsEnabled(false);
        done = false;
        QKAnimation::animate(
            0.2, [&] { view.setFrame(QRectF(0, 0, 100, 100)); }, [&](bool) { done = true; });
        QCOMPARE(view.geometry().x(), 0);
        QVERIFY(!done);
        QTRY_VERIFY(done);
    }

    void hostWindowAndSnapshot()
    {
        QWidget host;
        host.resize(300, 200);
        host.setStyleSheet(QStringLiteral("background: rgb(255, 0, 0);"));
        host.show();
        QVERIFY(QTest::qWaitForWindowExposed(&host));
        QKWindow *window = QKWindow::attach(&host);
        QCOMPARE(QKWindow::attach(&host), window);
        QKViewController *root = window->rootViewController();
        QVERIFY(root);
        const QImage shot = root->view()->snapshot();
        QCOMPARE(shot.size(), QSize(300, 200) * host.devicePixelRatioF());
        QCOMPARE(QColor(shot.pixel(10, 10)), QColor(255, 0, 0));
        // Something presented over a host covers it and takes its taps.
        QVERIFY(window->isHidden());
        root->presentViewController(new Probe(&m_log, QStringLiteral("over")), false);
        QVERIFY(!window->isHidden());
        QCOMPARE(window->topMostController()->view()->frame(), QRectF(0, 0, 300, 200));
    }
    void actionSheetButtons_data()
    {
        QTest::addColumn<QString>("destructive");
        QTest::addColumn<QStringList>("titles");
        QTest::newRow("destructive") << "Delete" << QStringList{"Delete", "Copy", "Share", "Cancel"};
        QTest::newRow("none") << QString() << QStringList{"Copy", "Share", "Cancel"};
    }

    void actionSheetButtons()
    {
        QFETCH(QString, destructive);
        QFETCH(QStringList, titles);
        const int cancel = int(titles.size()) - 1;
        // Each tap dismisses its sheet: one sheet per button, then one for the dim.
        for (int index = 0; index <= titles.size(); ++index) {
            Delegate delegate;
            auto *sheet = new QKActionSheet("Share this?", &delegate, "Cancel", destructive, {"Copy", "Share"});
            QPointer<QKActionSheet> guard(sheet);
            QCOMPARE(sheet->numberOfButtons(), titles.size());
            for (int i = 0; i < titles.size(); ++i)
                QCOMPARE(sheet->buttonTitleAtIndex(i), titles[i]);
            QCOMPARE(sheet->cancelButtonIndex(), cancel);
            QCOMPARE(sheet->destructiveButtonIndex(), destructive.isEmpty() ? -1 : 0);

            sheet->showInView(m_window);
            QCOMPARE(QKActionSheet::visibleSheets(), QList<QKActionSheet *>{sheet});
            for (int i = 0; i < cancel; ++i)
                QVERIFY(sheet->rectForButtonAtIndex(i).bottom() < sheet->rectForButtonAtIndex(cancel).top());
            QVERIFY(m_window->rect().contains(sheet->rectForButtonAtIndex(cancel).toRect()));

            const bool onDim = index == titles.size();
            tapOverlay(sheet->view(), onDim ? QPointF(20, 20) : sheet->rectForButtonAtIndex(index).center());
            const int expected = onDim ? cancel : index;
            QCOMPARE(delegate.clicked, QList<int>{expected});
            QVERIFY(QKActionSheet::visibleSheets().isEmpty());
            QVERIFY(delegate.dismissed.isEmpty());
            QTRY_COMPARE(delegate.dismissed, QList<int>{expected});
            QTRY_VERIFY(guard.isNull());
        }
    }

    void sheetGoesWithItsWindow()
    {
        auto *window = new QKWindow(QSizeF(320, 480));
        window->show();
        Delegate delegate;
        QPointer<QKActionSheet> sheet = new QKActionSheet(QString(), &delegate, "Cancel", QString(), {"Copy"});
        sheet->showInView(window);
        QVERIFY(window->isAncestorOf(sheet->view()));
        delete window;
        QVERIFY(QKActionSheet::visibleSheets().isEmpty());
        QTRY_VERIFY(sheet.isNull());
        QVERIFY(delegate.dismissed.isEmpty());
    }

    void alertButtons_data()
    {
        QTest::addColumn<QStringList>("others");
        QTest::newRow("side by side") << QStringList{"Send"};
        QTest::newRow("stacked") << QStringList{"Send", "Later"};
    }

    void alertButtons()
    {
        QFETCH(QStringList, others);
        for (int index = 0; index <= others.size(); ++index) {
            auto *alert = new QKAlertView("Feedback", "Send it now?", "Cancel", others);
            QPointer<QKAlertView> guard(alert);
            QCOMPARE(alert->buttonTitles(), QStringList{"Cancel"} + others);
            int handled = -1;
            alert->setDismissHandler([&handled](int button) { handled = button; });
            QSignalSpy dismissed(alert, &QKAlertView::dismissed);
            alert->show();
            QVERIFY(alert->isVisible());
            QCOMPARE(QKAlertView::visibleAlerts(), QList<QKAlertView *>{alert});

            tapOverlay(alert->view(), QPointF(20, 20));
            QVERIFY(alert->isVisible());
            tapOverlay(alert->view(), alert->rectForButtonAtIndex(index).center());
            QVERIFY(QKAlertView::visibleAlerts().isEmpty());
            QVERIFY(dismissed.wait());
            QCOMPARE(dismissed.takeFirst().at(0).toInt(), index);
            QCOMPARE(handled, index);
            QTRY_VERIFY(guard.isNull());
        }

        auto *first = new QKAlertView("First", QString(), "OK");
        auto *second = new QKAlertView("Second", QString(), QString(), {"Yes", "No"});
        QCOMPARE(second->cancelButtonIndex(), -1);
        first->show();
        second->show();
        QCOMPARE(QKAlertView::visibleAlerts(), (QList<QKAlertView *>{first, second}));
        int handled = -1;
        first->setDismissHandler([&handled](int button) { handled = button; });
        first->dismissWithClickedButtonIndex(0, false);
        QCOMPARE(handled, 0);
        QCOMPARE(QKAlertView::visibleAlerts(), QList<QKAlertView *>{second});
        second->dismissWithClickedButtonIndex(1, false);
        QVERIFY(QKAlertView::visibleAlerts().isEmpty());
    }

    void keyboardNotices()
    {
        QKNotificationCenter *center = QKNotificationCenter::defaultCenter();
        QStringList calls;
        auto *first = new QObject;
        auto *second = new QObject;
        auto *third = new QObject;
        const QRectF frame(0, 852, 393, 291);
        center->addObserver(first, QKKeyboard::WillShowNotification, [&](const QKNotification &notification) {
            QCOMPARE(notification.userInfo().value(QKKeyboard::FrameBeginUserInfoKey).toRectF(), frame);
            calls << "first";
        });
        bool dropThird = false;
        center->addObserver(second, QKKeyboard::WillShowNotification, [&](const QKNotification &) {
            calls << "second";
            if (dropThird)
                delete third;
        });
        center->addObserver(second, QKKeyboard::WillHideNotification, [&](const QKNotification &) { calls << "hide"; });
        center->addObserver(third, QKKeyboard::WillShowNotification, [&](const QKNotification &) { calls << "third"; });

        const QVariantMap info{{QKKeyboard::FrameBeginUserInfoKey, frame}};
        center->postNotification(QKKeyboard::WillShowNotification, info);
        QCOMPARE(calls, (QStringList{"first", "second", "third"}));

        calls.clear();
        delete first;
        // An observer destroyed by an earlier one in the same post is not called.
        dropThird = true;
        center->postNotification(QKKeyboard::WillShowNotification, info);
        QCOMPARE(calls, QStringList{"second"});

        calls.clear();
        center->removeObserver(second, QKKeyboard::WillShowNotification);
        center->postNotification(QKKeyboard::WillShowNotification, info);
        center->postNotification(QKKeyboard::WillHideNotification, info);
        QCOMPARE(calls, QStringList{"hide"});
        center->removeObserver(second);
        center->postNotification(QKKeyboard::WillHideNotification, info);
        QCOMPARE(calls, QStringList{"hide"});
        delete second;
    }

    void deviceAndScreen()
    {
        QKDevice *device = QKDevice::currentDevice();
        QScreen *screen = QGuiApplication::primaryScreen();
        int posted = 0;
        QObject observer;
        QKNotificationCenter::defaultCenter()->addObserver(&observer, QKDevice::OrientationDidChangeNotification,
                                                           [&posted](const QKNotification &) { ++posted; });
        auto turn = [screen] { emit screen->orientationChanged(Qt::InvertedPortraitOrientation); };

        turn();
        QCOMPARE(posted, 0);
        device->beginGeneratingDeviceOrientationNotifications();
        device->beginGeneratingDeviceOrientationNotifications();
        turn();
        device->endGeneratingDeviceOrientationNotifications();
        turn();
        QCOMPARE(posted, 2);
        device->endGeneratingDeviceOrientationNotifications();
        QVERIFY(!device->isGeneratingDeviceOrientationNotifications());
        turn();
        QCOMPARE(posted, 2);
        // An unbalanced end must not swallow the next begin.
        device->endGeneratingDeviceOrientationNotifications();
        device->beginGeneratingDeviceOrientationNotifications();
        turn();
        QCOMPARE(posted, 3);
        device->endGeneratingDeviceOrientationNotifications();
        // The offscreen screen is wider than tall: the device lies on its left side, the interface turns right.
        QCOMPARE(device->orientation(), QKDevice::OrientationLandscapeLeft);
        QCOMPARE(QKApplication::sharedApplication()->statusBarOrientation(),
                 QKApplication::InterfaceOrientationLandscapeRight);
        QCOMPARE(QKApplication::sharedApplication()->keyWindow(), m_window);
        QCOMPARE(QKScreen::mainScreen()->bounds(), QRectF(QPointF(0, 0), QSizeF(screen->size())));
        QCOMPARE(QKScreen::mainScreen()->scale(), 3.0);
    }

    void pictures()
    {
        QKAnimation::setAnimationsEnabled(false);
        auto *alert = new QKAlertView("Send Feedback?",
                                      "Your message and a screenshot of this screen go to the developers of the app.",
                                      "Cancel", {"Send"});
        alert->show();
        const QImage image = m_window->snapshot();
        // Dimmed around the card, white on it (sheets share the panel; the tour shows one).
        QVERIFY(isGrey(image.pixel(30, 30)));
        const QPointF card = alert->rectForButtonAtIndex(0).topLeft() + QPointF(10, -10);
        QCOMPARE(image.pixel((card * 3).toPoint()), qRgb(255, 255, 255));
        QVERIFY(image.save(MURMORA_TEST_OUTPUT "/tst_qkalerts-alert.png"));
        alert->dismissWithClickedButtonIndex(0, false);
        QKAnimation::setAnimationsEnabled(true);
    }
};

int main(int argc, char **argv)
{
    // Pictures at the phone's pixel ratio.
    qputenv("QT_SCALE_FACTOR", "3");
    QApplication app(argc, argv);
    TestViewController test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_qkviewcontroller.moc"
