#include "QKTableView.h"

#include "QKTableViewCell.h"
#include "QKTableViewDataSource.h"
#include "QKTableViewDelegate.h"

#include <algorithm>

namespace {

constexpr qreal DefaultRowHeight = 44;

} // namespace

QKTableView::QKTableView(const QRectF &frame, QWidget *parent) : QKScrollView(frame, parent)
{
    setBackgroundColor(Qt::white);
}

QKTableView::~QKTableView() = default;

void QKTableView::setDataSource(QKTableViewDataSource *dataSource)
{
    m_dataSource = dataSource;
    m_needsReload = true;
    setNeedsLayout();
}

void QKTableView::setDelegate(QKTableViewDelegate *delegate)
{
    m_delegate = delegate;
    m_needsReload = true;
    setNeedsLayout();
}

void QKTableView::registerClass(const QString &reuseIdentifier, std::function<QKTableViewCell *()> factory)
{
    m_factories.insert(reuseIdentifier, std::move(factory));
}

QKTableViewCell *QKTableView::dequeueReusableCell(const QString &reuseIdentifier, const QKIndexPath &)
{
    QList<QKTableViewCell *> &pool = m_pool[reuseIdentifier];
    if (!pool.isEmpty()) {
        QKTableViewCell *cell = pool.takeLast();
        cell->prepareForReuse();
        return cell;
    }
    const auto factory = m_factories.value(reuseIdentifier);
    QKTableViewCell *cell = factory ? factory() : new QKTableViewCell(reuseIdentifier);
    if (!cell)
        return nullptr;
    cell->m_reuseIdentifier = reuseIdentifier;
    cell->setViewHidden(true);
    addSubview(cell);
    return cell;
}

void QKTableView::reloadData()
{
    m_selected = QKIndexPath();
    reloadNow();
    if (!isDragging()) {
        // Fewer rows than before: no empty screen past the new end.
        const qreal maximum = maximumContentOffset().y();
        if (contentOffset().y() > maximum)
            setContentOffset(QPointF(contentOffset().x(), maximum));
    }
    layoutRows();
}

void QKTableView::reloadNow()
{
    for (QKTableViewCell *cell : std::as_const(m_visible))
        enqueue(cell);
    m_visible.clear();
    for (QKView *header : std::as_const(m_headers))
        delete header;
    m_headers.clear();
    computeMetrics();
    m_needsReload = false;
    if (m_inLayout)
        m_layoutAgain = true;
}

void QKTableView::ensureMetrics()
{
    if (m_needsReload)
        reloadNow();
    else if (frame().width() != m_metricsWidth)
        computeMetrics();
}

void QKTableView::computeMetrics()
{
    m_sections.clear();
    m_rowTops.clear();
    m_rowBottoms.clear();
    const int sectionCount = m_dataSource ? qMax(0, m_dataSource->numberOfSectionsInTableView(this)) : 0;
    qreal y = 0;
    for (int s = 0; s < sectionCount; ++s) {
        Section section;
        section.headerTop = y;
        section.headerHeight = m_delegate ? qMax<qreal>(0, m_delegate->heightForHeaderInSection(this, s)) : 0;
        y += section.headerHeight;
        section.firstRow = int(m_rowTops.size());
        section.rowCount = qMax(0, m_dataSource->numberOfRowsInSection(this, s));
        for (int r = 0; r < section.rowCount; ++r) {
            const qreal height =
                m_delegate ? qMax<qreal>(0, m_delegate->heightForRowAtIndexPath(this, {s, r})) : DefaultRowHeight;
            m_rowTops.push_back(y);
            y += height;
            m_rowBottoms.push_back(y);
        }
        m_sections.push_back(section);
    }
    m_metricsWidth = frame().width();
    setContentSize(QSizeF(m_metricsWidth, y));
}

int QKTableView::numberOfRowsInSection(int section) const
{
    return section >= 0 && section < numberOfSections() ? m_sections[section].rowCount : 0;
}

void QKTableView::setSeparatorStyle(int style)
{
    m_separatorStyle = style;
    for (auto it = m_visible.cbegin(); it != m_visible.cend(); ++it) {
        const QKIndexPath path = indexPathForFlat(it.key());
        it.value()->setSeparatorShown(style == SeparatorStyleSingleLine &&
                                      path.row() < m_sections[path.section()].rowCount - 1);
    }
}

void QKTableView::selectRowAtIndexPath(const QKIndexPath &indexPath, bool animated, int scrollPosition)
{
    ensureMetrics();
    const QKIndexPath old = m_selected;
    m_selected = flatIndex(indexPath) >= 0 ? indexPath : QKIndexPath();
    if (old != m_selected)
        if (QKTableViewCell *cell = cellForRowAtIndexPath(old))
            cell->setSelected(false, animated);
    if (!m_selected.isValid())
        return;
    if (scrollPosition != ScrollPositionNone)
        scrollToRowAtIndexPath(m_selected, scrollPosition, animated);
    layoutRows();
    if (QKTableViewCell *cell = cellForRowAtIndexPath(m_selected))
        cell->setSelected(true, animated);
}

void QKTableView::deselectRowAtIndexPath(const QKIndexPath &indexPath, bool animated)
{
    if (!indexPath.isValid() || indexPath != m_selected)
        return;
    m_selected = QKIndexPath();
    if (QKTableViewCell *cell = cellForRowAtIndexPath(indexPath))
        cell->setSelected(false, animated);
}

void QKTableView::scrollToRowAtIndexPath(const QKIndexPath &indexPath, int scrollPosition, bool animated)
{
    ensureMetrics();
    const QRectF rect = rectForRowAtIndexPath(indexPath);
    if (rect.isNull())
        return;
    const QMarginsF inset = contentInset();
    const qreal height = frame().height();
    const qreal visibleHeight = height - inset.top() - inset.bottom();
    qreal y = contentOffset().y();
    switch (scrollPosition) {
    case ScrollPositionTop:
        y = rect.top() - inset.top();
        break;
    case ScrollPositionMiddle:
        y = rect.center().y() - inset.top() - visibleHeight / 2;
        break;
    case ScrollPositionBottom:
        y = rect.bottom() + inset.bottom() - height;
        break;
    default:
        if (rect.top() < y + inset.top())
            y = rect.top() - inset.top();
        else if (rect.bottom() > y + height - inset.bottom())
            y = rect.bottom() + inset.bottom() - height;
        break;
    }
    setContentOffset(clampedContentOffset(QPointF(contentOffset().x(), y)), animated);
}

QKTableViewCell *QKTableView::cellForRowAtIndexPath(const QKIndexPath &indexPath) const
{
    const int flat = flatIndex(indexPath);
    return flat >= 0 ? m_visible.value(flat) : nullptr;
}

QList<QKTableViewCell *> QKTableView::visibleCells() const
{
    return m_visible.values();
}

QList<QKIndexPath> QKTableView::indexPathsForVisibleRows() const
{
    QList<QKIndexPath> paths;
    for (int flat : m_visible.keys())
        paths.append(indexPathForFlat(flat));
    return paths;
}

QRectF QKTableView::rectForRowAtIndexPath(const QKIndexPath &indexPath) const
{
    const int flat = flatIndex(indexPath);
    return flat >= 0 ? rowRect(flat) : QRectF();
}

QRectF QKTableView::rectForHeaderInSection(int section) const
{
    if (section < 0 || section >= numberOfSections())
        return QRectF();
    const Section &s = m_sections[section];
    return QRectF(0, s.headerTop, m_metricsWidth, s.headerHeight);
}

QKIndexPath QKTableView::indexPathForRowAtPoint(const QPointF &point) const
{
    if (point.x() < 0 || point.x() >= m_metricsWidth)
        return QKIndexPath();
    const auto it = std::upper_bound(m_rowBottoms.begin(), m_rowBottoms.end(), point.y());
    const int flat = int(it - m_rowBottoms.begin());
    if (flat >= int(m_rowTops.size()) || m_rowTops[flat] > point.y())
        return QKIndexPath();
    return indexPathForFlat(flat);
}

void QKTableView::layoutSubviews()
{
    QKScrollView::layoutSubviews();
    ensureMetrics();
    layoutRows();
}

void QKTableView::scrollViewDidScroll()
{
    QKScrollView::scrollViewDidScroll();
    ensureMetrics();
    layoutRows();
}

void QKTableView::touchesEnded(const QPointF &location)
{
    if (!bounds().contains(location))
        return;
    ensureMetrics();
    const QKIndexPath path = indexPathForRowAtPoint(location);
    if (!path.isValid()) {
        QKScrollView::touchesEnded(location);
        return;
    }
    const QKTableViewCell *cell = cellForRowAtIndexPath(path);
    if (!cell || cell->selectionStyle() != QKTableViewCell::SelectionStyleNone)
        selectRowAtIndexPath(path, false, ScrollPositionNone);
    if (m_delegate)
        m_delegate->didSelectRowAtIndexPath(this, path);
}

QRectF QKTableView::visibleArea() const
{
    QRectF area = bounds();
    // While an animation block moves what is shown, fill the way from there too.
    const QRectF shown(shownContentOffset(), area.size());
    if (shown != area && qAbs(shown.y() - area.y()) < 2 * area.height())
        area = area.united(shown);
    return area;
}

void QKTableView::layoutRows()
{
    if (m_inLayout) {
        m_layoutAgain = true;
        return;
    }
    m_inLayout = true;
    do {
        m_layoutAgain = false;
        const QRectF area = visibleArea();
        int first = 0;
        int last = -1;
        if (area.height() > 0 && !m_rowTops.empty()) {
            first = int(std::upper_bound(m_rowBottoms.begin(), m_rowBottoms.end(), area.top()) - m_rowBottoms.begin());
            last = int(std::lower_bound(m_rowTops.begin(), m_rowTops.end(), area.bottom()) - m_rowTops.begin()) - 1;
        }
        for (auto it = m_visible.begin(); it != m_visible.end();) {
            if (it.key() < first || it.key() > last) {
                enqueue(it.value());
                it = m_visible.erase(it);
            } else {
                ++it;
            }
        }
        for (int flat = first; flat <= last && !m_layoutAgain && m_dataSource; ++flat) {
            const QKIndexPath path = indexPathForFlat(flat);
            QKTableViewCell *cell = m_visible.value(flat);
            const bool fresh = !cell;
            if (fresh) {
                cell = m_dataSource->cellForRowAtIndexPath(this, path);
                if (!cell || std::find(m_visible.cbegin(), m_visible.cend(), cell) != m_visible.cend())
                    continue;
                if (m_layoutAgain) {
                    // Reloaded from inside the data source: this row may be gone.
                    if (!m_pool.value(cell->reuseIdentifier()).contains(cell))
                        enqueue(cell);
                    continue;
                }
                if (cell->parentWidget() != this)
                    addSubview(cell);
                m_visible.insert(flat, cell);
                cell->setSelected(path == m_selected);
            }
            cell->setSeparatorShown(m_separatorStyle == SeparatorStyleSingleLine &&
                                    path.row() < m_sections[path.section()].rowCount - 1);
            cell->setFrame(rowRect(flat));
            if (fresh) {
                cell->setViewHidden(false);
                if (m_delegate)
                    m_delegate->willDisplayCell(this, cell, path);
            }
        }
        if (!m_layoutAgain)
            placeHeaders(area);
    } while (m_layoutAgain);
    m_inLayout = false;
}

void QKTableView::placeHeaders(const QRectF &area)
{
    QList<int> inSight;
    if (area.height() > 0) {
        // Headers do not overlap, so their bottoms grow with their tops.
        auto it = std::upper_bound(m_sections.begin(), m_sections.end(), area.top(),
                                   [](qreal y, const Section &s) { return y < s.headerTop + s.headerHeight; });
        for (; it != m_sections.end() && it->headerTop < area.bottom(); ++it)
            if (it->headerHeight > 0)
                inSight.append(int(it - m_sections.begin()));
    }
    for (auto it = m_headers.begin(); it != m_headers.end();) {
        if (inSight.contains(it.key())) {
            ++it;
            continue;
        }
        delete it.value();
        it = m_headers.erase(it);
    }
    for (int section : std::as_const(inSight)) {
        if (!m_headers.contains(section)) {
            QKView *header = m_delegate ? m_delegate->viewForHeaderInSection(this, section) : nullptr;
            m_headers.insert(section, header);
            if (header)
                addSubview(header);
        }
        if (QKView *header = m_headers.value(section))
            header->setFrame(rectForHeaderInSection(section));
    }
}

void QKTableView::enqueue(QKTableViewCell *cell)
{
    cell->setViewHidden(true);
    m_pool[cell->reuseIdentifier()].append(cell);
}

int QKTableView::flatIndex(const QKIndexPath &indexPath) const
{
    if (indexPath.section() < 0 || indexPath.section() >= numberOfSections())
        return -1;
    const Section &section = m_sections[indexPath.section()];
    if (indexPath.row() < 0 || indexPath.row() >= section.rowCount)
        return -1;
    return section.firstRow + indexPath.row();
}

QKIndexPath QKTableView::indexPathForFlat(int flat) const
{
    // Empty sections share their first row with the next: take the last one that starts there.
    auto it = std::upper_bound(m_sections.begin(), m_sections.end(), flat,
                               [](int row, const Section &s) { return row < s.firstRow; });
    const int section = int(it - m_sections.begin()) - 1;
    return QKIndexPath(section, flat - m_sections[section].firstRow);
}

QRectF QKTableView::rowRect(int flat) const
{
    return QRectF(0, m_rowTops[flat], m_metricsWidth, m_rowBottoms[flat] - m_rowTops[flat]);
}
