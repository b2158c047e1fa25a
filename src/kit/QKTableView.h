#pragma once

#include "QKIndexPath.h"
#include "QKScrollView.h"

#include <QHash>
#include <QMap>

#include <functional>
#include <vector>

class QKTableViewCell;
class QKTableViewDataSource;
class QKTableViewDelegate;

/// A plain list of rows in sections, each section under an optional header, with
/// hairline separators between rows. Only the rows in sight have cells: cells that
/// scroll away go back to a pool and are handed out again by dequeueReusableCell(),
/// so very long lists cost what a screenful does.
///
/// The data source and delegate are weak: the table does not own them and must
/// not outlive them while they are set. The table owns its cells and header views.
class MURMORA_EXPORT QKTableView : public QKScrollView
{
    Q_OBJECT
public:
    enum SeparatorStyle { SeparatorStyleNone = 0, SeparatorStyleSingleLine = 1 };
    enum ScrollPosition {
        ScrollPositionNone = 0,
        ScrollPositionTop = 1,
        ScrollPositionMiddle = 2,
        ScrollPositionBottom = 3
    };

    explicit QKTableView(const QRectF &frame = QRectF(), QWidget *parent = nullptr);
    ~QKTableView() override;

    QKTableViewDataSource *dataSource() const { return m_dataSource; }
    void setDataSource(QKTableViewDataSource *dataSource);
    QKTableViewDelegate *delegate() const { return m_delegate; }
    void setDelegate(QKTableViewDelegate *delegate);

    /// How dequeueReusableCell makes a cell for `reuseIdentifier` when the pool has none.
    void registerClass(const QString &reuseIdentifier, std::function<QKTableViewCell *()> factory);
    template <typename Cell>
    void registerClass(const QString &reuseIdentifier)
    {
        registerClass(reuseIdentifier, [reuseIdentifier] { return new Cell(reuseIdentifier); });
    }
    /// A cell that left the screen, or a new one from the registered factory (a plain
    /// cell when none is registered). For cellForRowAtIndexPath.
    QKTableViewCell *dequeueReusableCell(const QString &reuseIdentifier, const QKIndexPath &indexPath);

    /// Asks the data source and delegate again for everything; clears the selection.
    /// The cells are built on the next layout pass (layoutIfNeeded for now).
    void reloadData();
    int numberOfSections() const { return int(m_sections.size()); }
    int numberOfRowsInSection(int section) const;

    int separatorStyle() const { return m_separatorStyle; }
    void setSeparatorStyle(int style);

    /// Selects without calling the delegate, and scrolls the row to `scrollPosition`
    /// (None: no scrolling). An invalid path clears the selection.
    void selectRowAtIndexPath(const QKIndexPath &indexPath, bool animated, int scrollPosition);
    void deselectRowAtIndexPath(const QKIndexPath &indexPath, bool animated);
    /// Invalid when no row is selected.
    QKIndexPath indexPathForSelectedRow() const { return m_selected; }
    /// None: the least scrolling that brings the whole row into sight.
    void scrollToRowAtIndexPath(const QKIndexPath &indexPath, int scrollPosition, bool animated);

    /// The row's cell while it is in sight, otherwise null.
    QKTableViewCell *cellForRowAtIndexPath(const QKIndexPath &indexPath) const;
    /// From top to bottom.
    QList<QKTableViewCell *> visibleCells() const;
    QList<QKIndexPath> indexPathsForVisibleRows() const;
    /// In content coordinates; null for a row that does not exist.
    QRectF rectForRowAtIndexPath(const QKIndexPath &indexPath) const;
    QRectF rectForHeaderInSection(int section) const;
    /// Invalid when no row is there.
    QKIndexPath indexPathForRowAtPoint(const QPointF &point) const;

    void layoutSubviews() override;
    void scrollViewDidScroll() override;
    void touchesEnded(const QPointF &location) override;

private:
    struct Section
    {
        qreal headerTop = 0;
        qreal headerHeight = 0;
        int firstRow = 0;
        int rowCount = 0;
    };
    void reloadNow();
    void ensureMetrics();
    void computeMetrics();
    void layoutRows();
    void placeHeaders(const QRectF &area);
    void enqueue(QKTableViewCell *cell);
    int flatIndex(const QKIndexPath &indexPath) const;
    QKIndexPath indexPathForFlat(int flat) const;
    QRectF rowRect(int flat) const;
    QRectF visibleArea() const;

    QKTableViewDataSource *m_dataSource = nullptr;
    QKTableViewDelegate *m_delegate = nullptr;
    QHash<QString, std::function<QKTableViewCell *()>> m_factories;
    QHash<QString, QList<QKTableViewCell *>> m_pool;
    QMap<int, QKTableViewCell *> m_visible;
    QHash<int, QKView *> m_headers;
    std::vector<Section> m_sections;
    // Prefix sums over all rows in order, for binary searches by position.
    std::vector<qreal> m_rowTops;
    std::vector<qreal> m_rowBottoms;
    qreal m_metricsWidth = -1;
    QKIndexPath m_selected;
    int m_separatorStyle = SeparatorStyleSingleLine;
    bool m_needsReload = true;
    bool m_inLayout = false;
    bool m_layoutAgain = false;
};
