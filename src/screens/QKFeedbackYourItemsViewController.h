#pragma once

#include "../data/QKFeedbackDataSource.h"
#include "../kit/QKTableViewDataSource.h"
#include "../kit/QKTableViewDelegate.h"
#include "../kit/QKActivityIndicatorView.h"
#include "../kit/QKLabel.h"
#include "../kit/QKRefreshControl.h"
#include "../kit/QKSegmentedControl.h"
#include "../kit/QKTableView.h"
#include "../kit/QKViewController.h"
#include "../models/QKFeedbackListModel.h"

#include <QPointer>

/// "Your feedback": the user's items under the "Open", "Resolved" and "All" filters,
/// loaded page by page from the data source (the first page with a spinner, the next
/// ones when the last item row comes into view and on a pull), and opened into the
/// details screen, whose screenshot and comments are then fetched.
///
/// The paging, the filter, the first-page error and the fetches on selection are its
/// list model's (a child); the screen lays out the views and forwards taps and rows
/// coming into view. Needs a data source that implements feedbackItemsByState with a
/// skip count, imageForKey and subItemsForKey. Main thread only.
class MURMORA_EXPORT QKFeedbackYourItemsViewController : public QKViewController,
                                                         public QKTableViewDataSource,
                                                         public QKTableViewDelegate
{
    Q_OBJECT
public:
    explicit QKFeedbackYourItemsViewController(QObject *parent = nullptr);
    ~QKFeedbackYourItemsViewController() override;

    void viewDidLoad() override;
    void viewDidLayoutSubviews() override;

    /// Closes the feedback screens and tells the façade none is shown.
    void backTouched();
    /// Starts again from the first page (the model's reload).
    void reloadData();
    /// The localised "Open" or "Resolved", or a null string for "All" (the model's state).
    QString getState() const;
    /// The first page, with the spinner (the model's loadFirstPage).
    void loadData();
    /// The next page, appended: the pull's action (the model's loadNextPage).
    void refresh();

    int numberOfRowsInSection(QKTableView *tableView, int section) override;
    QKTableViewCell *cellForRowAtIndexPath(QKTableView *tableView, const QKIndexPath &indexPath) override;
    qreal heightForRowAtIndexPath(QKTableView *tableView, const QKIndexPath &indexPath) override;
    void didSelectRowAtIndexPath(QKTableView *tableView, const QKIndexPath &indexPath) override;
    void willDisplayCell(QKTableView *tableView, QKTableViewCell *cell, const QKIndexPath &indexPath) override;

    /// The list, its paging and its filter; owned by the screen.
    QKFeedbackListModel *model() const { return m_model; }
    bool showIndicator() const { return m_model->showIndicator(); }
    qint64 orientation() const { return m_orientation; }
    QKSegmentedControl *itemsFilter() const { return m_itemsFilter; }
    QKTableView *itemsTableView() const { return m_itemsTableView; }
    QKLabel *noFeedbackLabel() const { return m_noFeedbackLabel; }
    QKActivityIndicatorView *activityIndicator() const { return m_activityIndicator; }
    QKRefreshControl *refreshControl() const { return m_refreshControl; }
    QKFeedbackItemList feedbackItems() const { return m_model->items(); }
    QKFeedbackDataSourcePtr dataSource() const { return m_model->dataSource(); }
    /// Set before the view loads.
    void setDataSource(const QKFeedbackDataSourcePtr &dataSource) { m_model->setDataSource(dataSource); }

private:
    QKFeedbackListModel *m_model = nullptr;
    qint64 m_orientation = 0;
    QPointer<QKSegmentedControl> m_itemsFilter;
    QPointer<QKTableView> m_itemsTableView;
    QPointer<QKLabel> m_noFeedbackLabel;
    QPointer<QKActivityIndicatorView> m_activityIndicator;
    QPointer<QKRefreshControl> m_refreshControl;
};
