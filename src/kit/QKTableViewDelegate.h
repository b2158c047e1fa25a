#pragma once

#include "QKGlobalKit.h"
#include "QKIndexPath.h"

#include <QtGlobal>

class QKTableView;
class QKTableViewCell;
class QKView;

/// Sizes and events of a table view; every method is optional. The table keeps a
/// weak pointer to it: whoever sets it keeps it alive until it is cleared or the
/// table is gone.
class MURMORA_EXPORT QKTableViewDelegate
{
public:
    virtual ~QKTableViewDelegate() = default;

    virtual qreal heightForRowAtIndexPath(QKTableView * /*tableView*/, const QKIndexPath & /*indexPath*/) { return 44; }
    virtual qreal heightForHeaderInSection(QKTableView * /*tableView*/, int /*section*/) { return 0; }
    /// A new view each time: the table takes ownership and drops it once out of sight.
    virtual QKView *viewForHeaderInSection(QKTableView * /*tableView*/, int /*section*/) { return nullptr; }
    /// A tap on the row; the row is already selected (unless its cell's style is None).
    virtual void didSelectRowAtIndexPath(QKTableView * /*tableView*/, const QKIndexPath & /*indexPath*/) {}
    /// The cell is about to be shown for the row; called each time the row comes into view.
    virtual void willDisplayCell(QKTableView * /*tableView*/, QKTableViewCell * /*cell*/,
                                 const QKIndexPath & /*indexPath*/)
    {}
};
