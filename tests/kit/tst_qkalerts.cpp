#include "kit/QKActionSheet.h"
#include "kit/QKActionSheetDelegate.h"
#include "kit/QKAlertView.h"
#include "kit/QKAnimation.h"
#include "kit/QKApplication.h"
#include "kit/QKDevice.h"
#include "kit/QKKeyboard.h"
#include "kit/QKNotificationCenter.h"
#include "kit/QKScreen.h"
#include "kit/QKWindow.h"

#include <QApplication>
#include <QScreen>
#include <QtTest>

namespace {

class Delegate : public QKActionSheetDelegate
{
public:
    QList<int> clicked;
    QList<int> dismissed;
    void actionSheetClickedButtonAtIndex(QKActionSheet *, int index) override { clicked.append(index); }
    void actionSheetDidDismissWithButtonIndex(QKActionSheet *, int index) override { dismissed.append(index); }
};

// A real press and release on the overlay, at a point given in window coordinates.
void tap(QKView *overlay, const QPointF &inWindow)
{
    QVERIFY(overlay);
    QTest::mouseClick(overlay, Qt::LeftButton, {}, overlay->mapFrom(overlay->window(), inWindow.toPoint()));
}

bool isGrey(QRgb pixel)
{
    return qRed(pixel) > 120 && qRed(pixel) < 235 && qRed(pixel) == qGreen(pixel) && qGreen(pixel) == qBlue(pixel);
}

} // namespace

class TestQKAlerts : public QObject
{
    Q_OBJECT

    QKWindow *m_window = nullptr;

private slots:
    void initTestCase()
    {
        m_window = new QKWindow(QSizeF(393, 852));
        m_window->makeKeyAndVisible();
        QVERIFY(QTest::qWaitForWindowExposed(m_window));
    }
    void cleanupTestCase() { delete m_window; }

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
            tap(sheet->view(), onDim ? QPointF(20, 20) : sheet->rectForButtonAtIndex(index).center());
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

            tap(alert->view(), QPointF(20, 20));
            QVERIFY(alert->isVisible());
            tap(alert->view(), alert->rectForButtonAtIndex(index).center());
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
        QImage image = m_window->snapshot();
        QCOMPARE(image.size(), QSize(393 * 3, 852 * 3));
        // Dimmed around the card, white on it.
        QVERIFY(isGrey(image.pixel(30, 30)));
        const QPointF card = alert->rectForButtonAtIndex(0).topLeft() + QPointF(10, -10);
        QCOMPARE(image.pixel((card * 3).toPoint()), qRgb(255, 255, 255));
        QVERIFY(image.save(MURMORA_TEST_OUTPUT "/tst_qkalerts-alert.png"));
        alert->dismissWithClickedButtonIndex(0, false);

        auto *sheet = new QKActionSheet("What would you like to do?", nullptr, "Cancel", "Delete Feedback",
                                        {"Add a Screenshot", "Edit Message"});
        sheet->showInView(m_window);
        image = m_window->snapshot();
        QVERIFY(isGrey(image.pixel(30, 30)));
        QCOMPARE(image.pixel((sheet->rectForButtonAtIndex(3).topLeft() * 3).toPoint() + QPoint(60, 60)),
                 qRgb(255, 255, 255));
        QVERIFY(image.save(MURMORA_TEST_OUTPUT "/tst_qkalerts-sheet.png"));
        sheet->dismissWithClickedButtonIndex(sheet->cancelButtonIndex(), false);
        QKAnimation::setAnimationsEnabled(true);
    }
};

int main(int argc, char **argv)
{
    // Pictures at the phone's pixel ratio.
    qputenv("QT_SCALE_FACTOR", "3");
    QApplication app(argc, argv);
    TestQKAlerts test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_qkalerts.moc"
