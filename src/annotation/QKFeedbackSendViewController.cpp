#include "QKFeedbackSendViewController.h"

#include "QKFeedbackSendViewControllerDelegate.h"
#include "QKFeedbackSurfaceView.h"
#include "QKFeedbackTextView.h"

#include "../base/QKLocalizedString.h"
#include "../core/QKFeedback.h"
#include "../kit/QKAnimation.h"
#include "../kit/QKBarButtonItem.h"
#include "../kit/QKFont.h"
#include "../kit/QKImageView.h"
#include "../kit/QKKeyboard.h"
#include "../kit/QKLabel.h"
#include "../kit/QKNotificationCenter.h"
#include "../kit/QKScrollView.h"
#include "../models/QKPalette.h"

namespace {

// CGRectContainsPoint: the maximum edges lie outside.
bool rectContainsPoint(const QRectF &rect, const QPointF &point)
{
    return point.x() >= rect.left() && point.x() < rect.right() && point.y() >= rect.top() && point.y() < rect.bottom();
}

} // namespace

QKFeedbackSendViewController::QKFeedbackSendViewController(QObject *parent)
    : QKViewController(parent), m_model(new QKAnnotationModel(this))
{}

QKFeedbackSendViewController::~QKFeedbackSendViewController()
{
    // A bar still open must not call back into a half-destroyed screen.
    if (m_textView)
        m_textView->setDelegate(nullptr);
}

void QKFeedbackSendViewController::viewDidLoad()
{
    QKViewController::viewDidLoad();
    setTitle(QKLocalizedString("Send feedback"));
    // As the platform's title setter does: the bar may have been given the item before this load.
    navigationItem()->setTitle(title());
    QKView *root = view();
    root->setBackgroundColor(QKPalette::background());

    auto *send = new QKBarButtonItem(QKLocalizedString("Send"), QKBarButtonItem::Plain,
                                     [this](QKBarButtonItem *sender) { sendTouched(sender); });
    navigationItem()->setRightBarButtonItem(send);
    send->setEnabled(m_model->canSend());
    connect(m_model, &QKAnnotationModel::canSendChanged, send, [this, send] { send->setEnabled(m_model->canSend()); });
    navigationItem()->setLeftBarButtonItem(new QKBarButtonItem(
        QKLocalizedString("Back"), QKBarButtonItem::Done, [this](QKBarButtonItem *sender) { backTouched(sender); }));

    const QRectF rootBounds = root->bounds();
    m_scrollView = new QKScrollView(QRectF(0, 0, rootBounds.width(), rootBounds.height()));
    m_scrollView->setAutoresizingMask(QKView::FlexibleWidth | QKView::FlexibleHeight);
    // Taps fall through to touchesEnded; only the keyboard moves the picture.
    m_scrollView->setUserInteractionEnabled(false);
    m_scrollView->setScrollEnabled(false);
    root->addSubview(m_scrollView);

    m_label = new QKLabel;
    m_label->setText(QKLocalizedString("Tap anywhere to leave a comment"));
    m_label->setTextAlignment(Qt::AlignHCenter);
    m_label->setFont(QKFont::named(QStringLiteral("HelveticaNeue"), 16.5));
    m_scrollView->addSubview(m_label);

    const QImage screenshot = QKFeedback::sharedInstance()->screenshot();
    const QSizeF scrollSize = m_scrollView->bounds().size();
    const QRectF pictureFrame(30, 30, scrollSize.width() - 60, scrollSize.height() - 60);
    m_imageView = new QKImageView(screenshot);
    m_imageView->setFrame(pictureFrame);
    m_imageView->setShadowOffset(QPointF(2.0, 2.0));
    m_imageView->setShadowOpacity(0.5);
    m_imageView->setShadowRadius(2.0);
    m_imageView->setShadowColor(QKPalette::shadow());
    m_scrollView->addSubview(m_imageView);

    m_surfaceView = new QKFeedbackSurfaceView(pictureFrame);
    m_surfaceView->setBackgroundColor(Qt::transparent);
    m_surfaceView->setModel(m_model);
    m_surfaceView->setOriginalImageSize(screenshot.deviceIndependentSize());
    m_scrollView->addSubview(m_surfaceView);

    // Observed for as long as this screen lives.
    QKNotificationCenter *center = QKNotificationCenter::defaultCenter();
    center->addObserver(this, QKKeyboard::WillShowNotification,
                        [this](const QKNotification &notification) { keyboardWillShow(notification); });
    center->addObserver(this, QKKeyboard::WillHideNotification,
                        [this](const QKNotification &notification) { keyboardWillHide(notification); });
}

void QKFeedbackSendViewController::viewDidLayoutSubviews()
{
    QKViewController::viewDidLayoutSubviews();
    const QSizeF size = view()->bounds().size();
    const qreal height = m_label->sizeThatFits(size).height();
    m_label->setFrame(QRectF(0, 10, size.width(), height));
    const qreal below = m_label->frame().y() + m_label->frame().height();
    const QRectF fit = fitImage(m_imageView->image(), QSizeF(size.width() - 60, size.height() - (below + 40)));
    const QRectF frame(fit.x() + 30, fit.y() + below + 10, fit.width(), fit.height());
    m_imageView->setFrame(frame);
    m_surfaceView->setFrame(frame);
}

QRectF QKFeedbackSendViewController::fitImage(const QImage &image, const QSizeF &size)
{
    // Single precision on purpose: the picture lands where it always has, to the last bit.
    const QSizeF imageSize = image.deviceIndependentSize();
    const qreal iw = imageSize.width();
    const qreal ih = imageSize.height();
    const float ri = float(iw / ih);
    const float rt = float(size.width() / size.height());
    if (ri < rt) {
        const float s = float(size.height() / ih);
        const float w = float(s * iw);
        const float x = float((size.width() - w) * 0.5);
        return QRectF(x, 0, w, size.height());
    }
    const float s = float(size.width() / iw);
    const float h = float(s * ih);
    const float y = float((size.height() - h) * 0.5);
    return QRectF(0, y, size.width(), h);
}

bool QKFeedbackSendViewController::isPortrait(qint64 orientation)
{
    return quint64(orientation - 1) < 2;
}

void QKFeedbackSendViewController::touchesEnded(const QPointF &location)
{
    if (m_textView || m_model->isEditing()) {
        // A tap while a comment is open only closes it, as it was before this edit.
        m_model->cancelEditing();
        removeTextView();
        return;
    }
    const QRectF frame = m_surfaceView->frame();
    if (!rectContainsPoint(frame, location))
        return;
    m_model->beginEditing(m_surfaceView->surfacePointToItemPoint(location - frame.topLeft()));
    m_surfaceView->setUserInteractionEnabled(false);

    auto *bar = new QKFeedbackTextView(m_model->currentPoint()->annotationText());
    const QSizeF rootSize = view()->bounds().size();
    const QSizeF fit = bar->sizeThatFits(rootSize);
    bar->setFrame(QRectF(0, rootSize.height() - fit.height(), fit.width(), fit.height()));
    bar->setDelegate(this);
    bar->setAutoresizingMask(QKView::FlexibleWidth);
    m_textView = bar;
    view()->addSubview(bar);
}

void QKFeedbackSendViewController::feedbackTextView(QKFeedbackTextView *, const QString &text)
{
    m_model->finishEditing(text);
    removeTextView();
}

void QKFeedbackSendViewController::feedbackTextViewEndEdit(QKFeedbackTextView *)
{
    removeTextView();
}

void QKFeedbackSendViewController::removeTextView()
{
    m_model->endEditing();
    if (m_textView) {
        // Cleared first: losing the focus on removal would otherwise come back here.
        m_textView->setDelegate(nullptr);
        m_textView->removeFromSuperview();
        // Later: this may run inside one of the bar's own event handlers.
        m_textView->deleteLater();
        m_textView.clear();
    }
}

void QKFeedbackSendViewController::keyboardWillShow(const QKNotification &notification)
{
    const QRectF keyboard = notification.userInfo().value(QKKeyboard::FrameBeginUserInfoKey).toRectF();
    // Always the height: Qt reports the keyboard's frame as shown, whatever the system version.
    const qreal height = keyboard.height();
    QKAnimation::animate(
        0.2, 0.0, QKAnimation::CurveEaseOut,
        [this, height] {
            const qreal barHeight = m_textView ? m_textView->bounds().height() : 0.0;
            const qreal top = m_scrollView->bounds().height() - (height + barHeight);
            // The marker's centre plus its whole height: half a marker to spare.
            const QKFeedbackPointPtr current = m_model->currentPoint();
            const qreal over = m_surfaceView->locationOfItem(current).y() + (current ? current->size().height() : 0.0) +
                               m_surfaceView->frame().y() - top;
            if (m_textView)
                m_textView->setFrame(QRectF(0, top, m_textView->bounds().width(), barHeight));
            if (over > 0)
                m_scrollView->setContentInset(QMarginsF(0, -over, 0, 0));
        },
        [](bool) {});
}

void QKFeedbackSendViewController::keyboardWillHide(const QKNotification &)
{
    QKAnimation::animate(
        0.2, 0.0, QKAnimation::CurveEaseOut, [this] { m_scrollView->setContentInset(QMarginsF()); }, [](bool) {});
}

void QKFeedbackSendViewController::sendTouched(QKBarButtonItem *)
{
    if (m_delegate)
        m_delegate->sendViewControllerAction(this);
}

void QKFeedbackSendViewController::backTouched(QKBarButtonItem *)
{
    removeTextView();
    dismissViewControllerAnimated(true, [] { QKFeedback::sharedInstance()->setFeedbackIsShown(false); });
}

QKFeedbackItemList QKFeedbackSendViewController::feedbackItems() const
{
    return m_model->feedbackItems(QKFeedback::sharedInstance()->screenshot());
}

QKFeedbackItemList QKFeedbackSendViewController::itemsForPoints(const QImage &screenshot, const QSizeF &size,
                                                                const QList<QKFeedbackPointPtr> &points)
{
    return QKAnnotationModel::itemsForPoints(screenshot, size, points);
}
