#pragma once

// Drives the library's screens as a person would: taps where a finger would land,
// the screen on top of the feedback stack, and pictures of the window.

#include "core/QKFeedback.h"
#include "kit/QKNavigationController.h"
#include "kit/QKWindow.h"

#include <QApplication>
#include <QtTest>

namespace ScreenDriver {

// Clicks whatever widget is at `point` (coordinates of `window`, or of any widget), as a tap would.
inline void tapWindow(QWidget *window, const QPointF &point)
{
    QWidget *target = window->childAt(point.toPoint());
    if (!target)
        target = window;
    QTest::mouseClick(target, Qt::LeftButton, {}, target->mapFrom(window, point.toPoint()));
}

inline void tapView(QKWindow *window, QKView *view)
{
    tapWindow(window, view->convertPointToView(view->bounds().center(), nullptr));
}

// A window of a phone's size in points with `root` (when given), shown, key and
// active; the caller waits for it with QTest::qWaitForWindowActive.
inline QKWindow *phoneWindow(QKViewController *root)
{
    auto *window = new QKWindow(QSizeF(393, 852));
    if (root)
        window->setRootViewController(root);
    window->makeKeyAndVisible();
    QApplication::setActiveWindow(window);
    return window;
}

inline QKNavigationController *shownNavigation()
{
    return qobject_cast<QKNavigationController *>(QKFeedback::topMostController());
}

template <class Screen>
Screen *topScreen()
{
    QKNavigationController *navigation = shownNavigation();
    return navigation ? qobject_cast<Screen *>(navigation->topViewController()) : nullptr;
}

// Writes the window as it looks now to `directory`/`name`.png.
inline void save(QKWindow *window, const QString &directory, const QString &name)
{
    QCoreApplication::processEvents();
    window->snapshot().save(QStringLiteral("%1/%2.png").arg(directory, name));
}

} // namespace ScreenDriver
