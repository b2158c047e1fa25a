#pragma once

#include "../base/QKGlobal.h"
#include "../data/QKFeedbackDataSource.h"

#include <QAbstractListModel>

#include <memory>

class QKFeedbackDetailsModel;
class QKFeedbackListModelPrivate;

/// "Your feedback" without its views: the user's items under a state filter, loaded
/// page by page, and an item's screenshot and comments fetched when it is opened.
///
/// Paging has no page size on this side: each request skips the items already held,
/// and a page is whatever the source answers. Another page is assumed to exist exactly
/// while the last one brought something (showIndicator); the local source, which
/// ignores the skip, stops after one further request. The first page shows a spinner
/// (loading) and its error is reported; later pages' errors are ignored. Nothing keeps
/// two requests from overlapping; both then skip the same count.
///
/// Holds the data source strongly and the items it loaded. A QObject owned by its
/// parent. Lives on one thread, the main one; the source's answers are delivered there,
/// and not at all once the model is gone.
class MURMORA_DATA_EXPORT QKFeedbackListModel : public QAbstractListModel
{
    Q_OBJECT
    /// Which items are listed; changing it starts again from the first page.
    Q_PROPERTY(Filter filter READ filter WRITE setFilter NOTIFY filterChanged)
    /// Whether the list ends in a loading row: another page may exist.
    Q_PROPERTY(bool showIndicator READ showIndicator NOTIFY showIndicatorChanged)
    /// True while the first page is awaited.
    Q_PROPERTY(bool loading READ isLoading NOTIFY loadingChanged)
    /// Whether the list is shown (the first page came and brought items).
    Q_PROPERTY(bool listVisible READ isListVisible NOTIFY listVisibleChanged)
    /// Whether the "no items" message is shown instead.
    Q_PROPERTY(bool emptyMessageVisible READ isEmptyMessageVisible NOTIFY emptyMessageVisibleChanged)
public:
    /// The three segments of the filter, in their order on screen.
    enum Filter {
        Open,     ///< the localised state "Open"
        Resolved, ///< the localised state "Resolved"
        All,      ///< every state: the source is asked with a null state
    };
    Q_ENUM(Filter)

    /// The items' fields, for views that bind to rows.
    enum Role {
        KeyRole = Qt::UserRole + 1, ///< QString
        TextRole,                   ///< QString
        StateRole,                  ///< QString, as stored
        CreatedAtRole,              ///< QDateTime in UTC
        AuthorRole,                 ///< QString
        CommentCountRole,           ///< qint64, see commentCount()
        ImageRole,                  ///< QImage, null until fetched
    };
    Q_ENUM(Role)

    /// An empty list under "Open", with no source; `parent` owns it.
    explicit QKFeedbackListModel(QObject *parent = nullptr);
    ~QKFeedbackListModel() override;

    /// The items held; no children. The loading row is not a row: see showIndicator.
    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    /// An item's field by Role; an invalid QVariant for anything else.
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    /// "key", "text", "state", "createdAt", "author", "commentCount" and "image".
    QHash<int, QByteArray> roleNames() const override;

    /// Where the items come from; it must implement feedbackItemsByState with a skip,
    /// and for openItem imageForKey and subItemsForKey.
    QKFeedbackDataSourcePtr dataSource() const;
    /// Set before the first load.
    void setDataSource(const QKFeedbackDataSourcePtr &source);
    /// The filter.
    Filter filter() const;
    /// Changes the filter and reloads; the same filter again does nothing.
    void setFilter(Filter filter);
    /// The state the source is asked for: the localised "Open" or "Resolved", or a null
    /// string for every state.
    QString state() const;

    /// The items held, in the order the source gave them, pages appended.
    QKFeedbackItemList items() const;
    /// The item at `row`; null out of range.
    QKFeedbackItemPtr item(int row) const;
    /// Whether another page may exist.
    bool showIndicator() const;
    /// True while the first page is awaited.
    bool isLoading() const;
    /// Whether the list is shown.
    bool isListVisible() const;
    /// Whether the "no items" message is shown.
    bool isEmptyMessageVisible() const;

    /// Starts again: the loading row on, the items dropped, the first page asked for.
    Q_INVOKABLE void reload();
    /// Asks for the items after those held, with the spinner: list and message hidden
    /// until the answer. An error is reported with firstPageFailed and leaves both hidden.
    Q_INVOKABLE void loadFirstPage();
    /// Asks for the next page (the paging trigger and the pull): no spinner; the loading
    /// row stays only when the page brought items from a source other than the local one.
    Q_INVOKABLE void loadNextPage();
    /// The row at `row` came into view: the last item's row asks for the next page
    /// while the loading row shows. (The trigger is the last item, not the loading row.)
    Q_INVOKABLE void rowShown(int row);
    /// The item at `row` is opened into `details` (may be null): gives it the item and the
    /// source, then fetches the item's screenshot under its "ImageUri" parameter when it
    /// has none, and its comments, which are added only to an item that has none yet (so
    /// opening it twice does not add them twice). `details` is reloaded after each answer
    /// while it lives; errors are ignored.
    Q_INVOKABLE void openItem(int row, QKFeedbackDetailsModel *details);

    /// The count of comments shown for `item`: its loaded comments, else the service's
    /// "CommentsCount" less one (the service counts the item itself), never below 0.
    static qint64 commentCount(const QKFeedbackItemPtr &item);

signals:
    /// filter changed.
    void filterChanged();
    /// showIndicator changed.
    void showIndicatorChanged();
    /// loading changed.
    void loadingChanged();
    /// listVisible changed.
    void listVisibleChanged();
    /// emptyMessageVisible changed.
    void emptyMessageVisibleChanged();
    /// The first page came: the list and message are set; show the rows afresh.
    void firstPageLoaded();
    /// The first page failed: show `message` under `title` (the error's domain).
    void firstPageFailed(const QString &title, const QString &message);
    /// A next page came (or failed quietly): show the rows afresh and end a pull.
    void nextPageLoaded();

private:
    friend class QKFeedbackListModelPrivate;
    std::unique_ptr<QKFeedbackListModelPrivate> d;
};
