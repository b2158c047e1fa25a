#include "Tour.h"

#include "annotation/QKFeedbackSendViewController.h"
#include "annotation/QKFeedbackSurfaceView.h"
#include "annotation/QKFeedbackTextView.h"
#include "core/QKFeedback.h"
#include "kit/QKActionSheet.h"
#include "kit/QKAlertView.h"
#include "kit/QKButton.h"
#include "kit/QKNavigationBar.h"
#include "kit/QKNavigationController.h"
#include "kit/QKTableView.h"
#include "kit/QKTextField.h"
#include "kit/QKWindow.h"
#include "screens/QKFeedbackItemDetailsViewController.h"
#include "screens/QKFeedbackSettingsViewController.h"
#include "screens/QKFeedbackYourItemsViewController.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QLineEdit>
#include <QPushButton>
#include <QTimer>
#include <QKeyEvent>
#include <QMouseEvent>

#include <cstdio>

namespace {

QKNavigationController *shownNavigation()
{
    return qobject_cast<QKNavigationController *>(QKFeedback::topMostController());
}

template <class Screen>
Screen *topScreen()
{
    QKNavigationController *navigation = shownNavigation();
    return navigation ? qobject_cast<Screen *>(navigation->topViewController()) : nullptr;
}

QPointF centreInWindow(QKView *view)
{
    return view->convertPointToView(view->bounds().center(), nullptr);
}

// The tour drives the screens with the events a person's input would make, without QtTest.
void pause(int milliseconds)
{
    QEventLoop loop;
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    loop.exec();
}

void click(QWidget *target, const QPoint &at)
{
    const QPointF global = target->mapToGlobal(QPointF(at));
    for (auto type : {QEvent::MouseButtonPress, QEvent::MouseButtonRelease}) {
        const Qt::MouseButtons buttons = type == QEvent::MouseButtonPress ? Qt::LeftButton : Qt::NoButton;
        QMouseEvent event(type, QPointF(at), global, Qt::LeftButton, buttons, Qt::NoModifier);
        QCoreApplication::sendEvent(target, &event);
    }
}

void type(QWidget *target, const QString &text)
{
    for (const QChar c : text) {
        for (auto kind : {QEvent::KeyPress, QEvent::KeyRelease}) {
            QKeyEvent event(kind, 0, Qt::NoModifier, QString(c));
            QCoreApplication::sendEvent(target, &event);
        }
    }
}

} // namespace

template <class Condition>
bool Tour::waitFor(Condition condition, int milliseconds)
{
    QElapsedTimer clock;
    clock.start();
    while (!condition()) {
        if (clock.elapsed() > milliseconds)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        pause(10);
    }
    pause(50);
    return true;
}

void Tour::tap(const QPointF &point)
{
    QWidget *target = m_window->childAt(point.toPoint());
    if (!target)
        target = m_window;
    click(target, target->mapFrom(m_window, point.toPoint()));
}

bool Tour::step(const char *name, bool done)
{
    if (!done) {
        std::fprintf(stderr, "tour: step \"%s\" did not happen\n", name);
        return false;
    }
    const QString file = m_directory.filePath(
        QStringLiteral("%1-%2.png").arg(++m_step, 2, 10, QLatin1Char('0')).arg(QLatin1String(name)));
    m_window->snapshot().save(file);
    std::printf("  %s\n", qPrintable(file));
    return true;
}

bool Tour::run()
{
    std::printf("Pictures of the tour:\n");
    if (!step("notes", waitFor([this] { return m_window->isVisible(); })))
        return false;

    // The app's own button opens the menu.
    auto *button = m_window->findChild<QPushButton *>();
    click(button, button->rect().center());
    if (!step("menu", waitFor([] { return QKActionSheet::visibleSheets().size() == 1; })))
        return false;
    tap(QKActionSheet::visibleSheets().first()->rectForButtonAtIndex(0).center());
    QKFeedbackSendViewController *send = nullptr;
    if (!step("send-screen", waitFor([&] { return (send = topScreen<QKFeedbackSendViewController>()); })))
        return false;

    // Two markers, each with its comment.
    const QStringList comments{QStringLiteral("The list cuts the last line"),
                               QStringLiteral("This button is hard to find")};
    const QList<QPointF> places{QPointF(0.5, 0.22), QPointF(0.82, 0.04)};
    for (int i = 0; i < 2; ++i) {
        QKView *surface = send->surfaceView();
        const QSizeF size = surface->frame().size();
        tap(surface->convertPointToView(QPointF(size.width() * places[i].x(), size.height() * places[i].y()), nullptr));
        if (!waitFor([&] { return send->textView() && send->textView()->textField()->isFirstResponder(); }))
            return step("comment-bar", false);
        type(send->textView()->textField()->lineEdit(), comments[i]);
        if (i == 1 && !step("markers", true))
            return false;
        tap(centreInWindow(send->textView()->sendButton()));
        if (!waitFor([&] { return !send->textView(); }))
            return step("comment-done", false);
    }
    QKNavigationBar *bar = shownNavigation()->navigationBar();
    tap(bar->convertPointToView(bar->rectForItem(send->navigationItem()->rightBarButtonItem()).center(), nullptr));

    QKFeedbackSettingsViewController *name = nullptr;
    if (!waitFor([&] { return (name = topScreen<QKFeedbackSettingsViewController>()); }))
        return step("name-screen", false);
    tap(centreInWindow(name->nameTextField()));
    type(name->nameTextField()->lineEdit(), QStringLiteral("Ada Lovelace"));
    if (!step("name-screen", true))
        return false;
    tap(centreInWindow(name->continueButton()));
    if (!step("sent",
              waitFor([] { return QKAlertView::visibleAlerts().size() == 1 && !QKFeedback::feedbackIsShown(); })))
        return false;
    tap(QKAlertView::visibleAlerts().first()->rectForButtonAtIndex(0).center());
    waitFor([] { return QKAlertView::visibleAlerts().isEmpty(); });

    // Browse what was sent, open it, and add a comment.
    QKFeedbackItemDetailsViewController *details = openNewest(true);
    if (!details)
        return false;
    tap(centreInWindow(details->textView()->textField()));
    type(details->textView()->textField()->lineEdit(), QStringLiteral("Fixed in the next version, thanks!"));
    tap(centreInWindow(details->textView()->sendButton()));
    const QKFeedbackItemPtr item = details->feedbackItem();
    if (!step("comment", waitFor([&] { return item && item->subItems() && item->subItems()->size() == 1; })))
        return false;
    if (!m_answer)
        return true;

    // The team answers from its dashboard; the app shows the answer when the item is opened again.
    if (!m_answer())
        return step("reply", false);
    shownNavigation()->popViewControllerAnimated(false);
    if (auto *list = topScreen<QKFeedbackYourItemsViewController>())
        list->backTouched();
    waitFor([] { return !QKFeedback::feedbackIsShown(); });
    details = openNewest(false);
    const bool answered = details && waitFor([&] {
                              const QKFeedbackItemPtr again = details->feedbackItem();
                              return again && again->subItems() && again->subItems()->size() == 2;
                          });
    if (answered) {
        // The comments are under the screenshot.
        QKTableView *table = details->feedbackTableView();
        table->setContentOffset(QPointF(0, qMax(0.0, table->contentSize().height() - table->bounds().height())));
    }
    return step("reply", answered);
}

QKFeedbackItemDetailsViewController *Tour::openNewest(bool pictures)
{
    QKFeedback::showFeedback();
    waitFor([] { return QKActionSheet::visibleSheets().size() == 1; });
    tap(QKActionSheet::visibleSheets().first()->rectForButtonAtIndex(1).center());
    QKFeedbackYourItemsViewController *list = nullptr;
    const bool listed = waitFor([&] {
        list = topScreen<QKFeedbackYourItemsViewController>();
        return list && !list->itemsTableView()->isViewHidden();
    });
    if (!listed || pictures)
        step("your-feedback", listed);
    if (!listed)
        return nullptr;
    QKTableView *table = list->itemsTableView();
    tap(table->convertPointToView(table->rectForRowAtIndexPath(QKIndexPath(0, 0)).center(), nullptr));
    QKFeedbackItemDetailsViewController *details = nullptr;
    const bool shown = waitFor([&] {
        details = topScreen<QKFeedbackItemDetailsViewController>();
        return details && !details->feedbackTableView()->isViewHidden();
    });
    if (!shown || pictures)
        step("details", shown);
    return shown ? details : nullptr;
}
