#pragma once

#include "QKGlobalKit.h"

#include <QVariant>

#include <functional>

class QObject;

/// Timed animations in the platform's style: the changes made inside the block take
/// effect in the model at once (a view's frame() is the new one), and what is shown
/// follows over the duration. Main thread only.
class MURMORA_EXPORT QKAnimation
{
public:
    enum Option {
        CurveEaseInOut = 0,
        CurveEaseIn = 1 << 16,
        CurveEaseOut = 2 << 16,
        CurveLinear = 3 << 16,
    };

    /// Runs `animations` now; every frame or inset it changes moves there over
    /// `duration` seconds after `delay`. `completion` runs once, after the last
    /// movement ends, or on the next turn of the event loop when nothing moved or
    /// animations are off.
    static void animate(double duration, double delay, int options, const std::function<void()> &animations,
                        std::function<void(bool finished)> completion = {});
    static void animate(double duration, const std::function<void()> &animations,
                        std::function<void(bool finished)> completion = {});

    /// Off: every change is shown at once; completions still run, queued. For hosts
    /// and tests that need determinism. On by default.
    static void setAnimationsEnabled(bool enabled);
    static bool animationsEnabled();

    /// For views: inside an animation block (and with animations on), moves the shown
    /// value from `from` to `to` by calling `apply` over time, and answers true;
    /// otherwise answers false and the caller applies `to` itself. The movement stops
    /// with `owner`.
    static bool animateValue(QObject *owner, const QVariant &from, const QVariant &to,
                             const std::function<void(const QVariant &)> &apply);
    /// Stops any movement of `owner` started through animateValue (its last value stays).
    static void stopAnimations(QObject *owner);
};
