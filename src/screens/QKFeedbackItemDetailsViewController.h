#pragma once

#include "../annotation/QKFeedbackTextView.h"
#include "../annotation/QKFeedbackTextViewDelegate.h"
#include "../data/QKFeedbackDataSource.h"
#include "../data/QKFeedbackItem.h"
#include "../kit/QKTableViewDataSource.h"
#include "../kit/QKTableViewDelegate.h"
#include "../kit/QKViewController.h"
#include "../models/QKFeedbackDetailsModel.h"
#include "QKFeedbackSettingsViewControllerDelegate.h"

#include <QPointer>
#include <QSizeF>

class QKActivityIndicatorView;
class QKNotification;
class QKTableView;

/// The "Feedback" screen of one item: its date, state and text, its screenshot and
/// its comments (newest first once one was sent from here) under a "COMMENTS" header,
/// with a comment bar pinned to the bottom. The list screen sets feedbackItem and
/// dataSource, fetches the image and sub-items and calls reloadData as each arrives;
/// the content shows only once the item has an image. A user without a name is sent
/// to the name screen before the first comment goes out. Those rules are its details
/// model's; the screen shows what the model says and forwards the user's input.
///
/// Sending needs a data source that implements addSubItemForKey, which is called
/// unchecked: the local source does not implement it and throws
/// QKUnrecognizedSelectorException, so a host checks
/// implements(QKFeedbackDataSource::Operation::AddSubItemForKey) before offering comments.
/// The item and the data source are held weakly: the list screen keeps them. The
/// model outlives a screen closed while a comment is on its way, so that a failure
/// still shows its alert. Main thread only.
///
/// With the keyboard up, the comment bar sits above the keyboard's height in every
/// orientation and on every system version, as on the send screen (see there why the
/// old landscape rule for systems below 8.0 is gone).
class MURMORA_EXPORT QKFeedbackItemDetailsViewController : public QKViewController,
                                                           public QKTableViewDataSource,
                                                           public QKTableViewDelegate,
                                                           public QKFeedbackTextViewDelegate,
                                                           public QKFeedbackSettingsViewControllerDelegate
{
    Q_OBJECT
public:
    explicit QKFeedbackItemDetailsViewController(QObject *parent = nullptr);
    ~QKFeedbackItemDetailsViewController() override;

    void viewDidLoad() override;
    void viewDidLayoutSubviews() override;

    /// Shows the table once the item has an image; until then the spinner keeps turning.
    void reloadData();
    /// Sends `text` as a new comment on the item, or first pushes the name screen when
    /// the data source has no user name.
    void sendComment(const QString &text);
    /// The item, its comments and the comment being sent; owned by the screen, or by
    /// itself once the screen is gone and a comment is still on its way.
    QKFeedbackDetailsModel *model() const { return m_model; }
    /// True for the two portrait interface orientations, 1 and 2.
    static bool isPortrait(qint64 orientation);

    void keyboardWillShow(const QKNotification &notification);
    void keyboardWillHide(const QKNotification &notification);

    // The table: section 0 holds the item and its screenshot, section 1 the comments.
    int numberOfSectionsInTableView(QKTableView *tableView) override;
    int numberOfRowsInSection(QKTableView *tableView, int section) override;
    QKTableViewCell *cellForRowAtIndexPath(QKTableView *tableView, const QKIndexPath &indexPath) override;
    qreal heightForRowAtIndexPath(QKTableView *tableView, const QKIndexPath &indexPath) override;
    qreal heightForHeaderInSection(QKTableView *tableView, int section) override;
    QKView *viewForHeaderInSection(QKTableView *tableView, int section) override;
    /// Only closes the keyboard.
    void didSelectRowAtIndexPath(QKTableView *tableView, const QKIndexPath &indexPath) override;

    /// The bar's Send.
    void feedbackTextView(QKFeedbackTextView *textView, const QString &text) override;
    void feedbackTextViewEndEdit(QKFeedbackTextView *textView) override;

    void settingsViewControllerInit(QKFeedbackSettingsViewController *screen) override;
    using QKFeedbackSettingsViewControllerDelegate::settingsViewController;
    /// Any action but Back pops the name screen and sends the held comment; every
    /// action records the name and saves the settings.
    void settingsViewController(QKFeedbackSettingsViewController *screen,
                                QKFeedbackSendFlow::NameAction action) override;

    /// Read-only state: set by the keyboard notices, and the comment held back while
    /// the user enters a name.
    bool keyboardIsVisible() const { return m_keyboardIsVisible; }
    QSizeF keyboardSize() const { return m_keyboardSize; }
    QString commentText() const { return m_model->pendingComment(); }

    /// Made by viewDidLoad and owned by the view; the setters only change which one
    /// the screen refers to.
    QKTableView *feedbackTableView() const { return m_feedbackTableView; }
    void setFeedbackTableView(QKTableView *tableView) { m_feedbackTableView = tableView; }
    QKActivityIndicatorView *activityIndicator() const { return m_activityIndicator; }
    void setActivityIndicator(QKActivityIndicatorView *indicator) { m_activityIndicator = indicator; }
    QKFeedbackTextView *textView() const { return m_textView; }
    void setTextView(QKFeedbackTextView *textView) { m_textView = textView; }

    /// Null once the holder let it go.
    QKFeedbackItemPtr feedbackItem() const { return m_model->item(); }
    void setFeedbackItem(const QKFeedbackItemPtr &item) { m_model->setItem(item); }
    QKFeedbackDataSourcePtr dataSource() const { return m_model->dataSource(); }
    void setDataSource(const QKFeedbackDataSourcePtr &dataSource) { m_model->setDataSource(dataSource); }

private:
    bool m_keyboardIsVisible = false;
    QSizeF m_keyboardSize;
    QKFeedbackDetailsModel *m_model = nullptr;
    // Guarded: the root view, and these with it, may go before this controller.
    QPointer<QKTableView> m_feedbackTableView;
    QPointer<QKActivityIndicatorView> m_activityIndicator;
    QPointer<QKFeedbackTextView> m_textView;
};
