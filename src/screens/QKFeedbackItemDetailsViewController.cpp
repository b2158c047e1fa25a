#include "QKFeedbackItemDetailsViewController.h"

#include "QKFeedbackItemCommentTableViewCell.h"
#include "QKFeedbackItemImageTableViewCell.h"
#include "QKFeedbackItemTableViewCell.h"
#include "QKFeedbackSettingsViewController.h"

#include "../annotation/QKFeedbackTextView.h"
#include "../base/QKLocalizedString.h"
#include "../core/QKFeedback.h"
#include "../kit/QKActivityIndicatorView.h"
#include "../kit/QKAlertView.h"
#include "../kit/QKAnimation.h"
#include "../kit/QKApplication.h"
#include "../kit/QKButton.h"
#include "../kit/QKFont.h"
#include "../kit/QKImageView.h"
#include "../kit/QKKeyboard.h"
#include "../kit/QKLabel.h"
#include "../kit/QKNavigationController.h"
#include "../kit/QKNotificationCenter.h"
#include "../kit/QKTableView.h"
#include "../kit/QKTextField.h"
#include "../models/QKPalette.h"

QKFeedbackItemDetailsViewController::QKFeedbackItemDetailsViewController(QObject *parent)
    : QKViewController(parent), m_model(new QKFeedbackDetailsModel)
{
    connect(m_model, &QKFeedbackDetailsModel::busyChanged, this, [this](bool busy) {
        if (m_feedbackTableView)
            m_feedbackTableView->setViewHidden(busy);
        if (m_activityIndicator)
            busy ? m_activityIndicator->startAnimating() : m_activityIndicator->stopAnimating();
    });
    connect(m_model, &QKFeedbackDetailsModel::reloaded, this, [this] {
        if (m_feedbackTableView)
            m_feedbackTableView->reloadData();
    });
    connect(m_model, &QKFeedbackDetailsModel::nameNeeded, this, [this] {
        auto *screen = new QKFeedbackSettingsViewController;
        screen->setDelegate(this);
        screen->setExitOnBackTouched(false);
        if (QKNavigationController *navigation = navigationController())
            navigation->pushViewController(screen, true);
        else
            delete screen;
    });
    connect(m_model, &QKFeedbackDetailsModel::commentSent, this, [this] {
        if (m_textView) {
            m_textView->textField()->setText(QString());
            m_textView->sendButton()->setEnabled(false);
        }
        if (QKTableView *table = m_feedbackTableView) {
            table->reloadData();
            table->layoutIfNeeded();
            table->selectRowAtIndexPath(QKIndexPath(1, 0), true, QKTableView::ScrollPositionBottom);
        }
    });
    // Tied to the model, not to the screen: a failure shows even after the screen closed.
    connect(m_model, &QKFeedbackDetailsModel::commentFailed, m_model, [](const QString &title, const QString &message) {
        (new QKAlertView(title, message, QKLocalizedString("Cancel")))->show();
    });
}

QKFeedbackItemDetailsViewController::~QKFeedbackItemDetailsViewController()
{
    // The view goes after this part of the object: nothing in it may call back here.
    if (m_textView)
        m_textView->setDelegate(nullptr);
    if (m_feedbackTableView) {
        m_feedbackTableView->setDataSource(nullptr);
        m_feedbackTableView->setDelegate(nullptr);
    }
    disconnect(m_model, nullptr, this, nullptr);
    m_model->deleteWhenIdle();
}

void QKFeedbackItemDetailsViewController::viewDidLoad()
{
    QKViewController::viewDidLoad();
    setTitle(QKLocalizedString("Feedback"));
    QKView *root = view();
    root->setBackgroundColor(QKPalette::background());

    m_feedbackTableView = new QKTableView;
    m_feedbackTableView->setSeparatorStyle(QKTableView::SeparatorStyleNone);
    m_feedbackTableView->setDataSource(this);
    m_feedbackTableView->setDelegate(this);
    m_feedbackTableView->setViewHidden(m_model->isBusy());
    m_feedbackTableView->setAutoresizingMask(QKView::FlexibleWidth | QKView::FlexibleHeight);
    m_feedbackTableView->registerClass<QKFeedbackItemImageTableViewCell>(QStringLiteral("screenshot"));
    m_feedbackTableView->registerClass<QKFeedbackItemTableViewCell>(QStringLiteral("item"));
    m_feedbackTableView->registerClass<QKFeedbackItemCommentTableViewCell>(QStringLiteral("comment"));
    root->addSubview(m_feedbackTableView);

    m_textView = new QKFeedbackTextView(QRectF());
    const QRectF bounds = root->bounds();
    const qreal height = m_textView->sizeThatFits(bounds.size()).height();
    m_textView->setFrame(QRectF(0, bounds.height() - height, bounds.width(), height));
    m_textView->setActivateKeyboardOnShow(false);
    m_textView->setDelegate(this);
    m_textView->sendButton()->setTitle(QKLocalizedString("Send"), QKButton::Normal);
    root->addSubview(m_textView);

    m_activityIndicator = new QKActivityIndicatorView(QKActivityIndicatorView::Gray);
    root->addSubview(m_activityIndicator);
    if (m_model->isBusy())
        m_activityIndicator->startAnimating();

    // Observed for as long as this screen lives.
    QKNotificationCenter *center = QKNotificationCenter::defaultCenter();
    center->addObserver(this, QKKeyboard::WillShowNotification,
                        [this](const QKNotification &notification) { keyboardWillShow(notification); });
    center->addObserver(this, QKKeyboard::WillHideNotification,
                        [this](const QKNotification &notification) { keyboardWillHide(notification); });
}

void QKFeedbackItemDetailsViewController::viewDidLayoutSubviews()
{
    QKViewController::viewDidLayoutSubviews();
    if (!m_textView || !m_feedbackTableView)
        return;
    const QRectF bounds = view()->bounds();
    if (m_keyboardIsVisible) {
        // Always the height: Qt reports the keyboard's frame as shown, whatever the system version.
        const qreal extent = m_keyboardSize.height();
        const QRectF bar = m_textView->bounds();
        m_textView->setFrame(QRectF(0, bounds.height() - (extent + bar.height()), bar.width(), bar.height()));
    } else {
        const qreal height = m_textView->sizeThatFits(bounds.size()).height();
        m_textView->setFrame(QRectF(0, bounds.height() - height, bounds.width(), height));
    }
    m_feedbackTableView->setFrame(QRectF(0, 0, bounds.width(), bounds.height() - m_textView->frame().height()));
    if (m_activityIndicator)
        m_activityIndicator->setCenter(m_feedbackTableView->center());
}

void QKFeedbackItemDetailsViewController::reloadData()
{
    m_model->reload();
}

void QKFeedbackItemDetailsViewController::sendComment(const QString &text)
{
    view()->endEditing(true);
    m_model->sendComment(text);
}

bool QKFeedbackItemDetailsViewController::isPortrait(qint64 orientation)
{
    return orientation == QKApplication::InterfaceOrientationPortrait ||
           orientation == QKApplication::InterfaceOrientationPortraitUpsideDown;
}

void QKFeedbackItemDetailsViewController::keyboardWillShow(const QKNotification &notification)
{
    m_keyboardSize = notification.userInfo().value(QKKeyboard::FrameBeginUserInfoKey).toRectF().size();
    m_keyboardIsVisible = true;
    QKAnimation::animate(
        0.2, 0.0, QKAnimation::CurveEaseOut,
        [this] {
            if (!m_textView)
                return;
            const QRectF bar = m_textView->bounds();
            const qreal top = view()->bounds().height() - (m_keyboardSize.height() + bar.height());
            m_textView->setFrame(QRectF(0, top, bar.width(), bar.height()));
        },
        [](bool) {});
}

void QKFeedbackItemDetailsViewController::keyboardWillHide(const QKNotification &)
{
    m_keyboardIsVisible = false;
    QKAnimation::animate(
        0.2, 0.0, QKAnimation::CurveEaseOut,
        [this] {
            if (!m_textView)
                return;
            const QRectF bounds = view()->bounds();
            const qreal height = m_textView->frame().height();
            m_textView->setFrame(QRectF(0, bounds.height() - height, bounds.width(), height));
        },
        [](bool) {});
}

int QKFeedbackItemDetailsViewController::numberOfSectionsInTableView(QKTableView *)
{
    return 2;
}

int QKFeedbackItemDetailsViewController::numberOfRowsInSection(QKTableView *, int section)
{
    return section == 0 ? 2 : m_model->rowCount();
}

QKTableViewCell *QKFeedbackItemDetailsViewController::cellForRowAtIndexPath(QKTableView *tableView,
                                                                            const QKIndexPath &indexPath)
{
    const QKFeedbackItemPtr item = feedbackItem();
    if (indexPath.section() == 0) {
        if (indexPath.row() == 1) {
            auto *cell = static_cast<QKFeedbackItemImageTableViewCell *>(
                tableView->dequeueReusableCell(QStringLiteral("screenshot"), indexPath));
            cell->image()->setImage(item ? item->image() : QImage());
            return cell;
        }
        auto *cell = static_cast<QKFeedbackItemTableViewCell *>(
            tableView->dequeueReusableCell(QStringLiteral("item"), indexPath));
        cell->initWithItem(item);
        return cell;
    }
    auto *cell = static_cast<QKFeedbackItemCommentTableViewCell *>(
        tableView->dequeueReusableCell(QStringLiteral("comment"), indexPath));
    cell->initWithItem(m_model->comment(indexPath.row()));
    return cell;
}

qreal QKFeedbackItemDetailsViewController::heightForRowAtIndexPath(QKTableView *tableView, const QKIndexPath &indexPath)
{
    const QKFeedbackItemPtr item = feedbackItem();
    const QRectF bounds = tableView->bounds();
    if (indexPath.section() == 0) {
        if (indexPath.row() == 1)
            return QKFeedbackItemImageTableViewCell::heightForImage(item ? item->image() : QImage(), bounds.width());
        return QKFeedbackItemTableViewCell::heightForItem(item, bounds.width(), bounds.height());
    }
    return QKFeedbackItemCommentTableViewCell::heightForComment(item, m_model->comment(indexPath.row()),
                                                                bounds.width());
}

qreal QKFeedbackItemDetailsViewController::heightForHeaderInSection(QKTableView *, int section)
{
    return section == 1 ? 16.0 : 0.0;
}

QKView *QKFeedbackItemDetailsViewController::viewForHeaderInSection(QKTableView *tableView, int section)
{
    if (section != 1)
        return nullptr;
    const qreal width = tableView->frame().width();
    auto *header = new QKView(QRectF(0, 0, width, 16));
    header->setBackgroundColor(QKPalette::background());

    auto *label = new QKLabel(QRectF(10, 1, width - 10, 14));
    label->setFont(QKFont::boldSystem(14));
    label->setTextColor(QKPalette::darkText());
    label->setText(QStringLiteral("%1 %2").arg(m_model->rowCount()).arg(QKLocalizedString("COMMENTS")));
    header->addSubview(label);

    // Views clip to their superview here: the line takes the header's last point, not
    // the one below it, or it would never show.
    auto *line = new QKView(QRectF(10, 15, width - 20, 1));
    line->setBackgroundColor(QKPalette::secondaryText());
    header->addSubview(line);
    return header;
}

void QKFeedbackItemDetailsViewController::didSelectRowAtIndexPath(QKTableView *, const QKIndexPath &)
{
    view()->endEditing(true);
}

void QKFeedbackItemDetailsViewController::feedbackTextView(QKFeedbackTextView *, const QString &text)
{
    view()->endEditing(true);
    sendComment(text);
}

void QKFeedbackItemDetailsViewController::feedbackTextViewEndEdit(QKFeedbackTextView *)
{}

void QKFeedbackItemDetailsViewController::settingsViewControllerInit(QKFeedbackSettingsViewController *screen)
{
    screen->sendAnonymousButton()->setViewHidden(false);
    screen->continueButton()->setViewHidden(false);
}

void QKFeedbackItemDetailsViewController::settingsViewController(QKFeedbackSettingsViewController *screen,
                                                                 QKFeedbackSendFlow::NameAction action)
{
    const bool sends = action != QKFeedbackSendFlow::Back;
    if (sends) {
        screen->view()->endEditing(true);
        if (QKNavigationController *navigation = navigationController())
            navigation->popViewControllerAnimated(true);
        view()->endEditing(true);
    }
    // The façade keeps the saved name; the model sends the held comment.
    m_model->setSendFlow(QKFeedback::sharedInstance()->sendFlow());
    const QString name = m_model->chooseName(action, screen->nameTextField()->text());
    if (action == QKFeedbackSendFlow::SendAnonymous)
        screen->nameTextField()->setText(name);
}
