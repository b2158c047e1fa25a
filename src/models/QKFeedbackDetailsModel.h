#pragma once

#include "../base/QKGlobal.h"
#include "../data/QKFeedbackDataSource.h"
#include "QKFeedbackSendFlow.h"

#include <QAbstractListModel>

#include <memory>

class QKFeedbackDetailsModelPrivate;

/// One item's details and its comments, and the comment the user writes: what the
/// details screen decides. Rows are the item's comments in their stored order, the
/// newest first once one was sent from here.
///
/// The content counts as loaded only once the item has its screenshot: until then,
/// and while a comment is with the source, the model is busy. A comment needs a name
/// first: without one it is held back (pendingComment) and nameNeeded asks for it.
/// A failed comment leaves the model busy, as the screen always has, and is reported
/// with commentFailed.
///
/// The item and the data source are held weakly (the list keeps them); the send flow,
/// which remembers the chosen name, is not owned either. A QObject owned by its parent,
/// or released with deleteWhenIdle(). Lives on one thread, the main one.
class MURMORA_DATA_EXPORT QKFeedbackDetailsModel : public QAbstractListModel
{
    Q_OBJECT
    /// True while the screenshot is awaited or a comment is being sent.
    Q_PROPERTY(bool busy READ isBusy NOTIFY busyChanged)
    /// The comment held back while the user enters a name; null when none is.
    Q_PROPERTY(QString pendingComment READ pendingComment NOTIFY pendingCommentChanged)
public:
    /// The comments' fields, for views that bind to rows.
    enum Role {
        KeyRole = Qt::UserRole + 1, ///< QString
        TextRole,                   ///< QString
        AuthorRole,                 ///< QString, null for an anonymous comment
        CreatedAtRole,              ///< QDateTime in UTC, invalid when unknown
    };
    Q_ENUM(Role)

    /// A busy model with no item; `parent` owns it.
    explicit QKFeedbackDetailsModel(QObject *parent = nullptr);
    ~QKFeedbackDetailsModel() override;

    /// The item's comments; no children.
    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    /// A comment's field by Role; an invalid QVariant for anything else.
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    /// "key", "text", "author" and "createdAt".
    QHash<int, QByteArray> roleNames() const override;

    /// The item shown; null once its holder let it go.
    QKFeedbackItemPtr item() const;
    /// Shows `item` (held weakly) and resets the rows.
    void setItem(const QKFeedbackItemPtr &item);
    /// Where comments go; null once its holder let it go.
    QKFeedbackDataSourcePtr dataSource() const;
    /// Held weakly.
    void setDataSource(const QKFeedbackDataSourcePtr &source);
    /// Remembers and saves the chosen name; null saves nothing.
    QKFeedbackSendFlow *sendFlow() const;
    /// Not owned; forgotten when it is destroyed.
    void setSendFlow(QKFeedbackSendFlow *flow);

    /// The comment at `row`; null out of range.
    QKFeedbackItemPtr comment(int row) const;
    /// True while the screenshot is awaited or a comment is with the source.
    bool isBusy() const;
    /// The comment held back for a name.
    QString pendingComment() const;

    /// Shows the content once the item has its screenshot: no longer busy, rows reset,
    /// reloaded(). Without an item or an image it does nothing.
    Q_INVOKABLE void reload();
    /// Sends `text` as a new comment on the item, or, without a name, holds it back
    /// and asks for one. Throws QKUnrecognizedSelectorException, after turning busy,
    /// for a source without comments (the local one).
    Q_INVOKABLE void sendComment(const QString &text);
    /// The name screen's choice: applies it to the source and remembers it through the
    /// send flow, then sends the held comment unless the choice was Back. Answers the
    /// source's name afterwards (null without a source).
    Q_INVOKABLE QString chooseName(QKFeedbackSendFlow::NameAction action, const QString &typedName);
    /// The screen is gone: the model deletes itself now, or once the comment still with
    /// the source has been answered. Then a failure is still reported, but a success no
    /// longer changes the item.
    Q_INVOKABLE void deleteWhenIdle();

signals:
    /// busy changed.
    void busyChanged(bool busy);
    /// pendingComment changed.
    void pendingCommentChanged();
    /// The content is there to show, afresh.
    void reloaded();
    /// A comment waits for a name: show the name screen with both its buttons.
    void nameNeeded();
    /// The comment went out and is now the first row: clear the entry.
    void commentSent();
    /// The comment did not go out; show `message` under `title`.
    void commentFailed(const QString &title, const QString &message);

private:
    std::unique_ptr<QKFeedbackDetailsModelPrivate> d;
};
