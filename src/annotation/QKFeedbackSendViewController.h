#pragma once

#include "../data/QKFeedbackItem.h"
#include "../kit/QKViewController.h"
#include "../models/QKAnnotationModel.h"
#include "../models/QKFeedbackPoint.h"
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
/// screen sends nothing itself, and decides nothing about markers: its annotation
/// model (a child) keeps them and the comment rules. Main thread only.
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

    /// With a comment open: the model puts the comment back, and the bar closes.
    /// Otherwise a tap on the picture opens the bar for the model's marker there.
    void touchesEnded(const QPointF &location) override;
    void feedbackTextView(QKFeedbackTextView *textView, const QString &text) override;
    void feedbackTextViewEndEdit(QKFeedbackTextView *textView) override;
    /// Ends the model's edit as it stands and removes the bar; "Send" follows the
    /// model's canSend.
    void removeTextView();

    void keyboardWillShow(const QKNotification &notification);
    void keyboardWillHide(const QKNotification &notification);
    void sendTouched(QKBarButtonItem *sender);
    void backTouched(QKBarButtonItem *sender);

    /// The model's items for the façade's screenshot as it is now.
    QKFeedbackItemList feedbackItems() const;
    /// QKAnnotationModel::itemsForPoints, kept here for existing callers.
    static QKFeedbackItemList itemsForPoints(const QImage &screenshot, const QSizeF &size,
                                             const QList<QKFeedbackPointPtr> &points);

    /// The markers and the comment rules; owned by the screen.
    QKAnnotationModel *model() const { return m_model; }

    QKScrollView *scrollView() const { return m_scrollView; }
    QKLabel *label() const { return m_label; }
    QKImageView *imageView() const { return m_imageView; }
    QKFeedbackSurfaceView *surfaceView() const { return m_surfaceView; }
    /// Null while no comment is open.
    QKFeedbackTextView *textView() const { return m_textView; }
    /// The model's marker being edited; null while none is.
    QKFeedbackPointPtr currentPoint() const { return m_model->currentPoint(); }
    /// The model's comment as it was when the edit began.
    QString originalText() const { return m_model->originalText(); }
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
    QKAnnotationModel *m_model = nullptr;
    QKFeedbackSendViewControllerDelegate *m_delegate = nullptr;
};
