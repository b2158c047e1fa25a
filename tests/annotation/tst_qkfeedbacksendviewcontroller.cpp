// The send screen at phone size (393 × 852 points, pixel ratio 3), driven with taps,
// typing and keyboard notices as a person and the system would.

#include "annotation/QKFeedbackSendViewController.h"
#include "annotation/QKFeedbackSendViewControllerDelegate.h"
#include "annotation/QKFeedbackSurfaceView.h"
#include "annotation/QKFeedbackTextView.h"
#include "base/QKDeviceInfo.h"
#include "base/QKDocumentsDirectory.h"
#include "core/QKFeedback.h"
#include "kit/QKAnimation.h"
#include "kit/QKApplication.h"
#include "kit/QKButton.h"
#include "kit/QKImageView.h"
#include "kit/QKKeyboard.h"
#include "kit/QKLabel.h"
#include "kit/QKNavigationBar.h"
#include "kit/QKNavigationController.h"
#include "kit/QKNotificationCenter.h"
#include "kit/QKScrollView.h"
#include "kit/QKTextField.h"
#include "kit/QKWindow.h"

#include <QApplication>
#include <QLineEdit>
#include <QPainter>
#include <QtTest>

namespace {

const QRgb Red = qRgba(255, 0, 0, 255);
const QRgb White = qRgba(255, 255, 255, 255);

QImage phoneScreenshot()
{
    QImage image(1179, 2556, QImage::Format_ARGB32_Premultiplied);
    image.setDevicePixelRatio(3);
    image.fill(QColor(238, 242, 250));
    QPainter painter(&image);
    painter.fillRect(QRectF(0, 0, 393, 90), QColor(52, 120, 246));
    for (int i = 0; i < 8; ++i)
        painter.fillRect(QRectF(20, 120 + i * 85, 353, 65), i % 2 ? QColor(Qt::white) : QColor(255, 214, 160));
    return image;
}

class Sender : public QKFeedbackSendViewControllerDelegate
{
public:
    void sendViewControllerAction(QKFeedbackSendViewController *screen) override
    {
        ++calls;
        items = screen->feedbackItems();
    }
    int calls = 0;
    QKFeedbackItemList items;
};

enum Close { Done, TapElsewhere, FocusLost };

} // namespace

Q_DECLARE_METATYPE(Close)

class TestSendViewController : public QObject
{
    Q_OBJECT

    QTemporaryDir m_documents;
    const QImage m_screenshot = phoneScreenshot();
    QKWindow *m_window = nullptr;
    QKNavigationController *m_navigation = nullptr;
    QKFeedbackSendViewController *m_screen = nullptr;

    QKFeedbackSurfaceView *surface() const { return m_screen->surfaceView(); }
    QKBarButtonItem *sendItem() const { return m_screen->navigationItem()->rightBarButtonItem(); }

    // Clicks whatever widget a person would hit at `point` of `view`.
    void tap(QKView *view, const QPointF &point)
    {
        const QPoint inWindow = view->convertPointToView(point, nullptr).toPoint();
        QWidget *target = m_window->childAt(inWindow) ? m_window->childAt(inWindow) : m_window;
        QTest::mouseClick(target, Qt::LeftButton, {}, target->mapFrom(m_window, inWindow));
    }
    // A tap on the picture at an item-space point; answers the root-view point tapped.
    QPointF tapPicture(const QPointF &item)
    {
        const QPointF root = surface()->frame().topLeft() + surface()->itemPointToSurfacePoint(item);
        tap(m_screen->view(), root);
        return root.toPoint();
    }
    void tapOutside() { tap(m_screen->view(), QPointF(10, 400)); }
    void tapDone() { tap(m_screen->textView()->sendButton(), m_screen->textView()->sendButton()->bounds().center()); }
    void tapBarItem(QKBarButtonItem *item)
    {
        tap(m_navigation->navigationBar(), m_navigation->navigationBar()->rectForItem(item).center());
    }
    void type(const QString &text) { QTest::keyClicks(m_screen->textView()->textField()->lineEdit(), text); }
    QKFeedbackPointPtr addMarker(const QPointF &item, const QString &text)
    {
        tapPicture(item);
        const QKFeedbackPointPtr point = m_screen->currentPoint();
        type(text);
        tapDone();
        return point;
    }
    void close(Close how)
    {
        if (how == Done)
            tapDone();
        else if (how == TapElsewhere)
            tapPicture(QPointF(50, 800));
        else
            m_screen->textView()->textField()->resignFirstResponder();
    }

private slots:
    void initTestCase()
    {
        QKSetDocumentsDirectory(m_documents.path());
        QKAnimation::setAnimationsEnabled(false);
    }
    void init()
    {
        m_window = new QKWindow(QSizeF(393, 852));
        m_window->makeKeyAndVisible();
        QVERIFY(QTest::qWaitForWindowActive(m_window));
        QKFeedback::sharedInstance()->setScreenshot(m_screenshot);
        m_screen = new QKFeedbackSendViewController;
        m_navigation = new QKNavigationController(m_screen);
        m_window->setRootViewController(m_navigation);
    }
    void cleanup() { delete m_window; }

    void fitImage_data()
    {
        QTest::addColumn<QImage>("image");
        QTest::addColumn<QSizeF>("target");
        QTest::addColumn<QRectF>("expected");
        const QRectF worked(17.323944091796875, 0, 225.35211181640625, 400);
        QTest::newRow("worked example") << QImage(640, 1136, QImage::Format_RGB32) << QSizeF(260, 400) << worked;
        QImage sharp(1280, 2272, QImage::Format_RGB32);
        sharp.setDevicePixelRatio(2);
        QTest::newRow("sized in points") << sharp << QSizeF(260, 400) << worked;
        QTest::newRow("equal ratios") << QImage(300, 700, QImage::Format_RGB32) << QSizeF(120, 280)
                                      << QRectF(0, 0, 120, 280);
        QTest::newRow("wider, single precision") << QImage(3, 7, QImage::Format_RGB32) << QSizeF(1, 3)
                                                 << QRectF(0, 0.33333325386047363, 1, 2.3333334922790527);
    }
    void fitImage()
    {
        QFETCH(QImage, image);
        QFETCH(QSizeF, target);
        QFETCH(QRectF, expected);
        const QRectF fit = QKFeedbackSendViewController::fitImage(image, target);
        // Bit for bit, not QCOMPARE's fuzzy equality.
        QVERIFY2(fit.x() == expected.x() && fit.y() == expected.y() && fit.width() == expected.width() &&
                     fit.height() == expected.height(),
                 qPrintable(QString::number(fit.x(), 'g', 17) + QLatin1Char(' ') + QString::number(fit.y(), 'g', 17)));
        QCOMPARE((QList<bool>{false, true, true, false, false}),
                 (QList<bool>{QKFeedbackSendViewController::isPortrait(0), QKFeedbackSendViewController::isPortrait(1),
                              QKFeedbackSendViewController::isPortrait(2), QKFeedbackSendViewController::isPortrait(3),
                              QKFeedbackSendViewController::isPortrait(4)}));
    }

    void screenIsBuiltAndLaidOut()
    {
        QCOMPARE(m_navigation->navigationBar()->shownTitle(), QStringLiteral("Send feedback"));
        QVERIFY(!sendItem()->isEnabled());
        QCOMPARE(m_screen->scrollView()->frame(), QRectF(0, 0, 393, 808));
        QCOMPARE(m_screen->scrollView()->subviews(),
                 (QList<QKView *>{m_screen->label(), m_screen->imageView(), m_screen->surfaceView()}));
        QCOMPARE(surface()->originalImageSize(), QSizeF(393, 852));

        // The hint across the top; the picture 10 below it, as wide as the 30-point margins
        // allow (it is relatively wider than the room), centred in the room left above 30.
        const QRectF hint = m_screen->label()->frame();
        QCOMPARE(hint, QRectF(0, 10, 393, m_screen->label()->sizeThatFits(QSizeF(393, 808)).height()));
        QVERIFY(hint.height() > 15);
        const QRectF frame = m_screen->imageView()->frame();
        QCOMPARE(surface()->frame(), frame);
        QCOMPARE(frame.x(), 30.0);
        QCOMPARE(frame.width(), 333.0);
        QVERIFY(qAbs(frame.height() / frame.width() - 852.0 / 393.0) < 1e-6);
        const qreal above = frame.y() - (hint.bottom() + 10), below = 808 - 30 - frame.bottom();
        QVERIFY(above > 0 && qAbs(above - below) < 1e-4);
    }

    void commentsAreKeptOnlyWithText_data()
    {
        QTest::addColumn<QString>("before"); // null: the tap is on empty picture
        QTest::addColumn<QString>("typed");  // after one backspace
        QTest::addColumn<Close>("close");
        QTest::addColumn<bool>("another");
        QTest::addColumn<QString>("after"); // null: the marker is gone
        const QString a = QStringLiteral("A"), b = QStringLiteral("B"), blanks = QStringLiteral("   ");
        // The rules are the model's; these rows only show that each way of closing reaches it.
        QTest::newRow("new, done with text") << QString() << b << Done << false << b;
        QTest::newRow("new, done with blanks, another remains") << QString() << blanks << Done << true << QString();
        QTest::newRow("new, tap elsewhere") << QString() << b << TapElsewhere << false << QString();
        QTest::newRow("A to B, tap elsewhere") << a << b << TapElsewhere << false << a;
        QTest::newRow("A to B, focus lost") << a << b << FocusLost << true << a;
    }
    void commentsAreKeptOnlyWithText()
    {
        QFETCH(QString, before);
        QFETCH(QString, typed);
        QFETCH(Close, close);
        QFETCH(bool, another);
        QFETCH(QString, after);
        const QKFeedbackPointPtr other = another ? addMarker(QPointF(300, 700), QStringLiteral("Keep")) : nullptr;
        const QKFeedbackPointPtr existing = before.isNull() ? nullptr : addMarker(QPointF(120, 300), before);
        tapOutside(); // does nothing while idle
        QVERIFY(!m_screen->textView());

        const QPointF tapped = tapPicture(QPointF(128, 294)); // inside the existing marker's box
        QKFeedbackTextView *bar = m_screen->textView();
        const QKFeedbackPointPtr point = m_screen->currentPoint();
        QVERIFY(bar && point);
        QCOMPARE(surface()->feedbackPoints().last(), point);
        if (existing) {
            QCOMPARE(point, existing);
        } else { // made where it was tapped, give or take the rounding of widgets to whole points
            const QPointF offBy = surface()->frame().topLeft() + surface()->locationOfItem(point) - tapped;
            QVERIFY(qAbs(offBy.x()) <= 0.5 && qAbs(offBy.y()) <= 0.5);
        }
        QCOMPARE(bar->textField()->text(), before);
        QVERIFY(!bar->sendButton()->isEnabled());
        QCOMPARE(bar->frame(), QRectF(0, 808 - bar->frame().height(), 393, bar->frame().height()));
        QVERIFY(bar->textField()->isFirstResponder());

        type(QStringLiteral("\b") + typed);
        this->close(close);
        QVERIFY(!m_screen->textView() && !m_screen->currentPoint());
        QVERIFY(!m_screen->view()->subviews().contains(bar));
        QList<QKFeedbackPointPtr> remaining; // the closing tap made no marker of its own
        if (another)
            remaining.append(other);
        if (!after.isNull())
            remaining.append(point);
        QCOMPARE(surface()->feedbackPoints(), remaining);
        if (!after.isNull())
            QCOMPARE(point->annotationText(), after);
        QCOMPARE(sendItem()->isEnabled(), !remaining.isEmpty());
    }

    void sendTellsTheDelegate()
    {
        Sender sender;
        m_screen->setDelegate(&sender);
        tapBarItem(sendItem()); // disabled without markers
        QCOMPARE(sender.calls, 0);
        addMarker(QPointF(100, 200), QStringLiteral("First"));
        // While a comment is open: sent as before the edit, and the bar stays open.
        tapPicture(QPointF(100, 200));
        type(QStringLiteral("\b\b\b\b\bEdited"));
        tapBarItem(sendItem());
        QCOMPARE(sender.calls, 1);
        QCOMPARE(sender.items.size(), 1);
        QCOMPARE(sender.items.first()->text(), QStringLiteral("First"));
        QVERIFY(m_screen->textView());
        tapOutside();
        tapPicture(QPointF(300, 600)); // a new marker, no comment yet
        tapBarItem(sendItem());
        QCOMPARE(sender.items.size(), 2);
        QVERIFY(sender.items.last()->text().isNull());
        m_screen->setDelegate(nullptr);
        tapBarItem(sendItem());
        QCOMPARE(sender.calls, 2);
    }

    void keyboardLiftsThePicture_data()
    {
        QTest::addColumn<QPointF>("item");
        QTest::addColumn<bool>("lifted");
        QTest::addColumn<QString>("version");
        QTest::newRow("marker near the top") << QPointF(200, 100) << false << QStringLiteral("17.2");
        QTest::newRow("marker near the bottom") << QPointF(200, 780) << true << QStringLiteral("17.2");
        // The offscreen screen lies in landscape: old and unknown versions take the height too.
        QTest::newRow("landscape, system 7.1") << QPointF(200, 780) << true << QStringLiteral("7.1");
        QTest::newRow("landscape, no version") << QPointF(200, 780) << true << QString();
    }
    void keyboardLiftsThePicture()
    {
        QFETCH(QPointF, item);
        QFETCH(bool, lifted);
        QFETCH(QString, version);
        QKDeviceInfo::Providers providers;
        providers.systemVersion = [version] { return version; };
        QKDeviceInfo::setProviders(providers);
        QVERIFY(!QKFeedbackSendViewController::isPortrait(QKApplication::sharedApplication()->statusBarOrientation()));
        tapPicture(item);
        QKFeedbackTextView *bar = m_screen->textView();
        QKScrollView *scroll = m_screen->scrollView();
        const qreal top = 808 - 300 - bar->frame().height();
        QKNotificationCenter::defaultCenter()->postNotification(
            QKKeyboard::WillShowNotification, {{QKKeyboard::FrameBeginUserInfoKey, QRectF(0, 0, 393, 300)}});
        QCOMPARE(bar->frame(), QRectF(0, top, 393, bar->frame().height())); // riding on the keyboard
        QCOMPARE(scroll->contentInset().top() < 0, lifted);
        QCOMPARE(scroll->contentInset().left() + scroll->contentInset().right() + scroll->contentInset().bottom(), 0.0);
        // Lifted, the marker's centre shows one marker height above the bar.
        const qreal shown = surface()->frame().y() + surface()->locationOfItem(m_screen->currentPoint()).y() -
                            scroll->contentOffset().y();
        QVERIFY(lifted ? qFuzzyCompare(shown, top - 30) : shown < top - 30);
        QKNotificationCenter::defaultCenter()->postNotification(QKKeyboard::WillHideNotification);
        QCOMPARE(scroll->contentInset(), QMarginsF());
        QCOMPARE(scroll->contentOffset(), QPointF(0, 0));
        QCOMPARE(bar->frame().y(), top); // the bar goes with the edit, not with the keyboard
        QKDeviceInfo::setProviders(QKDeviceInfo::defaultProviders());
    }

    void itemsAndMarkersOnScreen()
    {
        QVERIFY(m_screen->feedbackItems().isEmpty());
        addMarker(QPointF(100, 160), QStringLiteral("Header is cut off"));
        addMarker(QPointF(280, 520), QStringLiteral("Wrong colour"));
        // The façade's screenshot as it is when Send is tapped, at its full size.
        QImage later = m_screenshot.copy();
        later.fill(Qt::black);
        QKFeedback::sharedInstance()->setScreenshot(later);
        const QKFeedbackItemList items = m_screen->feedbackItems();
        QCOMPARE(items.size(), 2);
        QCOMPARE(items[1]->text(), QStringLiteral("Wrong colour"));
        QCOMPARE(items[0]->image().size(), QSize(1179, 2556));
        QCOMPARE(items[0]->image().pixel(10, 10), qRgb(0, 0, 0));

        // For a person to look at: both markers on the picture, the bar open for the second.
        tapPicture(QPointF(280, 520));
        const QImage shot = m_window->snapshot();
        QVERIFY(shot.save(QStringLiteral(MURMORA_TEST_OUTPUT "/send-screen-markers.png")));
        QCOMPARE(shot.size(), QSize(1179, 2556));
        const QPointF first = surface()->frame().topLeft() + surface()->locationOfItem(surface()->feedbackPoints()[0]);
        const QPoint shown = (m_screen->view()->convertPointToView(first, nullptr) * 3).toPoint();
        QCOMPARE(shot.pixel(shown), White);
        QCOMPARE(shot.pixel(shown + QPoint(0, 33)), Red); // 30 points across on screen too
        const QRectF bar = m_screen->textView()->frame().translated(0, 44);
        QCOMPARE(QColor(shot.pixel(3, qRound(bar.y() * 3) + 1)), QColor(170, 170, 170)); // the rule
        QCOMPARE(QColor(shot.pixel(3, qRound(bar.center().y() * 3))), QColor(Qt::white));
    }

    void backClosesTheScreen()
    {
        // Presented over a screen of the host, as the façade does.
        auto *host = new QKViewController;
        m_window->setRootViewController(host);
        QKFeedback::sharedInstance()->setFeedbackIsShown(true);
        m_screen = new QKFeedbackSendViewController;
        m_navigation = new QKNavigationController(m_screen);
        host->presentViewController(m_navigation, false);
        QPointer<QKFeedbackSendViewController> screen(m_screen);
        const QKFeedbackPointPtr kept = addMarker(QPointF(200, 300), QStringLiteral("Kept"));
        tapPicture(QPointF(100, 600));
        type(QStringLiteral("Never confirmed"));
        tapBarItem(m_screen->navigationItem()->leftBarButtonItem());
        // The open comment ends as it stands: the new marker never had one.
        QVERIFY(!m_screen->textView());
        QCOMPARE(surface()->feedbackPoints(), QList<QKFeedbackPointPtr>{kept});
        QVERIFY(QKFeedback::sharedInstance()->isFeedbackShown());
        QTRY_VERIFY(!QKFeedback::sharedInstance()->isFeedbackShown());
        QTRY_VERIFY(!screen);
        QCOMPARE(host->presentedViewController(), nullptr);
    }
};

int main(int argc, char **argv)
{
    qputenv("QT_SCALE_FACTOR", "3");
    QApplication app(argc, argv);
    TestSendViewController test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_qkfeedbacksendviewcontroller.moc"
