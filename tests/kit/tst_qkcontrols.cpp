// Fonts, text measuring, the controls and table views, driven through mouse, wheel and
// keyboard as a person would.

#include "kit/QKActivityIndicatorView.h"
#include "kit/QKAnimation.h"
#include "kit/QKButton.h"
#include "kit/QKDateFormatter.h"
#include "kit/QKFont.h"
#include "kit/QKImageView.h"
#include "kit/QKLabel.h"
#include "kit/QKRefreshControl.h"
#include "kit/QKScrollView.h"
#include "kit/QKSegmentedControl.h"
#include "kit/QKTableView.h"
#include "kit/QKTableViewCell.h"
#include "kit/QKTableViewDataSource.h"
#include "kit/QKTableViewDelegate.h"
#include "kit/QKTextField.h"
#include "kit/QKTextMetrics.h"

#include <QApplication>
#include <QLineEdit>
#include <QSet>
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

const QString RowId = QStringLiteral("row");

class CountedCell : public QKTableViewCell
{
public:
    explicit CountedCell(const QString &id) : QKTableViewCell(id) { ++made; }
    static inline int made = 0;
};

// Rows 44 high unless `heights` says otherwise; records what the table asks and tells.
class Source : public QKTableViewDataSource, public QKTableViewDelegate
{
public:
    QList<int> rows{10000};
    QHash<QKIndexPath, qreal> heights;
    QHash<int, qreal> headers;
    QList<QKIndexPath> displayed;
    QList<QKIndexPath> selected;

    int numberOfSectionsInTableView(QKTableView *) override { return int(rows.size()); }
    int numberOfRowsInSection(QKTableView *, int section) override { return rows[section]; }
    QKTableViewCell *cellForRowAtIndexPath(QKTableView *table, const QKIndexPath &path) override
    {
        QKTableViewCell *cell = table->dequeueReusableCell(RowId, path);
        cell->textLabel()->setText(QStringLiteral("Row %1.%2").arg(path.section()).arg(path.row()));
        return cell;
    }
    qreal heightForRowAtIndexPath(QKTableView *, const QKIndexPath &path) override { return heights.value(path, 44); }
    qreal heightForHeaderInSection(QKTableView *, int section) override { return headers.value(section); }
    QKView *viewForHeaderInSection(QKTableView *, int section) override
    {
        auto *header = new QKView(QRectF(0, 0, 320, 28));
        header->setObjectName(QStringLiteral("header"));
        header->setBackgroundColor(QColor(247, 247, 247));
        auto *label = new QKLabel(QRectF(15, 0, 290, 28));
        label->setAutoresizingMask(QKView::FlexibleWidth | QKView::FlexibleHeight);
        label->setFont(QKFont::boldSystem(15));
        label->setText(QStringLiteral("Section %1").arg(section));
        header->addSubview(label);
        return header;
    }
    void didSelectRowAtIndexPath(QKTableView *, const QKIndexPath &path) override { selected.append(path); }
    void willDisplayCell(QKTableView *, QKTableViewCell *, const QKIndexPath &path) override { displayed.append(path); }
};

QList<QKIndexPath> rowsOf(int section, int first, int last)
{
    QList<QKIndexPath> paths;
    for (int row = first; row <= last; ++row)
        paths.append({section, row});
    return paths;
}

} // namespace

class TestControls : public QObject
{
    Q_OBJECT

    QKView *m_window = nullptr;
    Source *m_source = nullptr;
    QKTableView *m_table = nullptr;

    void makeTable(const QSizeF &size = QSizeF(393, 852))
    {
        m_source = new Source;
        m_table = new QKTableView(QRectF(QPointF(0, 0), size));
        m_table->registerClass<CountedCell>(RowId);
        m_table->setDataSource(m_source);
        m_table->setDelegate(m_source);
        m_table->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_table));
    }

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
        QKAnimation::setAnimationsEnabled(true);
        CountedCell::made = 0;
    }
    void cleanup()
    {
        delete m_window;
        delete m_table;
        delete m_source;
        m_table = nullptr;
        m_source = nullptr;
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

    void dateFormatter()
    {
        QKDateFormatter::setLocaleForTesting(QStringLiteral("de_DE"));
        QCOMPARE(QKDateFormatter::mediumDateShortTime(QDateTime(QDate(2026, 11, 21), QTime(20, 34))),
                 QStringLiteral("21.11.2026, 20:34"));
        QVERIFY(QKDateFormatter::mediumDateShortTime(QDateTime()).isEmpty());
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
        for (int event : {QKControl::EditingChanged, QKControl::EditingDidBegin, QKControl::EditingDidEnd})
            first->addTarget(
                m_window, [&events, event](QKControl *) { events.append(event); }, event);
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
        QCOMPARE(narrow, lines == 0 ? measured.size() : QSizeF(narrow.width(), lines * line));
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
    void scrollViewShowsSubviewsLessTheOffset()
    {
        QKScrollView scroll(QRectF(0, 0, 200, 300));
        scroll.setContentSize(QSizeF(200, 2000));
        auto *child = new QKView(QRectF(10, 500, 50, 50));
        scroll.addSubview(child);
        scroll.show();
        QCOMPARE(scroll.subviews(), QList<QKView *>{child});
        QSignalSpy scrolled(&scroll, &QKScrollView::didScroll);
        scroll.setContentOffset(QPointF(0, 300));
        QCOMPARE(scrolled.size(), 1);
        QCOMPARE(scroll.bounds(), QRectF(0, 300, 200, 300));
        QCOMPARE(child->geometry().topLeft(), QPoint(10, 200));
        QCOMPARE(child->convertPointToView(QPointF(0, 0), nullptr), QPointF(10, 200));
        child->setFrame(QRectF(10, 700, 50, 50));
        QCOMPARE(child->geometry().topLeft(), QPoint(10, 400));
        // Even to where the shifted widget already is.
        child->setFrame(QRectF(10, 400, 50, 50));
        QCOMPARE(child->geometry().topLeft(), QPoint(10, 100));
    }

    void reusesCellsOverTenThousandRows()
    {
        makeTable();
        m_table->reloadData();
        QCOMPARE(m_table->contentSize(), QSizeF(393, 440000));
        QCOMPARE(m_table->indexPathsForVisibleRows(), rowsOf(0, 0, 19));
        QCOMPARE(CountedCell::made, 20);
        const QList<QKTableViewCell *> first = m_table->visibleCells();
        QSet<QKTableViewCell *> all(first.cbegin(), first.cend());

        // In small steps and big jumps down to the end: a screenful of cells, handed round.
        for (qreal y = 0; y < 2000; y += 13)
            m_table->setContentOffset(QPointF(0, y));
        for (qreal y = 2000; y < 440000; y += 1500)
            m_table->setContentOffset(QPointF(0, y));
        m_table->setContentOffset(QPointF(0, 440000 - 852));
        QVERIFY2(CountedCell::made <= 22, qPrintable(QString::number(CountedCell::made)));
        QCOMPARE(m_table->findChildren<QKTableViewCell *>().size(), CountedCell::made);
        QCOMPARE(m_table->indexPathsForVisibleRows(), rowsOf(0, 9980, 9999));
        const QList<QKIndexPath> paths = m_table->indexPathsForVisibleRows();
        const QList<QKTableViewCell *> cells = m_table->visibleCells();
        for (int i = 0; i < cells.size(); ++i) {
            all.insert(cells[i]);
            QCOMPARE(cells[i]->textLabel()->text(), QStringLiteral("Row 0.%1").arg(paths[i].row()));
            QCOMPARE(cells[i]->frame(), m_table->rectForRowAtIndexPath(paths[i]));
            QCOMPARE(cells[i]->geometry().top(), qRound(cells[i]->frame().top() - m_table->contentOffset().y()));
        }
        QCOMPARE(all.size(), CountedCell::made);
        QCOMPARE(m_table->cellForRowAtIndexPath({0, 0}), nullptr);
    }

    void buildsAndAnnouncesOnlyRowsInSight()
    {
        makeTable();
        m_source->displayed.clear();
        m_table->reloadData();
        QCOMPARE(m_source->displayed, rowsOf(0, 0, 19));

        m_source->displayed.clear();
        m_table->setContentOffset(QPointF(0, 1000));
        QCOMPARE(m_table->indexPathsForVisibleRows(), rowsOf(0, 22, 42));
        QCOMPARE(m_source->displayed, rowsOf(0, 22, 42));

        m_source->displayed.clear();
        m_table->setContentOffset(QPointF(0, 1100));
        QCOMPARE(m_source->displayed, rowsOf(0, 43, 44));
        m_source->displayed.clear();
        m_table->setContentOffset(QPointF(0, 1000));
        QCOMPARE(m_source->displayed, rowsOf(0, 22, 24));

        // A wheel notch scrolls; past the top it stops.
        QWheelEvent wheel(QPointF(100, 100), QPointF(100, 100), QPoint(), QPoint(0, -120), Qt::NoButton, Qt::NoModifier,
                          Qt::NoScrollPhase, false);
        QApplication::sendEvent(m_table, &wheel);
        QVERIFY(m_table->contentOffset().y() > 1000);
        m_table->setContentOffset(QPointF(0, 10));
        QWheelEvent up(QPointF(100, 100), QPointF(100, 100), QPoint(), QPoint(0, 120), Qt::NoButton, Qt::NoModifier,
                       Qt::NoScrollPhase, false);
        QApplication::sendEvent(m_table, &up);
        QCOMPARE(m_table->contentOffset(), QPointF(0, 0));
    }

    void placesRowsAndHeadersByTheirHeights()
    {
        makeTable();
        m_source->rows = {3, 2};
        m_source->headers = {{0, 30}, {1, 20}};
        m_source->heights = {{{0, 1}, 0}, {{0, 2}, 100}};
        m_table->reloadData();
        QCOMPARE(m_table->rectForHeaderInSection(0), QRectF(0, 0, 393, 30));
        QCOMPARE(m_table->rectForRowAtIndexPath({0, 0}), QRectF(0, 30, 393, 44));
        QCOMPARE(m_table->rectForRowAtIndexPath({0, 1}), QRectF(0, 74, 393, 0));
        QCOMPARE(m_table->rectForRowAtIndexPath({0, 2}), QRectF(0, 74, 393, 100));
        QCOMPARE(m_table->rectForHeaderInSection(1), QRectF(0, 174, 393, 20));
        QCOMPARE(m_table->rectForRowAtIndexPath({1, 1}), QRectF(0, 238, 393, 44));
        QCOMPARE(m_table->contentSize().height(), 282.0);
        QCOMPARE(m_table->indexPathForRowAtPoint(QPointF(10, 80)), QKIndexPath(0, 2));
        QCOMPARE(m_table->indexPathForRowAtPoint(QPointF(10, 180)), QKIndexPath());
        QCOMPARE(m_table->visibleCells().size(), 5);

        const auto headerFrames = [this] {
            QList<QRectF> frames;
            for (QKView *view : m_table->subviews())
                if (view->objectName() == QStringLiteral("header"))
                    frames.append(view->frame());
            return frames;
        };
        QCOMPARE(headerFrames(), (QList<QRectF>{{0, 0, 393, 30}, {0, 174, 393, 20}}));

        // Out of sight a header is dropped, and asked for again when back.
        m_table->setFrame(QRectF(0, 0, 393, 100));
        m_table->setContentOffset(QPointF(0, 40));
        QCOMPARE(headerFrames(), QList<QRectF>());
        QCOMPARE(m_table->indexPathsForVisibleRows(), rowsOf(0, 0, 2));
        m_table->setContentOffset(QPointF(0, 150));
        QCOMPARE(headerFrames(), QList<QRectF>{QRectF(0, 174, 393, 20)});
    }

    void tapSelectsAndTellsTheDelegate()
    {
        makeTable();
        m_table->reloadData();
        QKTableViewCell *cell = m_table->cellForRowAtIndexPath({0, 3});
        QTest::mouseClick(cell, Qt::LeftButton, {}, QPoint(20, 20));
        QCOMPARE(m_source->selected, QList<QKIndexPath>{QKIndexPath(0, 3)});
        QCOMPARE(m_table->indexPathForSelectedRow(), QKIndexPath(0, 3));
        QVERIFY(cell->isSelected());

        // No selection look, but the delegate still hears of it.
        QKTableViewCell *plain = m_table->cellForRowAtIndexPath({0, 5});
        plain->setSelectionStyle(QKTableViewCell::SelectionStyleNone);
        QTest::mouseClick(plain, Qt::LeftButton, {}, QPoint(20, 20));
        QCOMPARE(m_source->selected.size(), 2);
        QCOMPARE(m_table->indexPathForSelectedRow(), QKIndexPath(0, 3));

        // Scrolled, the tap still finds its row.
        m_table->setContentOffset(QPointF(0, 430));
        QTest::mouseClick(m_table->cellForRowAtIndexPath({0, 12}), Qt::LeftButton, {}, QPoint(5, 5));
        QCOMPARE(m_source->selected.last(), QKIndexPath(0, 12));
        QVERIFY(!cell->isSelected());

        // A selected row scrolled out and back comes back selected, in a reused cell.
        m_table->setContentOffset(QPointF(0, 5000));
        m_table->setContentOffset(QPointF(0, 0));
        QVERIFY(m_table->cellForRowAtIndexPath({0, 12})->isSelected());
        QVERIFY(!m_table->cellForRowAtIndexPath({0, 11})->isSelected());
    }

    void selectScrollsTheRowToThePosition()
    {
        makeTable();
        m_table->reloadData();
        m_table->selectRowAtIndexPath({0, 100}, false, QKTableView::ScrollPositionBottom);
        QCOMPARE(m_table->contentOffset().y(), 101 * 44 - 852.0);
        QKTableViewCell *cell = m_table->cellForRowAtIndexPath({0, 100});
        QVERIFY(cell && cell->isSelected());
        QCOMPARE(cell->geometry().bottom() + 1, 852);
        QVERIFY(m_source->selected.isEmpty());

        m_table->selectRowAtIndexPath({0, 200}, false, QKTableView::ScrollPositionTop);
        QCOMPARE(m_table->contentOffset().y(), 200 * 44.0);
        QCOMPARE(m_table->cellForRowAtIndexPath({0, 200})->geometry().top(), 0);
        m_table->selectRowAtIndexPath({0, 300}, false, QKTableView::ScrollPositionMiddle);
        QCOMPARE(m_table->contentOffset().y(), 300 * 44 + 22 - 426.0);
        // Never past the end.
        m_table->selectRowAtIndexPath({0, 9999}, false, QKTableView::ScrollPositionTop);
        QCOMPARE(m_table->contentOffset().y(), 440000 - 852.0);
        QCOMPARE(m_table->indexPathForSelectedRow(), QKIndexPath(0, 9999));
        m_table->selectRowAtIndexPath(QKIndexPath(), false, QKTableView::ScrollPositionNone);
        QVERIFY(!m_table->cellForRowAtIndexPath({0, 9999})->isSelected());
    }

    void pullToRefresh()
    {
        makeTable();
        m_source->rows = {5};
        m_table->reloadData();
        auto *refresh = new QKRefreshControl;
        m_table->addSubview(refresh);
        QSignalSpy changed(refresh, &QKRefreshControl::valueChanged);
        int targetCalls = 0;
        refresh->addTarget(this, [&targetCalls] { ++targetCalls; });

        QWindow *window = m_table->windowHandle();
        QTest::mousePress(window, Qt::LeftButton, {}, QPoint(200, 100));
        for (int y = 110; y <= 400; y += 10)
            QTest::mouseMove(window, QPoint(200, y));
        QVERIFY(m_table->isDragging());
        // The scroller moves the content on its own frame ticks.
        QTRY_VERIFY(refresh->isRefreshing());
        QVERIFY(m_table->contentOffset().y() < -QKRefreshControl::PullDistance);
        QTest::mouseRelease(window, Qt::LeftButton, {}, QPoint(200, 400));
        QTRY_COMPARE(m_table->contentOffset().y(), -QKRefreshControl::PullDistance);
        QCOMPARE(changed.size(), 1);
        QCOMPARE(targetCalls, 1);
        QCOMPARE(m_table->contentInset().top(), QKRefreshControl::PullDistance);
        QVERIFY(m_source->selected.isEmpty());

        refresh->endRefreshing();
        QCOMPARE(m_table->contentInset().top(), 0.0);
        QTRY_COMPARE(m_table->contentOffset().y(), 0.0);
        QTRY_COMPARE(m_table->cellForRowAtIndexPath({0, 0})->geometry().top(), 0);
        QCOMPARE(changed.size(), 1);
    }

    void insetAnimatesOnlyInsideABlock()
    {
        makeTable();
        m_table->reloadData();
        QKTableViewCell *cell = m_table->cellForRowAtIndexPath({0, 0});
        m_table->setContentInset(QMarginsF(0, 50, 0, 0));
        QCOMPARE(m_table->contentOffset().y(), -50.0);
        QCOMPARE(cell->geometry().top(), 50);

        QKAnimation::animate(0.3, [this] { m_table->setContentInset(QMarginsF(0, 100, 0, 0)); });
        QCOMPARE(m_table->contentInset().top(), 100.0);
        QCOMPARE(m_table->contentOffset().y(), -100.0);
        QCOMPARE(cell->geometry().top(), 50);
        QTRY_VERIFY(cell->geometry().top() > 50 && cell->geometry().top() < 100);
        QTRY_COMPARE(cell->geometry().top(), 100);
    }

    void drawsASampleTable()
    {
        makeTable(QSizeF(393, 300));
        m_source->rows = {4};
        m_source->headers = {{0, 28}};
        m_table->reloadData();
        m_table->selectRowAtIndexPath({0, 1}, false, QKTableView::ScrollPositionNone);
        const QImage image = m_table->snapshot();
        QCOMPARE(image.devicePixelRatio(), 3.0);
        QCOMPARE(image.size(), QSize(393 * 3, 300 * 3));
        // White below the rows, light grey on the selected one, a hairline under the first.
        QCOMPARE(image.pixelColor(600, 280 * 3), QColor(Qt::white));
        QCOMPARE(image.pixelColor(600, (28 + 44 + 22) * 3), QColor(217, 217, 217));
        QCOMPARE(image.pixelColor(600, (28 + 44) * 3 - 1), QColor(200, 199, 204));
        QCOMPARE(image.pixelColor(600, (28 + 44) * 3 - 2), QColor(Qt::white));
        QCOMPARE(image.pixelColor(600, (28 + 88) * 3 - 1), QColor(217, 217, 217));
        QVERIFY(image.save(QStringLiteral(MURMORA_TEST_OUTPUT "/tst_qktableview-sample.png")));
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
