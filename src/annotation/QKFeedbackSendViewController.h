#pragma once

#include "../data/QKFeedbackItem.h"
#include "../kit/QKViewController.h"
#include "QKFeedbackPoint.h"
#include "QKFeedbackTextView.h"
#include "QKFeedbackTextViewDelegate.h"

#include <QPointer>

class QKBarButtonItem;
class QKFeedbackSendViewControllerDelegate;
class QKFeedbackSurfaceView;
class QKImageView;
class QKLabel;
class QKNotification;
class QKScrollView;

/// The screen on which the user marks the façade's screenshot: a tap on the picture
/// drops a marker (or picks the one there) and opens a comment bar for it; "Send"
/// tells the delegate, which fetches one item per marker from feedbackItems. The
/// screen sends nothing itself. Main thread only.
///
/// The comment bar rides on the keyboard's height in every orientation and on every
/// system version. (The platform this screen comes from took the frame's width on
/// systems below 8.0 in landscape, where the frame arrived unrotated; Qt never reports
/// it so, and a version below 8.0 is common under Qt: Android 6 and 7, many Linux
/// systems, or none at all.)
class MURMORA_EXPORT QKFeedbackSendViewController : public QKViewController, public QKFeedbackTextViewDelegate
{
    Q_OBJECT
public:
    explicit QKFeedbackSendViewController(QObject *parent = nullptr);
    ~QKFeedbackSendViewController() override;

    void viewDidLoad() override;
    void viewDidLayoutSubviews() override;
    /// Where `image` (its size in points) sits aspect-fitted in `size`, worked out in
    /// single precision and widened.
    static QRectF fitImage(const QImage &image, const QSizeF &size);
    /// True for the two portrait interface orientations, 1 and 2.
    static bool isPortrait(qint64 orientation);

    /// With a comment open: closes it, restoring the marker's comment (or removing a
    /// marker that had none). Otherwise a tap on the picture opens the bar for the
    /// marker there, made at once when there is none.
    void touchesEnded(const QPointF &location) override;
    void feedbackTextView(QKFeedbackTextView *textView, const QString &text) override;
    void feedbackTextViewEndEdit(QKFeedbackTextView *textView) override;
    /// Ends editing: drops the current marker when its comment is only blanks, removes
    /// the bar and enables "Send" exactly when a marker remains.
    void removeTextView();

    void keyboardWillShow(const QKNotification &notification);
    void keyboardWillHide(const QKNotification &notification);
    void sendTouched(QKBarButtonItem *sender);
    void backTouched(QKBarButtonItem *sender);

    /// One item per marker, in order: the screenshot at its full size with only that
    /// marker drawn on it, its comment, state "Open", created now.
    QKFeedbackItemList feedbackItems() const;
    /// One item per point: the screenshot drawn at `size` (points) with that point's
    /// marker, state "Open", created now, the point's text.
    static QKFeedbackItemList itemsForPoints(const QImage &screenshot, const QSizeF &size,
                                             const QList<QKFeedbackPointPtr> &points);

    QKScrollView *scrollView() const { return m_scrollView; }
    QKLabel *label() const { return m_label; }
    QKImageView *imageView() const { return m_imageView; }
    QKFeedbackSurfaceView *surfaceView() const { return m_surfaceView; }
    /// Null while no comment is open.
    QKFeedbackTextView *textView() const { return m_textView; }
    QKFeedbackPointPtr currentPoint() const { return m_currentPoint; }
    void setCurrentPoint(const QKFeedbackPointPtr &point) { m_currentPoint = point; }
    QString originalText() const { return m_originalText; }
    void setOriginalText(const QString &text) { m_originalText = text; }
    /// Not owned: the delegate clears it, or outlives the screen.
    QKFeedbackSendViewControllerDelegate *delegate() const { return m_delegate; }
    void setDelegate(QKFeedbackSendViewControllerDelegate *delegate) { m_delegate = delegate; }

private:
    QKScrollView *m_scrollView = nullptr;
    QKLabel *m_label = nullptr;
    QKImageView *m_imageView = nullptr;
    QKFeedbackSurfaceView *m_surfaceView = nullptr;
    // Guarded: the root view, and the bar with it, may go before this controller.
    QPointer<QKFeedbackTextView> m_textView;
    QKFeedbackPointPtr m_currentPoint;
    QString m_originalText;
    QKFeedbackSendViewControllerDelegate *m_delegate = nullptr;
};
