// Markers, the surface that holds them and the comment bar, driven as a person would.

#include "annotation/QKFeedbackMarker.h"
#include "annotation/QKFeedbackSurfaceView.h"
#include "annotation/QKFeedbackTextView.h"
#include "annotation/QKFeedbackTextViewDelegate.h"
#include "kit/QKButton.h"
#include "kit/QKTextField.h"

#include <QApplication>
#include <QLineEdit>
#include <QPainter>
#include <QtTest>

namespace {

class Recorder : public QKFeedbackTextViewDelegate
{
public:
    void feedbackTextView(QKFeedbackTextView *, const QString &text) override { texts.append(text); }
    void feedbackTextViewEndEdit(QKFeedbackTextView *) override { ++endEdits; }
    QStringList texts;
    int endEdits = 0;
};

// Clicks whatever widget a person would hit at the centre of `view`.
void tap(QKView *view)
{
    QWidget *window = view->window();
    const QPoint point = view->convertPointToView(view->bounds().center(), nullptr).toPoint();
    QWidget *target = window->childAt(point) ? window->childAt(point) : window;
    QTest::mouseClick(target, Qt::LeftButton, {}, target->mapFrom(window, point));
}

// A marker of `radius` centred at `c`: white middle, red ring, nothing outside, a soft rim.
void verifyMarkerLook(const QImage &drawn, const QPoint &c, int radius = 15)
{
    const QImage image = drawn.convertToFormat(QImage::Format_ARGB32);
    for (const QPoint &direction : {QPoint(1, 0), QPoint(-1, 0), QPoint(0, 1), QPoint(0, -1)}) {
        QCOMPARE(image.pixel(c + direction * (radius / 2 - 3)), qRgba(255, 255, 255, 255));
        QCOMPARE(image.pixel(c + direction * (radius / 2 + 3)), qRgba(255, 0, 0, 255));
        QCOMPARE(image.pixel(c + direction * (radius - 3)), qRgba(255, 0, 0, 255));
        if (image.rect().contains(c + direction * (radius + 2)))
            QCOMPARE(qAlpha(image.pixel(c + direction * (radius + 2))), 0);
    }
    int soft = 0;
    for (int y = c.y() - radius; y < c.y() + radius; ++y)
        for (int x = c.x() - radius; x < c.x() + radius; ++x)
            soft += qAlpha(image.pixel(x, y)) % 255 != 0;
    QVERIFY2(soft > radius, "the rim is anti-aliased");
}

QImage drawn(int size, const std::function<void(QPainter &)> &draw)
{
    QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    draw(painter);
    return image;
}

} // namespace

class TestAnnotation : public QObject
{
    Q_OBJECT

    QKView *m_window = nullptr;

private slots:
    void init()
    {
        m_window = new QKView(QRectF(0, 0, 320, 400));
        m_window->show();
        QApplication::setActiveWindow(m_window);
        QVERIFY(QTest::qWaitForWindowActive(m_window));
    }
    void cleanup() { delete m_window; }

    // The hit rules are the model's; the surface maps taps into item space and redraws on its changes.
    void mappingAddingAndRemoving()
    {
        QKFeedbackSurfaceView surface(QRectF(30, 40, 250, 500)); // the origin plays no part
        surface.setOriginalImageSize(QSizeF(1000, 2000));
        QCOMPARE(surface.itemPointToSurfacePoint(QPointF(400, 800)), QPointF(100, 200));
        QCOMPARE(surface.surfacePointToItemPoint(QPointF(100, 200)), QPointF(400, 800));
        QCOMPARE(surface.locationOfItem(QKFeedbackPointPtr()), QPointF(0, 0));
        QKAnnotationModel shared;
        shared.setImageSize(QSizeF(500, 1000));
        surface.setModel(&shared);
        QCOMPARE(surface.feedbackAtPoint(QPointF(100, 200))->location(), QPointF(200, 400));
        QCOMPARE(surface.feedbackPoints(), shared.points());
        surface.setModel(nullptr);

        // The handed marker's location is taken as a surface point; it is never appended itself.
        QSignalSpy redraws(&surface, &QKFeedbackSurfaceView::redrawRequested);
        auto handed = QKFeedbackPointPtr::create(QPointF(100, 200));
        surface.addFeedback(handed);
        surface.addFeedback(handed); // covered now
        QCOMPARE(surface.feedbackPoints().size(), 1);
        const QKFeedbackPointPtr made = surface.feedbackPoints().first();
        QVERIFY(made != handed);
        QCOMPARE(surface.locationOfItem(made), QPointF(100, 200));
        QCOMPARE(redraws.count(), 1);

        // Removal goes by identity, and redraws only when something went.
        surface.removeFeedback(QKFeedbackPointPtr::create(made->location()));
        QCOMPARE(surface.feedbackPoints().size(), 1);
        QCOMPARE(redraws.count(), 1);
        surface.removeFeedback(made);
        QVERIFY(surface.feedbackPoints().isEmpty());
        QCOMPARE(redraws.count(), 2);
    }

    void markersAreDrawn()
    {
        // At half the image's size the marker moves with the picture but stays 30 across.
        QKFeedbackSurfaceView surface(QRectF(0, 0, 100, 100));
        surface.setOriginalImageSize(QSizeF(200, 200));
        const QKFeedbackPointPtr point = surface.feedbackAtPoint(QPointF(50, 50));
        verifyMarkerLook(surface.snapshot(), QPoint(50, 50));
        // Without a surface, at the item-space location.
        verifyMarkerLook(drawn(200, [&](QPainter &p) { point->drawAt(p, point->location()); }), QPoint(100, 100));
        // The marker view fills the rectangle it is handed, on a clear background.
        QKFeedbackMarker marker(QRectF(0, 0, 80, 80));
        verifyMarkerLook(drawn(80, [&](QPainter &p) { marker.drawRect(p, QRectF(5, 25, 30, 30)); }), QPoint(20, 40));
        verifyMarkerLook(marker.snapshot(), QPoint(40, 40), 40);
        QCOMPARE(qAlpha(marker.snapshot().pixel(2, 2)), 0);
    }

    void barSizeAndLayout()
    {
        auto *bar = new QKFeedbackTextView;
        QKButton *button = bar->sendButton();
        QCOMPARE(button->currentTitle(), QStringLiteral("Done"));
        QCOMPARE(button->currentTitleColor().rgb(), qRgb(170, 170, 170)); // disabled
        QCOMPARE(bar->textField()->placeholder(), QStringLiteral("Comment"));
        const QSizeF buttonFit = button->sizeThatFits(QSizeF(320, 1000));
        QVERIFY(buttonFit.height() >= 30 && buttonFit.width() > 20);
        QCOMPARE(bar->sizeThatFits(QSizeF(320, 1000)), QSizeF(320, buttonFit.height() + 10));

        // Field and button side by side, 5 apart and from every edge; the rule along the top.
        const qreal width = buttonFit.width() + 10;
        m_window->addSubview(bar);
        for (const QSizeF &size : {QSizeF(320, 50), QSizeF(400, 60)}) {
            bar->setFrame(QRectF(QPointF(0, 340), size));
            QCOMPARE(button->frame(), QRectF(size.width() - 5 - width, 5, width, size.height() - 10));
            QCOMPARE(bar->textField()->frame(), QRectF(5, 5, size.width() - 15 - width, size.height() - 10));
            QCOMPARE(bar->headerBorder()->frame(), QRectF(0, 0, size.width(), 1));
        }
    }

    void barEditing_data()
    {
        QTest::addColumn<bool>("activate");
        QTest::addColumn<QString>("initial");
        QTest::addColumn<QString>("typed"); // \b is a backspace
        QTest::addColumn<bool>("enabled");
        QTest::addColumn<QStringList>("handed");
        QTest::addColumn<bool>("delegate");
        QTest::newRow("initial text, no edit")
            << true << QStringLiteral("abc") << QString() << false << QStringList{} << true;
        QTest::newRow("first edit enables") << true << QStringLiteral("abc") << QStringLiteral("d") << true
                                            << QStringList{QStringLiteral("abcd")} << true;
        QTest::newRow("all deleted, flag on")
            << true << QString() << QStringLiteral("x\b") << true << QStringList{QString()} << true;
        QTest::newRow("spaces, flag off")
            << false << QString() << QStringLiteral("   ") << false << QStringList{} << true;
        QTest::newRow("no-break space, flag off")
            << false << QString() << QString(QChar(0xA0)) << false << QStringList{} << true;
        QTest::newRow("letter between spaces, flag off")
            << false << QString() << QStringLiteral(" a ") << true << QStringList{QStringLiteral(" a ")} << true;
        QTest::newRow("no delegate") << true << QString() << QStringLiteral("hi") << true << QStringList() << false;
    }
    void barEditing()
    {
        QFETCH(bool, activate);
        QFETCH(QString, initial);
        QFETCH(QString, typed);
        QFETCH(bool, enabled);
        QFETCH(QStringList, handed);
        QFETCH(bool, delegate);
        Recorder recorder;
        auto *bar = new QKFeedbackTextView(initial);
        bar->setActivateKeyboardOnShow(activate);
        bar->setDelegate(delegate ? &recorder : nullptr);
        bar->setFrame(QRectF(0, 350, 320, 50));
        m_window->addSubview(bar);
        QCOMPARE(bar->textField()->text(), initial);
        // Put into a view, the bar raises the keyboard only when asked to.
        QCOMPARE(bar->textField()->isFirstResponder(), activate);
        if (!activate)
            tap(bar->textField());
        QTest::keyClicks(bar->textField()->lineEdit(), typed);
        if (!typed.contains(QLatin1Char('\b')))
            QCOMPARE(bar->textField()->text(), initial + typed);
        QCOMPARE(bar->sendButton()->isEnabled(), enabled);
        tap(bar->sendButton());
        QCOMPARE(recorder.texts, handed);
        QVERIFY(bar->textField()->isFirstResponder()); // the button does not end editing
        bar->textField()->resignFirstResponder();
        QCOMPARE(recorder.endEdits, delegate ? 1 : 0);
    }
};

QTEST_MAIN(TestAnnotation)
#include "tst_qkannotation.moc"
