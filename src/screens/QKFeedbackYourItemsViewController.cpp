#include "QKFeedbackYourItemsViewController.h"

#include "../base/QKDispatch.h"
#include "../base/QKLocalizedString.h"
#include "../core/QKFeedback.h"
#include "../data/QKLocalFeedbackSource.h"
#include "../kit/QKActivityIndicatorView.h"
#include "../kit/QKAlertView.h"
#include "../kit/QKDevice.h"
#include "../kit/QKLabel.h"
#include "../kit/QKNavigationController.h"
#include "../kit/QKRefreshControl.h"
#include "../kit/QKSegmentedControl.h"
#include "../kit/QKTableView.h"
#include "QKFeedbackIndicatorTableViewCell.h"
#include "QKFeedbackItemDetailsViewController.h"
#include "QKFeedbackYourItemsTableViewCell.h"

namespace {

const QString IndicatorCell = QStringLiteral("indicator");
const QString ItemCell = QStringLiteral("feedbackItem");
const QColor Blue = QColor::fromRgbF(0.0, 0.47843137254901963, 1.0, 1.0);

} // namespace

QKFeedbackYourItemsViewController::QKFeedbackYourItemsViewController(QObject *parent) : QKViewController(parent)
{}

QKFeedbackYourItemsViewController::~QKFeedbackYourItemsViewController()
{
    // The table may outlive this object for a moment: it must not call back.
    if (m_itemsTableView) {
        m_itemsTableView->setDataSource(nullptr);
        m_itemsTableView->setDelegate(nullptr);
    }
}

void QKFeedbackYourItemsViewController::viewDidLoad()
{
    QKViewController::viewDidLoad();
    setTitle(QKLocalizedString("Your feedback"));
    QKView *root = view();
    root->setBackgroundColor(Qt::white);
    m_feedbackItems.reserve(10);
    m_showIndicator = true;

    navigationItem()->setLeftBarButtonItem(new QKBarButtonItem(QKLocalizedString("Back"), QKBarButtonItem::Done,
                                                               [this](QKBarButtonItem *) { backTouched(); }));

    m_itemsFilter = new QKSegmentedControl;
    m_itemsFilter->addTarget(
        this, [this](QKControl *) { reloadData(); }, QKControl::ValueChanged);
    m_itemsFilter->insertSegment(QKLocalizedString("Open"), 0, true);
    m_itemsFilter->insertSegment(QKLocalizedString("Resolved"), 1, true);
    m_itemsFilter->insertSegment(QKLocalizedString("All"), 2, true);
    m_itemsFilter->setSelectedSegmentIndex(0);
    m_itemsFilter->setTintColor(Blue);
    root->addSubview(m_itemsFilter);

    m_itemsTableView = new QKTableView;
    m_itemsTableView->setDataSource(this);
    m_itemsTableView->setDelegate(this);
    m_itemsTableView->registerClass<QKFeedbackIndicatorTableViewCell>(IndicatorCell);
    m_itemsTableView->registerClass<QKFeedbackYourItemsTableViewCell>(ItemCell);
    root->addSubview(m_itemsTableView);

    m_noFeedbackLabel = new QKLabel;
    m_noFeedbackLabel->setText(QKLocalizedString("There are currently no items in this category. Try sending us "
                                                 "feedback via the 'Send feedback' button."));
    m_noFeedbackLabel->setTextAlignment(Qt::AlignCenter);
    m_noFeedbackLabel->setTextColor(QColor(170, 170, 170));
    m_noFeedbackLabel->setNumberOfLines(0);
    root->addSubview(m_noFeedbackLabel);

    m_activityIndicator = new QKActivityIndicatorView(QKActivityIndicatorView::Gray);
    root->addSubview(m_activityIndicator);

    m_refreshControl = new QKRefreshControl;
    m_itemsTableView->addSubview(m_refreshControl);
    m_refreshControl->addTarget(this, [this] { refresh(); });

    m_orientation = QKDevice::currentDevice()->orientation();
    reloadData();
}

void QKFeedbackYourItemsViewController::viewDidLayoutSubviews()
{
    QKViewController::viewDidLayoutSubviews();
    const QRectF bounds = view()->bounds();
    // The filter keeps its natural width, centred, 10 below the top; the table fills the rest.
    const QSizeF filter = m_itemsFilter->sizeThatFits(bounds.size());
    m_itemsFilter->setFrame(QRectF(bounds.center().x() - filter.width() / 2, 10, filter.width(), filter.height()));
    const qreal tableTop = 10 + filter.height() + 10;
    m_itemsTableView->setFrame(QRectF(0, tableTop, bounds.width(), qMax(0.0, bounds.height() - tableTop)));

    const QRectF inset = bounds.adjusted(30, 30, -30, -30);
    const QSizeF label = m_noFeedbackLabel->sizeThatFits(inset.size());
    m_noFeedbackLabel->setBounds(QRectF(QPointF(0, 0), label));
    m_noFeedbackLabel->setCenter(m_itemsTableView->center());
    m_activityIndicator->setCenter(m_itemsTableView->center());
}

void QKFeedbackYourItemsViewController::backTouched()
{
    dismissViewControllerAnimated(true, [] { QKFeedback::sharedInstance()->setFeedbackIsShown(false); });
}

void QKFeedbackYourItemsViewController::reloadData()
{
    m_showIndicator = true;
    m_feedbackItems.clear();
    loadData();
}

QString QKFeedbackYourItemsViewController::getState() const
{
    switch (m_itemsFilter ? m_itemsFilter->selectedSegmentIndex() : 0) {
    case 0:
        return QKLocalizedString("Open");
    case 1:
        return QKLocalizedString("Resolved");
    default:
        return QString();
    }
}

void QKFeedbackYourItemsViewController::loadData()
{
    m_itemsTableView->setHidden(true);
    m_noFeedbackLabel->setHidden(true);
    m_activityIndicator->startAnimating();
    if (!m_dataSource)
        return;
    QPointer<QKFeedbackYourItemsViewController> self(this);
    m_dataSource->feedbackItemsByState(getState(), m_feedbackItems.size(),
                                       [self](std::optional<QKFeedbackItemList> items, std::optional<QKError> error) {
                                           QKDispatch::async(QKDispatch::mainQueue(), [self, items, error] {
                                               QKAssertMainThread();
                                               if (!self)
                                                   return;
                                               if (items)
                                                   self->m_feedbackItems.append(*items);
                                               self->m_activityIndicator->stopAnimating();
                                               if (error) {
                                                   auto *alert = new QKAlertView(error->domain, error->message(),
                                                                                 QKLocalizedString("Cancel"));
                                                   alert->show();
                                                   return;
                                               }
                                               self->m_itemsTableView->setHidden(self->m_feedbackItems.isEmpty());
                                               self->m_noFeedbackLabel->setHidden(!self->m_feedbackItems.isEmpty());
                                               self->m_itemsTableView->reloadData();
                                           });
                                       });
}

void QKFeedbackYourItemsViewController::refresh()
{
    if (!m_dataSource)
        return;
    const qsizetype before = m_feedbackItems.size();
    QPointer<QKFeedbackYourItemsViewController> self(this);
    m_dataSource->feedbackItemsByState(getState(), before,
                                       [self, before](std::optional<QKFeedbackItemList> items, std::optional<QKError>) {
                                           QKDispatch::async(QKDispatch::mainQueue(), [self, before, items] {
                                               QKAssertMainThread();
                                               if (!self)
                                                   return;
                                               if (items)
                                                   self->m_feedbackItems.append(*items);
                                               // Another page may exist exactly when this one brought something.
                                               self->m_showIndicator = self->m_feedbackItems.size() != before;
                                               if (qobject_cast<QKLocalFeedbackSource *>(self->m_dataSource.data()))
                                                   self->m_showIndicator = false;
                                               self->m_itemsTableView->reloadData();
                                               self->m_noFeedbackLabel->setHidden(!self->m_feedbackItems.isEmpty());
                                               self->m_refreshControl->endRefreshing();
                                           });
                                       });
}

int QKFeedbackYourItemsViewController::numberOfRowsInSection(QKTableView *, int)
{
    return int(m_feedbackItems.size()) + (m_showIndicator ? 1 : 0);
}

QKTableViewCell *QKFeedbackYourItemsViewController::cellForRowAtIndexPath(QKTableView *tableView,
                                                                          const QKIndexPath &indexPath)
{
    if (indexPath.row() >= m_feedbackItems.size()) {
        auto *cell =
            static_cast<QKFeedbackIndicatorTableViewCell *>(tableView->dequeueReusableCell(IndicatorCell, indexPath));
        // Started although the row takes no height: kept as it always was.
        cell->activityIndicator()->startAnimating();
        return cell;
    }
    auto *cell = static_cast<QKFeedbackYourItemsTableViewCell *>(tableView->dequeueReusableCell(ItemCell, indexPath));
    cell->initWithItem(m_feedbackItems.at(indexPath.row()));
    return cell;
}

qreal QKFeedbackYourItemsViewController::heightForRowAtIndexPath(QKTableView *tableView, const QKIndexPath &indexPath)
{
    if (indexPath.row() >= m_feedbackItems.size())
        return 0.0;
    return QKFeedbackYourItemsTableViewCell::heightForItem(m_feedbackItems.at(indexPath.row()),
                                                           tableView->bounds().width());
}

void QKFeedbackYourItemsViewController::willDisplayCell(QKTableView *, QKTableViewCell *, const QKIndexPath &indexPath)
{
    // The last item row, not the indicator row, asks for the next page.
    if (m_showIndicator && indexPath.row() == m_feedbackItems.size() - 1)
        refresh();
}

void QKFeedbackYourItemsViewController::didSelectRowAtIndexPath(QKTableView *, const QKIndexPath &indexPath)
{
    if (indexPath.row() >= m_feedbackItems.size())
        return;
    const QKFeedbackItemPtr item = m_feedbackItems.at(indexPath.row());
    auto *details = new QKFeedbackItemDetailsViewController;
    details->setFeedbackItem(item);
    details->setDataSource(m_dataSource);
    QPointer<QKFeedbackItemDetailsViewController> shown(details);
    if (QKNavigationController *navigation = navigationController())
        navigation->pushViewController(details, true);
    else
        delete details; // nowhere to show it; the item's comments and image still load

    if (!m_dataSource)
        return;
    if (item->image().isNull()) {
        m_dataSource->imageForKey(item->params().value(QStringLiteral("ImageUri")).toString(),
                                  [item, shown](QImage image, std::optional<QKError>) {
                                      QKDispatch::async(QKDispatch::mainQueue(), [item, shown, image] {
                                          QKAssertMainThread();
                                          item->setImage(image);
                                          if (shown)
                                              shown->reloadData();
                                      });
                                  });
    }
    m_dataSource->subItemsForKey(item->key(),
                                 [item, shown](std::optional<QKFeedbackItemList> subItems, std::optional<QKError>) {
                                     QKDispatch::async(QKDispatch::mainQueue(), [item, shown, subItems] {
                                         QKAssertMainThread();
                                         // Opening an item twice does not add its comments twice.
                                         if (subItems && (!item->subItems() || item->subItems()->isEmpty()))
                                             for (const QKFeedbackItemPtr &subItem : *subItems)
                                                 item->addSubItem(subItem);
                                         if (shown)
                                             shown->reloadData();
                                     });
                                 });
}
