// Fonts, text measuring and the controls, driven through mouse and keyboard as a person would.

#include "kit/QKActivityIndicatorView.h"
#include "kit/QKButton.h"
#include "kit/QKDateFormatter.h"
#include "kit/QKFont.h"
#include "kit/QKImageView.h"
#include "kit/QKLabel.h"
#include "kit/QKSegmentedControl.h"
#include "kit/QKTextField.h"
#include "kit/QKTextMetrics.h"

#include <QApplication>
#include <QLineEdit>
#include <QtTest>

#include <cfloat>

namespace {

const QString longText = QStringLiteral("The quick brown fox jumps over the lazy dog and keeps on running far away");

// A plain view that counts the taps reaching it.
class TapCounter : public QKView
{
public:
    using QKView::QKView;
    void touchesEnded(const QPointF &) override { ++taps; }
    int taps = 0;
};

// Rows of `image` with any pixel darker than mid grey.
QList<int> inkRows(const QImage &image)
{
    QList<int> rows;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            if (qAlpha(image.pixel(x, y)) > 128 && qGray(image.pixel(x, y)) < 128) {
                rows.append(y);
                break;
            }
    return rows;
}

void countEvents(QKControl *control, int events, int *counter)
{
    control->addTarget(
        nullptr, [counter](QKControl *) { ++*counter; }, events);
}

} // namespace

class TestControls : public QObject
{
    Q_OBJECT

    QKView *m_window = nullptr;

    void showWindow()
    {
        m_window->show();
        QApplication::setActiveWindow(m_window);
        QVERIFY(QTest::qWaitForWindowActive(m_window));
    }

private slots:
    void init()
    {
        m_window = new TapCounter(QRectF(0, 0, 320, 400));
        m_window->setBackgroundColor(Qt::white);
    }
    void cleanup()
    {
        delete m_window;
        QKDateFormatter::setLocaleForTesting(QString());
    }

    void fontsAreSizedInPoints_data()
    {
        QTest::addColumn<QFont>("font");
        QTest::addColumn<int>("pixels");
        QTest::addColumn<bool>("bold");
        QTest::newRow("system 14") << QKFont::system(14) << 14 << false;
        QTest::newRow("bold 15") << QKFont::boldSystem(15) << 15 << true;
        QTest::newRow("fraction rounds") << QKFont::system(16.5) << 17 << false;
        QTest::newRow("missing family") << QKFont::named(QStringLiteral("HelveticaNeue"), 16) << 16 << false;
        QTest::newRow("named weight") << QKFont::named(QStringLiteral("HelveticaNeue-Bold"), 12) << 12 << true;
    }
    void fontsAreSizedInPoints()
    {
        QFETCH(QFont, font);
        QFETCH(int, pixels);
        const QFontInfo info(font);
        QTEST(info.pixelSize(), "pixels");
        QTEST(info.bold(), "bold");
        // An em of n points is a line of a little more; the screen's DPI plays no part.
        const qreal height = QFontMetricsF(font).height();
        QVERIFY2(height >= pixels && height <= pixels * 1.5, qPrintable(QString::number(height)));
        QVERIFY(!info.family().isEmpty());
    }

    void textMetrics_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<qreal>("width");
        QTest::addColumn<bool>("wraps");
        QTest::addColumn<int>("minLines");
        QTest::addColumn<int>("maxLines");
        QTest::newRow("null") << QString() << 100.0 << true << 0 << 0;
        QTest::newRow("empty") << QStringLiteral("") << 100.0 << true << 1 << 1;
        QTest::newRow("short") << QStringLiteral("Hi") << 100.0 << true << 1 << 1;
        QTest::newRow("long wraps") << longText << 100.0 << true << 4 << 12;
        QTest::newRow("long word") << QString(40, QLatin1Char('m')) << 100.0 << true << 3 << 8;
        QTest::newRow("newlines") << QStringLiteral("a\nb\n\nc") << 300.0 << true << 4 << 4;
        QTest::newRow("unlimited") << longText << qreal(FLT_MAX) << true << 1 << 1;
        QTest::newRow("one line") << longText << 100.0 << false << 1 << 1;
    }
    void textMetrics()
    {
        QFETCH(QString, text);
        QFETCH(qreal, width);
        QFETCH(bool, wraps);
        QFETCH(int, minLines);
        QFETCH(int, maxLines);
        const QFont font = QKTextMetrics::defaultFont();
        const qreal line = QKTextMetrics::lineHeight(font);
        const QRectF rect = QKTextMetrics::boundingRect(text, font, QSizeF(width, FLT_MAX), wraps);
        const qreal lines = rect.height() / line;
        QCOMPARE(lines, qRound(lines));
        QVERIFY2(lines >= minLines && lines <= maxLines, qPrintable(QString::number(lines)));
        if (wraps)
            QVERIFY(rect.width() <= width);
        else
            QCOMPARE(rect.width(), QKTextMetrics::sizeWithFont(text, font).width());
        QCOMPARE(QKTextMetrics::sizeWithFont(text, font).height(), line);
    }

    void dateFormatter_data()
    {
        QTest::addColumn<QString>("locale");
        QTest::addColumn<QDateTime>("date");
        QTest::addColumn<QString>("expected");
        const QDateTime date(QDate(2026, 11, 21), QTime(20, 34));
        QTest::newRow("de_DE") << QStringLiteral("de_DE") << date << QStringLiteral("21.11.2026, 20:34");
        QTest::newRow("invalid") << QStringLiteral("en_US") << QDateTime() << QString();
    }
    void dateFormatter()
    {
        QFETCH(QString, locale);
        QFETCH(QDateTime, date);
        QKDateFormatter::setLocaleForTesting(locale);
        QTEST(QKDateFormatter::mediumDateShortTime(date), "expected");
    }

    void buttonTitlesAndColoursPerState()
    {
        auto *system = new QKButton(QKButton::System, QRectF(10, 10, 100, 40));
        m_window->addSubview(system);
        system->setTitle(QStringLiteral("Send"));
        system->setTitle(QStringLiteral("Sending"), QKButton::Disabled);
        QCOMPARE(system->currentTitleColor(), QColor(0, 122, 255));
        QTest::mousePress(system, Qt::LeftButton, {}, QPoint(50, 20));
        QVERIFY(system->isHighlighted());
        QCOMPARE(system->currentTitle(), QStringLiteral("Send"));
        QCOMPARE(system->currentTitleColor().rgb(), QColor(0, 122, 255).rgb());
        QVERIFY(system->currentTitleColor().alpha() < 128);
        QTest::mouseRelease(system, Qt::LeftButton, {}, QPoint(50, 20));
        QVERIFY(!system->isHighlighted());
        system->setEnabled(false);
        QCOMPARE(system->currentTitle(), QStringLiteral("Sending"));
        QCOMPARE(system->currentTitleColor(), QColor(199, 199, 204));
        system->setTitleColor(Qt::red, QKButton::Disabled);
        QCOMPARE(system->currentTitleColor(), QColor(Qt::red));

        QKButton custom(QKButton::Custom);
        QCOMPARE(custom.currentTitleColor(), QColor(Qt::white));
        custom.setTitleColor(Qt::green, QKButton::Highlighted);
        QCOMPARE(custom.titleColorForState(QKButton::Highlighted), QColor(Qt::green));
        QCOMPARE(custom.titleColorForState(QKButton::Disabled), QColor(Qt::white));

        const QSizeF size = system->sizeThatFits(QSizeF());
        QCOMPARE(size.width(), QKTextMetrics::sizeWithFont(QStringLiteral("Sending"), system->titleFont()).width());
        QVERIFY(size.height() >= 30 && size.height() <= 36);
    }

    void buttonTaps_data()
    {
        QTest::addColumn<bool>("enabled");
        QTest::addColumn<QPoint>("release");
        QTest::addColumn<int>("touchUpInside");
        QTest::addColumn<int>("superviewTaps");
        QTest::newRow("inside") << true << QPoint(50, 20) << 1 << 0;
        QTest::newRow("released outside") << true << QPoint(150, 20) << 0 << 0;
        QTest::newRow("disabled") << false << QPoint(50, 20) << 0 << 1;
    }
    void buttonTaps()
    {
        QFETCH(bool, enabled);
        QFETCH(QPoint, release);
        auto *button = new QKButton(QKButton::System, QRectF(10, 10, 100, 40));
        m_window->addSubview(button);
        showWindow();
        button->setEnabled(enabled);
        int touchUps = 0, touchDowns = 0, dropped = 0;
        countEvents(button, QKControl::TouchUpInside, &touchUps);
        countEvents(button, QKControl::TouchDown, &touchDowns);
        auto *context = new QObject;
        button->addTarget(
            context, [&dropped](QKControl *) { ++dropped; }, QKControl::TouchUpInside);
        delete context;
        QSignalSpy events(button, &QKControl::controlEvent);

        QTest::mousePress(button, Qt::LeftButton, {}, QPoint(50, 20));
        QTest::mouseRelease(button, Qt::LeftButton, {}, release);
        QTEST(touchUps, "touchUpInside");
        QCOMPARE(touchDowns, enabled ? 1 : 0);
        QCOMPARE(dropped, 0);
        QCOMPARE(events.size(), touchDowns + touchUps);
        QTEST(static_cast<TapCounter *>(m_window)->taps, "superviewTaps");
    }

    void textFieldEvents()
    {
        auto *first = new QKTextField(QRectF(10, 10, 200, 31));
        auto *second = new QKTextField(QRectF(10, 60, 200, 31));
        m_window->addSubview(first);
        m_window->addSubview(second);
        showWindow();
        QList<int> events;
        first->addTarget(
            m_window, [&events](QKControl *) { events.append(QKControl::EditingChanged); }, QKControl::EditingChanged);
        first->addTarget(
            m_window, [&events](QKControl *) { events.append(QKControl::EditingDidBegin); },
            QKControl::EditingDidBegin);
        first->addTarget(
            m_window, [&events](QKControl *) { events.append(QKControl::EditingDidEnd); }, QKControl::EditingDidEnd);
        QKTextField *ended = nullptr;
        first->setDidEndEditing([&](QKTextField *field) {
            ended = field;
            QVERIFY(events.endsWith(QKControl::EditingDidEnd));
        });

        first->setText(QStringLiteral("set"));
        QVERIFY(events.isEmpty());
        QVERIFY(first->becomeFirstResponder());
        QVERIFY(first->isFirstResponder());
        first->lineEdit()->selectAll();
        QTest::keyClicks(first->lineEdit(), QStringLiteral("abc"));
        QCOMPARE(first->text(), QStringLiteral("abc"));
        QCOMPARE(events, (QList<int>{QKControl::EditingDidBegin, QKControl::EditingChanged, QKControl::EditingChanged,
                                     QKControl::EditingChanged}));
        QVERIFY(second->becomeFirstResponder());
        QVERIFY(!first->isFirstResponder());
        QCOMPARE(events.last(), int(QKControl::EditingDidEnd));
        QCOMPARE(ended, first);

        second->setEnabled(false);
        QVERIFY(!second->isFirstResponder());
        QVERIFY(!second->becomeFirstResponder());
        first->setAutocorrectionType(QKTextField::AutocorrectionNo);
        QVERIFY(first->lineEdit()->inputMethodHints() & Qt::ImhNoPredictiveText);
        first->setBorderStyle(QKTextField::BorderRoundedRect);
        QCOMPARE(first->sizeThatFits(QSizeF()), QSizeF(100, QKTextMetrics::lineHeight(QKFont::system(17)) + 14));
    }

    void labelFits_data()
    {
        QTest::addColumn<int>("lines");
        QTest::newRow("one") << 1;
        QTest::newRow("two") << 2;
        QTest::newRow("unlimited") << 0;
    }
    void labelFits()
    {
        QFETCH(int, lines);
        QKLabel label;
        label.setText(longText);
        label.setNumberOfLines(lines);
        const QFont font = label.font();
        const qreal line = QKTextMetrics::lineHeight(font);
        const QSizeF wide = label.sizeThatFits(QSizeF(200, 0));
        const QSizeF narrow = label.sizeThatFits(QSizeF(100, 0));
        QVERIFY(wide.width() <= 200 && narrow.width() <= 100);
        const QRectF measured = QKTextMetrics::boundingRect(longText, font, QSizeF(100, FLT_MAX));
        if (lines == 0)
            QCOMPARE(narrow, measured.size());
        QCOMPARE(narrow.height(), lines == 0 ? measured.height() : lines * line);
        if (lines == 0)
            QVERIFY(narrow.height() > wide.height());
        // No width given: nothing to wrap at.
        QCOMPARE(label.sizeThatFits(QSizeF()), QSizeF(QKTextMetrics::sizeWithFont(longText, font).width(), line));
    }

    void labelDrawsWhatItMeasures()
    {
        auto *label = new QKLabel(QRectF(0, 0, 100, 10));
        m_window->addSubview(label);
        label->setText(longText);
        label->setNumberOfLines(0);
        label->sizeToFit();
        const QImage image = label->snapshot();
        const qreal scale = image.devicePixelRatio();
        const int count = qRound(label->frame().height() / QKTextMetrics::lineHeight(label->font()));
        QVERIFY(count >= 4);
        // Ink in every line's band: the drawing wraps where the measuring did.
        const QList<int> rows = inkRows(image);
        for (int i = 0; i < count; ++i) {
            const qreal band = label->frame().height() / count * scale;
            QVERIFY2(std::any_of(rows.begin(), rows.end(), [&](int y) { return y >= i * band && y < (i + 1) * band; }),
                     qPrintable(QStringLiteral("line %1").arg(i)));
        }
    }

    void segmentedControl()
    {
        auto *control = new QKSegmentedControl({QStringLiteral("Bug"), QStringLiteral("Feature request")});
        control->insertSegment(QStringLiteral("Praise"), 0, false);
        m_window->addSubview(control);
        control->setFrame(QRectF(QPointF(10, 10), control->sizeThatFits(QSizeF(1000, 1000))));
        QCOMPARE(control->frame().height(), 29.0);
        const qreal widest = QKTextMetrics::sizeWithFont(QStringLiteral("Feature request"), QKFont::system(13)).width();
        QVERIFY(control->frame().width() >= 3 * (widest + 28));
        QCOMPARE(control->titleForSegment(0), QStringLiteral("Praise"));
        showWindow();

        int changes = 0;
        countEvents(control, QKControl::ValueChanged, &changes);
        control->setSelectedSegmentIndex(1);
        QCOMPARE(changes, 0);
        control->insertSegment(QStringLiteral("Other"), 0, false);
        QCOMPARE(control->selectedSegmentIndex(), 2);
        control->setFrame(QRectF(10, 10, 400, 29));
        QTest::mouseClick(control, Qt::LeftButton, {}, QPoint(350, 15));
        QCOMPARE(control->selectedSegmentIndex(), 3);
        QCOMPARE(changes, 1);
        QTest::mouseClick(control, Qt::LeftButton, {}, QPoint(350, 15));
        QCOMPARE(changes, 1);
        // A press dragged onto another segment selects nothing.
        QTest::mousePress(control, Qt::LeftButton, {}, QPoint(50, 15));
        QTest::mouseRelease(control, Qt::LeftButton, {}, QPoint(150, 15));
        QCOMPARE(control->selectedSegmentIndex(), 3);
    }

    void activityIndicator()
    {
        auto *spinner = new QKActivityIndicatorView(QKActivityIndicatorView::Gray);
        m_window->addSubview(spinner);
        QCOMPARE(spinner->frame().size(), QSizeF(20, 20));
        showWindow();
        QVERIFY(spinner->isHidden() && !spinner->isVisible());
        spinner->startAnimating();
        QVERIFY(spinner->isVisible() && spinner->isAnimating());
        const QImage first = spinner->snapshot();
        QTRY_VERIFY(spinner->snapshot() != first);
        spinner->stopAnimating();
        QVERIFY(spinner->isHidden());
        spinner->setHidesWhenStopped(false);
        spinner->startAnimating();
        spinner->stopAnimating();
        QVERIFY(!spinner->isHidden());
        spinner->setStyle(QKActivityIndicatorView::WhiteLarge);
        QCOMPARE(spinner->frame().size(), QSizeF(37, 37));
    }

    void imageViewModes_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<QRectF>("expected");
        QTest::newRow("fill") << int(QKImageView::ScaleToFill) << QRectF(0, 0, 100, 50);
        QTest::newRow("fit") << int(QKImageView::ScaleAspectFit) << QRectF(25, 0, 50, 50);
        QTest::newRow("aspect fill") << int(QKImageView::ScaleAspectFill) << QRectF(0, -25, 100, 100);
    }
    void imageViewModes()
    {
        QFETCH(int, mode);
        QImage image(60, 60, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::red);
        image.setDevicePixelRatio(3);
        QKImageView view(image);
        QCOMPARE(view.sizeThatFits(QSizeF()), QSizeF(20, 20));
        view.setFrame(QRectF(0, 0, 100, 50));
        view.setContentMode(QKImageView::ContentMode(mode));
        QTEST(view.imageRect(), "expected");
    }

    void imageViewShadowsFallOutside()
    {
        QImage image(30, 30, QImage::Format_RGB32);
        image.fill(Qt::red);
        // Two siblings: each casts its own shadow on the superview.
        for (qreal x : {40, 200}) {
            auto *view = new QKImageView(image);
            view->setFrame(QRectF(x, 100, 60, 60));
            m_window->addSubview(view);
            view->setShadowOpacity(0.8);
            view->setShadowOffset(QPointF(0, 4));
            view->setShadowRadius(4);
        }
        const QImage shot = m_window->snapshot();
        const qreal s = shot.devicePixelRatio();
        const auto grey = [&](qreal x, qreal y) { return qGray(shot.pixel(int(x * s), int(y * s))); };
        for (qreal x : {70, 230}) {
            QVERIFY(grey(x, 163) < 200); // just under the view
            QCOMPARE(grey(x, 190), 255); // well clear of it
            QCOMPARE(grey(x, 95), 255);  // offset downwards, so none above
        }
    }
};

int main(int argc, char **argv)
{
    // Snapshots at the pixel ratio of a phone.
    qputenv("QT_SCALE_FACTOR", "3");
    QApplication app(argc, argv);
    TestControls test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_qkcontrols.moc"
