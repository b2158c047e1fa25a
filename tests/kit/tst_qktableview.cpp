// Table views over a scroll view: reuse, visible rows, taps, selection, pull to refresh.

#include "kit/QKAnimation.h"
#include "kit/QKFont.h"
#include "kit/QKLabel.h"
#include "kit/QKRefreshControl.h"
#include "kit/QKScrollView.h"
#include "kit/QKTableView.h"
#include "kit/QKTableViewCell.h"
#include "kit/QKTableViewDataSource.h"
#include "kit/QKTableViewDelegate.h"

#include <QApplication>
#include <QSet>
#include <QtTest>

namespace {

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

// Where the cell is on screen, in the table's widget.
int shownTop(const QKTableViewCell *cell)
{
    return cell->geometry().top();
}

} // namespace

class TestTableView : public QObject
{
    Q_OBJECT

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

private slots:
    void init()
    {
        QKAnimation::setAnimationsEnabled(true);
        CountedCell::made = 0;
    }
    void cleanup()
    {
        delete m_table;
        delete m_source;
        m_table = nullptr;
        m_source = nullptr;
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
            QCOMPARE(shownTop(cells[i]), qRound(cells[i]->frame().top() - m_table->contentOffset().y()));
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
        QCOMPARE(shownTop(m_table->cellForRowAtIndexPath({0, 200})), 0);
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
        QTRY_COMPARE(shownTop(m_table->cellForRowAtIndexPath({0, 0})), 0);
        QCOMPARE(changed.size(), 1);
    }

    void insetAnimatesOnlyInsideABlock()
    {
        makeTable();
        m_table->reloadData();
        QKTableViewCell *cell = m_table->cellForRowAtIndexPath({0, 0});
        m_table->setContentInset(QMarginsF(0, 50, 0, 0));
        QCOMPARE(m_table->contentOffset().y(), -50.0);
        QCOMPARE(shownTop(cell), 50);

        QKAnimation::animate(0.3, [this] { m_table->setContentInset(QMarginsF(0, 100, 0, 0)); });
        QCOMPARE(m_table->contentInset().top(), 100.0);
        QCOMPARE(m_table->contentOffset().y(), -100.0);
        QCOMPARE(shownTop(cell), 50);
        QTRY_VERIFY(shownTop(cell) > 50 && shownTop(cell) < 100);
        QTRY_COMPARE(shownTop(cell), 100);
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
    // Screens of the phones the library is for: three pixels to the point.
    qputenv("QT_SCALE_FACTOR", "3");
    QApplication app(argc, argv);
    TestTableView test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_qktableview.moc"
