#include "QKDispatch.h"

#include "QKException.h"

#include <QCoreApplication>
#include <QThread>
#include <QThreadPool>

namespace {

// The application object lives on the main thread for the application's lifetime,
// so queued calls on it run in the main event loop.
QObject *mainContext()
{
    auto *app = QCoreApplication::instance();
    if (!app)
        throw QKException(QStringLiteral("QKDispatch"), QStringLiteral("the main queue needs a QCoreApplication"));
    return app;
}

} // namespace

QKDispatchQueue QKDispatch::mainQueue()
{
    return QKDispatchQueue(QKDispatchQueue::Kind::Main);
}

QKDispatchQueue QKDispatch::globalQueue()
{
    return QKDispatchQueue(QKDispatchQueue::Kind::Global);
}

void QKDispatch::async(const QKDispatchQueue &queue, std::function<void()> block)
{
    switch (queue.m_kind) {
    case QKDispatchQueue::Kind::Main:
        QMetaObject::invokeMethod(mainContext(), std::move(block), Qt::QueuedConnection);
        break;
    case QKDispatchQueue::Kind::Global:
        QThreadPool::globalInstance()->start(std::move(block));
        break;
    }
}

bool QKDispatch::isMainThread()
{
    auto *app = QCoreApplication::instance();
    return app && QThread::currentThread() == app->thread();
}
