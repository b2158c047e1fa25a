#include "QKFeedbackYourItemsViewController.h"

#include "../base/QKLocalizedString.h"
#include "../core/QKFeedback.h"
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
#include "../models/QKPalette.h"

namespace {

const QString IndicatorCell = QStringLiteral("indicator");
const QString ItemCell = QStringLiteral("feedbackItem");

// Segments 0 and 1 are the two states; any other, "All" included, lists every state.
QKFeedbackListModel::Filter filterForSegment(int segment)
{
    return segment == 0   ? QKFeedbackListModel::Open
           : segment == 1 ? QKFeedbackListModel::Resolved
                          : QKFeedbackListModel::All;
}

} // namespace

QKFeedbackYourItemsViewController::QKFeedbackYourItemsViewController(QObject *parent)
    : QKViewController(parent), m_model(new QKFeedbackListModel(this))
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
    root->setBackgroundColor(QKPalette::background());

    navigationItem()->setLeftBarButtonItem(new QKBarButtonItem(QKLocalizedString("Back"), QKBarButtonItem::Done,
                                                               [this](QKBarButtonItem *) { backTouched(); }));

    m_itemsFilter = new QKSegmentedControl;
    m_itemsFilter->addTarget(
        this, [this](QKControl *) { m_model->setFilter(filterForSegment(m_itemsFilter->selectedSegmentIndex())); },
        QKControl::ValueChanged);
    m_itemsFilter->insertSegment(QKLocalizedString("Open"), 0, true);
    m_itemsFilter->insertSegment(QKLocalizedString("Resolved"), 1, true);
    m_itemsFilter->insertSegment(QKLocalizedString("All"), 2, true);
    m_itemsFilter->setSelectedSegmentIndex(int(m_model->filter()));
    m_itemsFilter->setTintColor(QKPalette::tint());
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
    m_noFeedbackLabel->setTextColor(QKPalette::secondaryText());
    m_noFeedbackLabel->setNumberOfLines(0);
    root->addSubview(m_noFeedbackLabel);

    m_activityIndicator = new QKActivityIndicatorView(QKActivityIndicatorView::Gray);
    root->addSubview(m_activityIndicator);

    m_refreshControl = new QKRefreshControl;
    m_itemsTableView->addSubview(m_refreshControl);
    m_refreshControl->addTarget(this, [this] { refresh(); });

    // The views follow the model; the table is reloaded once per answer, after the
    // model settled, so that a row coming into view never pages with a stale count.
    QKFeedbackListModel *model = m_model;
    connect(model, &QKFeedbackListModel::loadingChanged, this, [this] {
        if (m_model->isLoading())
            m_activityIndicator->startAnimating();
        else
            m_activityIndicator->stopAnimating();
    });
    connect(model, &QKFeedbackListModel::listVisibleChanged, this,
            [this] { m_itemsTableView->setViewHidden(!m_model->isListVisible()); });
    connect(model, &QKFeedbackListModel::emptyMessageVisibleChanged, this,
            [this] { m_noFeedbackLabel->setViewHidden(!m_model->isEmptyMessageVisible()); });
    connect(model, &QKFeedbackListModel::firstPageLoaded, this, [this] { m_itemsTableView->reloadData(); });
    connect(model, &QKFeedbackListModel::nextPageLoaded, this, [this] {
        m_itemsTableView->reloadData();
        m_refreshControl->endRefreshing();
    });
    connect(model, &QKFeedbackListModel::firstPageFailed, this, [](const QString &title, const QString &message) {
        (new QKAlertView(title, message, QKLocalizedString("Cancel")))->show();
    });
    m_itemsTableView->setViewHidden(!model->isListVisible());
    m_noFeedbackLabel->setViewHidden(!model->isEmptyMessageVisible());

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
    m_model->reload();
}

QString QKFeedbackYourItemsViewController::getState() const
{
    return m_model->state();
}

void QKFeedbackYourItemsViewController::loadData()
{
    m_model->loadFirstPage();
}

void QKFeedbackYourItemsViewController::refresh()
{
    m_model->loadNextPage();
}

int QKFeedbackYourItemsViewController::numberOfRowsInSection(QKTableView *, int)
{
    return m_model->rowCount() + (m_model->showIndicator() ? 1 : 0);
}

QKTableViewCell *QKFeedbackYourItemsViewController::cellForRowAtIndexPath(QKTableView *tableView,
                                                                          const QKIndexPath &indexPath)
{
    if (indexPath.row() >= m_model->rowCount()) {
        auto *cell =
            static_cast<QKFeedbackIndicatorTableViewCell *>(tableView->dequeueReusableCell(IndicatorCell, indexPath));
        // Started although the row takes no height: kept as it always was.
        cell->activityIndicator()->startAnimating();
        return cell;
    }
    auto *cell = static_cast<QKFeedbackYourItemsTableViewCell *>(tableView->dequeueReusableCell(ItemCell, indexPath));
    cell->initWithItem(m_model->item(indexPath.row()));
    return cell;
}

qreal QKFeedbackYourItemsViewController::heightForRowAtIndexPath(QKTableView *tableView, const QKIndexPath &indexPath)
{
    if (indexPath.row() >= m_model->rowCount())
        return 0.0;
    return QKFeedbackYourItemsTableViewCell::heightForItem(m_model->item(indexPath.row()), tableView->bounds().width());
}

void QKFeedbackYourItemsViewController::willDisplayCell(QKTableView *, QKTableViewCell *, const QKIndexPath &indexPath)
{
    m_model->rowShown(indexPath.row());
}

void QKFeedbackYourItemsViewController::didSelectRowAtIndexPath(QKTableView *, const QKIndexPath &indexPath)
{
    const QKFeedbackItemPtr item = m_model->item(indexPath.row());
    if (!item)
        return;
    auto *details = new QKFeedbackItemDetailsViewController;
    details->setFeedbackItem(item);
    details->setDataSource(m_model->dataSource());
    QPointer<QKFeedbackItemDetailsViewController> shown(details);
    if (QKNavigationController *navigation = navigationController())
        navigation->pushViewController(details, true);
    else
        delete details; // nowhere to show it; the item's comments and image still load
    m_model->openItem(indexPath.row(), shown ? shown->model() : nullptr);
}
