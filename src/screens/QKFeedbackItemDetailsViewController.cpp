#include "QKFeedbackItemDetailsViewController.h"

#include "QKFeedbackItemCommentTableViewCell.h"
#include "QKFeedbackItemImageTableViewCell.h"
#include "QKFeedbackItemTableViewCell.h"
#include "QKFeedbackSettingsViewController.h"

#include "../annotation/QKFeedbackTextView.h"
#include "../base/QKDispatch.h"
#include "../base/QKLocalizedString.h"
#include "../base/QKWhitespace.h"
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

// The platform's darkGrayColor and lightGrayColor.
static const QColor darkGray = QColor::fromRgbF(1.0 / 3, 1.0 / 3, 1.0 / 3);
static const QColor lightGray = QColor::fromRgbF(2.0 / 3, 2.0 / 3, 2.0 / 3);

static qsizetype subItemCount(const QKFeedbackItemPtr &item)
{
    return item && item->subItems() ? item->subItems()->size() : 0;
}

QKFeedbackItemDetailsViewController::QKFeedbackItemDetailsViewController(QObject *parent) : QKViewController(parent)
{}

QKFeedbackItemDetailsViewController::~QKFeedbackItemDetailsViewController()
{
    // The view goes after this part of the object: nothing in it may call back here.
    if (m_textView)
        m_textView->setDelegate(nullptr);
    if (m_feedbackTableView) {
        m_feedbackTableView->setDataSource(nullptr);
        m_feedbackTableView->setDelegate(nullptr);
    }
}

void QKFeedbackItemDetailsViewController::viewDidLoad()
{
    QKViewController::viewDidLoad();
    setTitle(QKLocalizedString("Feedback"));
    QKView *root = view();
    root->setBackgroundColor(Qt::white);

    m_feedbackTableView = new QKTableView;
    m_feedbackTableView->setSeparatorStyle(QKTableView::SeparatorStyleNone);
    m_feedbackTableView->setDataSource(this);
    m_feedbackTableView->setDelegate(this);
    m_feedbackTableView->setHidden(true);
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
    const QKFeedbackItemPtr item = feedbackItem();
    if (!item || item->image().isNull())
        return;
    if (m_activityIndicator)
        m_activityIndicator->stopAnimating();
    if (m_feedbackTableView) {
        m_feedbackTableView->setHidden(false);
        m_feedbackTableView->reloadData();
    }
}

void QKFeedbackItemDetailsViewController::sendComment(const QString &text)
{
    view()->endEditing(true);
    const QKFeedbackDataSourcePtr source = dataSource();
    const QString userName = source ? source->userName() : QString();
    if (userName.isEmpty()) {
        m_commentText = text;
        auto *screen = new QKFeedbackSettingsViewController;
        screen->setDelegate(this);
        screen->setExitOnBackTouched(false);
        if (QKNavigationController *navigation = navigationController())
            navigation->pushViewController(screen, true);
        else
            delete screen;
        return;
    }

    auto comment = QKFeedbackItem::create();
    comment->setText(text);
    if (m_feedbackTableView)
        m_feedbackTableView->setHidden(true);
    if (m_activityIndicator)
        m_activityIndicator->startAnimating();
    const QKFeedbackItemPtr item = feedbackItem();
    // Weak: a screen closed before the answer is not kept alive for it.
    QPointer<QKFeedbackItemDetailsViewController> weakSelf(this);
    source->addSubItemForKey(
        item ? item->key() : QString(), comment, [weakSelf, comment](std::optional<QKError> error) {
            QKDispatch::async(QKDispatch::mainQueue(), [weakSelf, comment, failed = error.has_value()] {
                QKAssertMainThread();
                if (failed) {
                    (new QKAlertView(QKLocalizedString("Network error"),
                                     QKLocalizedString("Could not send data to server"), QKLocalizedString("Cancel")))
                        ->show();
                    return;
                }
                QKFeedbackItemDetailsViewController *self = weakSelf.data();
                if (!self)
                    return;
                if (self->m_activityIndicator)
                    self->m_activityIndicator->stopAnimating();
                if (self->m_textView) {
                    self->m_textView->textField()->setText(QString());
                    self->m_textView->sendButton()->setEnabled(false);
                }
                if (const QKFeedbackItemPtr shown = self->feedbackItem())
                    shown->insertSubItem(comment, 0);
                if (QKTableView *table = self->m_feedbackTableView) {
                    table->setHidden(false);
                    table->reloadData();
                    table->layoutIfNeeded();
                    table->selectRowAtIndexPath(QKIndexPath(1, 0), true, QKTableView::ScrollPositionBottom);
                }
            });
        });
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
    return section == 0 ? 2 : int(subItemCount(feedbackItem()));
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
    cell->initWithItem(item->subItems()->at(indexPath.row()));
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
    return QKFeedbackItemCommentTableViewCell::heightForComment(item, item->subItems()->at(indexPath.row()),
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
    header->setBackgroundColor(Qt::white);

    auto *label = new QKLabel(QRectF(10, 1, width - 10, 14));
    label->setFont(QKFont::boldSystem(14));
    label->setTextColor(darkGray);
    label->setText(QStringLiteral("%1 %2").arg(subItemCount(feedbackItem())).arg(QKLocalizedString("COMMENTS")));
    header->addSubview(label);

    // Views clip to their superview here: the line takes the header's last point, not
    // the one below it, or it would never show.
    auto *line = new QKView(QRectF(10, 15, width - 20, 1));
    line->setBackgroundColor(lightGray);
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
    screen->sendAnonymousButton()->setHidden(false);
    screen->continueButton()->setHidden(false);
}

void QKFeedbackItemDetailsViewController::settingsViewController(QKFeedbackSettingsViewController *screen,
                                                                 const QString &action)
{
    if (!action.isEmpty()) {
        screen->view()->endEditing(true);
        if (QKNavigationController *navigation = navigationController())
            navigation->popViewControllerAnimated(true);
    }
    const QKFeedbackDataSourcePtr source = dataSource();
    if (action == QLatin1String("SendAnonymous")) {
        if (source)
            source->setUserName(QKLocalizedString("Anonymous"));
        screen->nameTextField()->setText(source ? source->userName() : QString());
    } else if (source) {
        source->setUserName(QKTrimmedWhitespace(screen->nameTextField()->text()));
    }
    const QString userName = source ? source->userName() : QString();
    if (!userName.isNull())
        QKFeedback::sharedInstance()->settings().insert(QStringLiteral("Name"), userName);
    QKFeedback::sharedInstance()->saveSettings();
    if (!action.isEmpty())
        sendComment(m_commentText);
}
