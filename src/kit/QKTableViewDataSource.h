#pragma once

#include "QKGlobalKit.h"
#include "QKIndexPath.h"

class QKTableView;
class QKTableViewCell;

/// What a table view shows. The table keeps a weak pointer to it: whoever sets it
/// keeps it alive until it is cleared or the table is gone.
class MURMORA_EXPORT QKTableViewDataSource
{
public:
    virtual ~QKTableViewDataSource() = default;

    virtual int numberOfSectionsInTableView(QKTableView * /*tableView*/) { return 1; }
    virtual int numberOfRowsInSection(QKTableView *tableView, int section) = 0;
    /// A cell from tableView->dequeueReusableCell(), set up for the row.
    virtual QKTableViewCell *cellForRowAtIndexPath(QKTableView *tableView, const QKIndexPath &indexPath) = 0;
};
