#include "QKAnimation.h"

#include <QEasingCurve>
#include <QPauseAnimation>
#include <QSequentialAnimationGroup>
#include <QTimer>
#include <QVariantAnimation>

#include <memory>

namespace {

bool enabled = true;

struct Transaction
{
    int durationMs = 0;
    int delayMs = 0;
    QEasingCurve curve;
    int running = 0;
    bool blockDone = false;
    std::function<void(bool)> completion;

    void finishIfDone()
    {
        if (blockDone && running == 0 && completion) {
            auto done = std::move(completion);
            completion = nullptr;
            QTimer::singleShot(0, [done] { done(true); });
        }
    }
};

std::shared_ptr<Transaction> current;

QEasingCurve curveFor(int options)
{
    switch (options & (3 << 16)) {
    case QKAnimation::CurveEaseIn:
        return QEasingCurve(QEasingCurve::InCubic);
    case QKAnimation::CurveEaseOut:
        return QEasingCurve(QEasingCurve::OutCubic);
    case QKAnimation::CurveLinear:
        return QEasingCurve(QEasingCurve::Linear);
    default:
        return QEasingCurve(QEasingCurve::InOutCubic);
    }
}

const char *const GroupName = "_qk_animation";

} // namespace

void QKAnimation::animate(double duration, double delay, int options, const std::function<void()> &animations,
                          std::function<void(bool)> completion)
{
    auto transaction = std::make_shared<Transaction>();
    transaction->durationMs = int(duration * 1000);
    transaction->delayMs = int(delay * 1000);
    transaction->curve = curveFor(options);
    transaction->completion = std::move(completion);
    auto outer = current;
    current = (enabled && transaction->durationMs > 0) ? transaction : nullptr;
    if (animations)
        animations();
    current = outer;
    transaction->blockDone = true;
    transaction->finishIfDone();
}

void QKAnimation::animate(double duration, const std::function<void()> &animations,
                          std::function<void(bool)> completion)
{
    animate(duration, 0.0, CurveEaseInOut, animations, std::move(completion));
}

void QKAnimation::setAnimationsEnabled(bool on)
{
    enabled = on;
}

bool QKAnimation::animationsEnabled()
{
    return enabled;
}

bool QKAnimation::animateValue(QObject *owner, const QVariant &from, const QVariant &to,
                               const std::function<void(const QVariant &)> &apply)
{
    if (!current || !owner)
        return false;
    stopAnimations(owner);
    auto transaction = current;
    auto *group = new QSequentialAnimationGroup(owner);
    if (transaction->delayMs > 0)
        group->addPause(transaction->delayMs);
    auto *movement = new QVariantAnimation(group);
    movement->setStartValue(from);
    movement->setEndValue(to);
    movement->setDuration(transaction->durationMs);
    movement->setEasingCurve(transaction->curve);
    QObject::connect(movement, &QVariantAnimation::valueChanged, owner,
                     [apply](const QVariant &value) { apply(value); });
    group->addAnimation(movement);
    ++transaction->running;
    QObject::connect(group, &QAbstractAnimation::finished, group, [transaction, apply, to, group] {
        apply(to);
        --transaction->running;
        transaction->finishIfDone();
        group->deleteLater();
    });
    group->setObjectName(QString::fromLatin1(GroupName));
    group->start();
    return true;
}

void QKAnimation::stopAnimations(QObject *owner)
{
    const auto groups =
        owner->findChildren<QSequentialAnimationGroup *>(QString::fromLatin1(GroupName), Qt::FindDirectChildrenOnly);
    for (auto *group : groups) {
        if (group->state() == QAbstractAnimation::Stopped)
            continue;
        // Ended at its last value, it still counts as done for its block's completion.
        group->stop();
        emit group->finished();
    }
}
